#include "platform/Text.h"

#include "platform/UTF8.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <limits>

namespace platform {

std::vector<std::string> componentsSeparatedByString(std::string_view text, std::string_view separator)
{
    std::vector<std::string> components;
    if (separator.empty()) {
        components.emplace_back(text);
        return components;
    }
    std::size_t start = 0;
    for (;;) {
        const auto found = text.find(separator, start);
        if (found == std::string_view::npos) {
            components.emplace_back(text.substr(start));
            return components;
        }
        components.emplace_back(text.substr(start, found - start));
        start = found + separator.size();
    }
}

int64_t integerValue(std::string_view text)
{
    std::size_t position = 0;
    while (position < text.size() && (text[position] == ' ' || text[position] == '\t' || text[position] == '\n' ||
                                      text[position] == '\r' || text[position] == '\v' || text[position] == '\f')) {
        ++position;
    }
    bool negative = false;
    if (position < text.size() && (text[position] == '+' || text[position] == '-')) {
        negative = text[position] == '-';
        ++position;
    }
    // Accumulate as a negative number, whose range is one larger.
    constexpr int64_t lowest = std::numeric_limits<int64_t>::min();
    int64_t value = 0;
    bool saturated = false;
    for (; position < text.size() && text[position] >= '0' && text[position] <= '9'; ++position) {
        const int digit = text[position] - '0';
        if (saturated) {
            continue;
        }
        if (value < (lowest + digit) / 10) {
            saturated = true;
            continue;
        }
        value = value * 10 - digit;
    }
    if (saturated) {
        return negative ? lowest : std::numeric_limits<int64_t>::max();
    }
    if (negative) {
        return value;
    }
    return value == lowest ? std::numeric_limits<int64_t>::max() : -value;
}

int32_t intValue(std::string_view text)
{
    const int64_t value = integerValue(text);
    if (value > std::numeric_limits<int32_t>::max()) {
        return std::numeric_limits<int32_t>::max();
    }
    if (value < std::numeric_limits<int32_t>::min()) {
        return std::numeric_limits<int32_t>::min();
    }
    return static_cast<int32_t>(value);
}

std::string stringFromNumber(int64_t value)
{
    return std::to_string(value);
}

std::string stringFromNumber(double value)
{
    // Room for the longest shortest form, "-2.2250738585072014e-308".
    std::array<char, 32> buffer{};
    const auto written = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    return std::string(buffer.data(), written.ptr);
}

std::optional<std::string> replacingPercentEscapes(std::string_view text)
{
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t position = 0; position < text.size(); ++position) {
        if (text[position] != '%') {
            decoded.push_back(text[position]);
            continue;
        }
        // A "%" must be followed by two hexadecimal digits.
        if (text.size() - position < 3) {
            return std::nullopt;
        }
        const int high = hexDigitValue(text[position + 1]);
        const int low = hexDigitValue(text[position + 2]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        decoded.push_back(static_cast<char>(high * 16 + low));
        position += 2;
    }
    if (!isValidUTF8(decoded)) {
        return std::nullopt;
    }
    return decoded;
}

bool hasPrefix(std::string_view text, std::string_view prefix)
{
    // An empty prefix is not a prefix of anything, as with the platform's strings.
    return !prefix.empty() && text.substr(0, prefix.size()) == prefix;
}

bool containsString(std::string_view text, std::string_view part)
{
    return !part.empty() && text.find(part) != std::string_view::npos;
}

bool isValidUTF8(std::string_view text)
{
    std::size_t position = 0;
    while (position < text.size()) {
        const auto character = decodeUTF8At(text, position);
        if (!character) {
            return false;
        }
        position += character->length;
    }
    return true;
}

std::optional<std::vector<uint8_t>> dataUsingUTF8Encoding(std::string_view text)
{
    if (!isValidUTF8(text)) {
        return std::nullopt;
    }
    return std::vector<uint8_t>(text.begin(), text.end());
}

bool isControlCharacter(unsigned char c)
{
    return c < 0x20 || c == 0x7F;
}

std::string escapingControlCharacters(std::string_view text, char quote)
{
    std::string out;
    appendEscapingControlCharacters(out, text, quote);
    return out;
}

void appendEscapingControlCharacters(std::string& out, std::string_view text, char quote)
{
    const auto needsEscape = [quote](unsigned char c) {
        return isControlCharacter(c) || c == '\\' || (quote != 0 && c == static_cast<unsigned char>(quote));
    };
    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (!needsEscape(c)) {
            continue;
        }
        out.append(text.substr(start, i - start));
        start = i + 1;
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (isControlCharacter(c)) {
            std::array<char, 8> buffer{};
            std::snprintf(buffer.data(), buffer.size(), "\\x%02X", c);
            out += buffer.data();
        } else {
            out.push_back('\\');
            out.push_back(text[i]);
        }
    }
    out.append(text.substr(start));
}

const char* utf8StringOrNull(const std::optional<std::string>& text)
{
    return text ? text->c_str() : "(null)";
}

int hexDigitValue(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace platform
