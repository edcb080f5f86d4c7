// What the fuzz targets share: the fuzzer's bytes as a string view, and a
// check that stops the run with a message the fuzzer reports as a finding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace fuzzsupport {

inline std::string_view bytesOf(const uint8_t* data, std::size_t size)
{
    return {reinterpret_cast<const char*>(data), size};  // NOLINT(cppcoreguidelines-pro-type-reinterpret-cast)
}

// Aborts with the message when condition is false: libFuzzer saves the input
// that did it as a crash.
inline void check(bool condition, const char* message)
{
    if (!condition) {
        std::fprintf(stderr, "fuzz check failed: %s\n", message);
        std::abort();
    }
}

}  // namespace fuzzsupport
