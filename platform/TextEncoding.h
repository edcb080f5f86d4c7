// Text read from a file whose encoding its first bytes may name: a byte-order
// mark selects UTF-8 or UTF-16 (either byte order), as the platform's read of
// a file without a stated encoding does. Shared by the strings-table reader
// and the remover's lists.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

// UTF-16 surrogates: a high one (D800-DBFF) and a low one (DC00-DFFF) make
// one character together.
bool isHighSurrogate(char32_t unit);
bool isLowSurrogate(char32_t unit);
char32_t combineSurrogates(char32_t high, char32_t low);

// UTF-16 (without its byte-order mark) to UTF-8; none for an odd number of
// bytes or a surrogate without its partner.
std::optional<std::string> utf16ToUTF8(std::string_view bytes, bool bigEndian);

// The text of a file's bytes: a UTF-8 byte-order mark is dropped, bytes after
// a UTF-16 one ("\xFF\xFE" little-endian, "\xFE\xFF" big-endian) are decoded
// to UTF-8, and anything else is taken as it is. None when the UTF-16 does
// not decode.
/// @code
///   textFromBytes("\xEF\xBB\xBF/x")          == "/x"
///   textFromBytes("\xFF\xFE/\0x\0")          == "/x"
///   textFromBytes("\xFE\xFF\0/\0x")          == "/x"
///   textFromBytes("\xFF\xFE/")               == none (odd length)
///   textFromBytes("/x\xFF")                  == "/x\xFF"
/// @endcode
std::optional<std::string> textFromBytes(std::string_view bytes);

}  // namespace platform
