#include "platform/UTF8.h"

namespace platform {

namespace {

constexpr char32_t kReplacementCharacter = 0xFFFD;

// True for a Unicode scalar value: up to U+10FFFF and not a surrogate.
bool isScalarValue(char32_t value)
{
    return value <= 0x10FFFF && !(value >= 0xD800 && value <= 0xDFFF);
}

}  // namespace

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
    if (value < smallest || !isScalarValue(value)) {
        return std::nullopt;
    }
    return DecodedCharacter{value, length};
}

void appendUTF8(std::string& out, char32_t codePoint)
{
    if (!isScalarValue(codePoint)) {
        codePoint = kReplacementCharacter;
    }
    if (codePoint < 0x80) {
        out.push_back(static_cast<char>(codePoint));
    } else if (codePoint < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (codePoint >> 6)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    } else if (codePoint < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (codePoint >> 12)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (codePoint >> 18)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    }
}

}  // namespace platform
