// UTF-8 sequences one character at a time: decoding, shared by the text
// functions and the scanner, and encoding, used by the strings-table reader.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
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

// Appends the UTF-8 encoding of codePoint to out. A value that is no
// character (a surrogate, or past U+10FFFF) is appended as U+FFFD.
void appendUTF8(std::string& out, char32_t codePoint);

}  // namespace platform
