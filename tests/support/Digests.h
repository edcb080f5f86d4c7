// Digests in hex as the tests compare them: this build's own SHA-224/SHA-256
// and hex forms of raw bytes and of a SHA-256 state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace testsupport {

std::string hex(const unsigned char* bytes, size_t count);
std::string sha224Hex(const std::string& message);
std::string sha256Hex(const std::string& message);
// The eight state words written big-endian, as final writes a SHA-256 digest.
std::string hexOfState(const uint32_t* state);

}  // namespace testsupport
