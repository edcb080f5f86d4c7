#include "platform/TextEncoding.h"

#include <cstddef>

#include "platform/UTF8.h"

namespace platform {

namespace {

constexpr std::string_view kUTF8ByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kUTF16LittleEndianMark = "\xFF\xFE";
constexpr std::string_view kUTF16BigEndianMark = "\xFE\xFF";

}  // namespace

bool isHighSurrogate(char32_t unit)
{
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool isLowSurrogate(char32_t unit)
{
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

char32_t combineSurrogates(char32_t high, char32_t low)
{
    return 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
}

std::optional<std::string> utf16ToUTF8(std::string_view bytes, bool bigEndian)
{
    if (bytes.size() % 2 != 0) {
        return std::nullopt;
    }
    auto unitAt = [&](std::size_t index) {
        const auto first = static_cast<unsigned char>(bytes[index]);
        const auto second = static_cast<unsigned char>(bytes[index + 1]);
        return bigEndian ? static_cast<char32_t>((first << 8) | second) : static_cast<char32_t>((second << 8) | first);
    };
    std::string out;
    out.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        const char32_t unit = unitAt(i);
        if (isHighSurrogate(unit)) {
            if (i + 2 >= bytes.size() || !isLowSurrogate(unitAt(i + 2))) {
                return std::nullopt;
            }
            appendUTF8(out, combineSurrogates(unit, unitAt(i + 2)));
            i += 2;
        } else if (isLowSurrogate(unit)) {
            return std::nullopt;
        } else {
            appendUTF8(out, unit);
        }
    }
    return out;
}

std::optional<std::string> textFromBytes(std::string_view bytes)
{
    if (bytes.starts_with(kUTF8ByteOrderMark)) {
        return std::string(bytes.substr(kUTF8ByteOrderMark.size()));
    }
    if (bytes.starts_with(kUTF16LittleEndianMark)) {
        return utf16ToUTF8(bytes.substr(kUTF16LittleEndianMark.size()), false);
    }
    if (bytes.starts_with(kUTF16BigEndianMark)) {
        return utf16ToUTF8(bytes.substr(kUTF16BigEndianMark.size()), true);
    }
    return std::string(bytes);
}

}  // namespace platform
