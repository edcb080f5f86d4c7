// Reproducible message bytes for the digest tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace testsupport {

// A stream of reproducible bytes, handed out in pieces.
class ByteStream {
public:
    explicit ByteStream(uint64_t seed);
    void fill(unsigned char* bytes, size_t count);

private:
    uint64_t theState;
};

// count bytes that depend only on count and seed.
std::string messageBytes(size_t count, uint64_t seed = 1);

}  // namespace testsupport
