// Decoding of single UTF-8 sequences, shared by the text functions and the
// scanner.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace platform {

struct DecodedCharacter {
    char32_t codePoint;
    std::size_t length;  // bytes taken by the sequence
};

// The character whose encoding starts at text[position], or none when the
// bytes there are not a well-formed UTF-8 sequence (overlong forms, encoded
// surrogates and values past U+10FFFF are not well formed).
std::optional<DecodedCharacter> decodeUTF8At(std::string_view text, std::size_t position);

}  // namespace platform
