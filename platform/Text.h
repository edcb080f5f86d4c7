// Text functions over UTF-8 byte strings.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// "/a//b/" split by "/" gives "", "a", "", "b", "".
std::vector<std::string> componentsSeparatedByString(std::string_view text, std::string_view separator);
// Leading blanks and a sign allowed, reading stops at the first non-digit;
// no digits read as 0. integerValue saturates at the 64-bit range, intValue
// clamps to the 32-bit range.
int64_t integerValue(std::string_view text);
int32_t intValue(std::string_view text);
// The decimal text a stored number reads as: an integer in full, a real in
// the shortest form that reads back as the same value ("2.5", 1234567.0 gives
// "1234567", 1e30 gives "1e+30").
std::string stringFromNumber(int64_t value);
std::string stringFromNumber(double value);
// Percent escapes decoded as UTF-8: "A%20B" -> "A B". None when the decoded
// bytes are not valid UTF-8.
std::optional<std::string> replacingPercentEscapes(std::string_view text);
// The value of a hexadecimal digit (either case), or -1 for any other byte.
int hexDigitValue(char c);
bool hasPrefix(std::string_view text, std::string_view prefix);
bool containsString(std::string_view text, std::string_view part);
bool isValidUTF8(std::string_view text);
// The text's UTF-8 bytes, or none when it has no UTF-8 form.
std::optional<std::vector<uint8_t>> dataUsingUTF8Encoding(std::string_view text);
// A C0 control character (below 0x20) or DEL.
bool isControlCharacter(unsigned char c);
// The text with every control character shown as \r, \n, \t or \xHH and a
// backslash as \\, and, when `quote` is given, that quote as backslash and
// quote: what shows one line on a terminal, whatever the text holds. Bytes
// from 0x80 up stay as they are.
//
//   escapingControlCharacters("/x\n\x1B[2Ky")    gives  /x\n\x1B[2Ky  (one line)
//   escapingControlCharacters("it's", '\'')      gives  it\'s
std::string escapingControlCharacters(std::string_view text, char quote = 0);
// The same appended to `out`: a run of bytes that need no escape is copied
// whole, so a long text with none costs one copy.
void appendEscapingControlCharacters(std::string& out, std::string_view text, char quote = 0);
// What "%s" prints for a string that may be absent: the C library's "(null)".
const char* utf8StringOrNull(const std::optional<std::string>& text);

}  // namespace platform
