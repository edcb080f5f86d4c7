#include "platform/Text.h"

#include "platform/UTF8Decode.h"

#include <limits>

namespace platform {

std::optional<DecodedCharacter> decodeUTF8At(std::string_view text, std::size_t position)
{
    if (position >= text.size()) {
        return std::nullopt;
    }
    const auto lead = static_cast<unsigned char>(text[position]);
    if (lead < 0x80) {
        return DecodedCharacter{lead, 1};
    }
    std::size_t length = 0;
    char32_t value = 0;
    char32_t smallest = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        value = lead & 0x1FU;
        smallest = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        value = lead & 0x0FU;
        smallest = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        value = lead & 0x07U;
        smallest = 0x10000;
    } else {
        return std::nullopt;
    }
    if (text.size() - position < length) {
        return std::nullopt;
    }
    for (std::size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[position + i]);
        if ((next & 0xC0U) != 0x80U) {
            return std::nullopt;
        }
        value = (value << 6U) | (next & 0x3FU);
    }
    if (value < smallest || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
        return std::nullopt;
    }
    return DecodedCharacter{value, length};
}

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
