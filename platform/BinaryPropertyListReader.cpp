#include "platform/BinaryPropertyListReader.h"

#include "platform/UTF8.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace platform {

namespace {

// Seconds between 1970-01-01 and 2001-01-01, the reference date of the format.
constexpr double kSecondsFrom1970To2001 = 978307200.0;
constexpr std::string_view kMagic = "bplist00";
constexpr uint64_t kTrailerSize = 32;

// Object markers: the high four bits name the kind, the low four its size.
enum Marker : unsigned {
    kSingleton = 0x0,
    kInteger = 0x1,
    kReal = 0x2,
    kDate = 0x3,
    kData = 0x4,
    kASCIIString = 0x5,
    kUTF16String = 0x6,
    kUID = 0x8,
    kArray = 0xA,
    kSet = 0xC,
    kDictionary = 0xD,
};
constexpr unsigned kFalse = 0x8;
constexpr unsigned kTrue = 0x9;
constexpr unsigned kSizeFollows = 0xF;

class Reader {
public:
    Reader(std::string_view bytes, int maximumDepth) : theBytes(bytes), theMaximumDepth(maximumDepth) {}

    std::optional<PropertyList> read()
    {
        if (theBytes.size() < kMagic.size() + kTrailerSize || theBytes.substr(0, kMagic.size()) != kMagic) {
            return std::nullopt;
        }
        const uint64_t trailer = theBytes.size() - kTrailerSize;
        const auto offsetSize = number(trailer + 6, 1);
        const auto referenceSize = number(trailer + 7, 1);
        const auto objectCount = number(trailer + 8, 8);
        const auto rootIndex = number(trailer + 16, 8);
        const auto tableOffset = number(trailer + 24, 8);
        if (!offsetSize || !referenceSize || !objectCount || !rootIndex || !tableOffset) {
            return std::nullopt;
        }
        if (*offsetSize == 0 || *offsetSize > 8 || *referenceSize == 0 || *referenceSize > 8 || *objectCount == 0 ||
            *rootIndex >= *objectCount || *tableOffset < kMagic.size() || *tableOffset > trailer ||
            *objectCount > (trailer - *tableOffset) / *offsetSize) {
            return std::nullopt;
        }
        theOffsetSize = *offsetSize;
        theReferenceSize = *referenceSize;
        theObjectCount = *objectCount;
        theTableOffset = *tableOffset;
        // Shared containers are walked once per reference: bound the work so
        // that a small file cannot fan out into an enormous tree.
        theBudget = 2 * static_cast<uint64_t>(theBytes.size()) + 16;
        return object(*rootIndex, 0);
    }

private:
    // A big-endian unsigned number of width bytes (1 to 8) at offset, all of it
    // before end.
    std::optional<uint64_t> number(uint64_t offset, uint64_t width, uint64_t end) const
    {
        if (width == 0 || width > 8 || end > theBytes.size() || offset > end || width > end - offset) {
            return std::nullopt;
        }
        uint64_t value = 0;
        for (uint64_t i = 0; i < width; ++i) {
            value = (value << 8) | static_cast<unsigned char>(theBytes[offset + i]);
        }
        return value;
    }

    std::optional<uint64_t> number(uint64_t offset, uint64_t width) const
    {
        return number(offset, width, theBytes.size());
    }

    // The bytes [offset, offset + count) when they lie before the offset table.
    std::optional<std::string_view> span(uint64_t offset, uint64_t count) const
    {
        if (offset > theTableOffset || count > theTableOffset - offset) {
            return std::nullopt;
        }
        return theBytes.substr(offset, count);
    }

    std::optional<PropertyList> object(uint64_t index, int depth)
    {
        if (index >= theObjectCount || depth > theMaximumDepth || theBudget == 0) {
            return std::nullopt;
        }
        --theBudget;
        const auto offset = number(theTableOffset + index * theOffsetSize, theOffsetSize);
        if (!offset || *offset < kMagic.size()) {
            return std::nullopt;
        }
        const auto marker = number(*offset, 1, theTableOffset);
        if (!marker) {
            return std::nullopt;
        }
        const unsigned kind = static_cast<unsigned>(*marker) >> 4;
        const unsigned size = static_cast<unsigned>(*marker) & 0x0F;
        const uint64_t body = *offset + 1;
        switch (kind) {
        case kSingleton:
            if (size == kFalse || size == kTrue) {
                return PropertyList::boolean(size == kTrue);
            }
            return std::nullopt;
        case kInteger: return integer(body, size);
        case kReal: return real(body, size);
        case kDate: {
            if (size != 3) {
                return std::nullopt;
            }
            const auto seconds = real(body, size);
            if (!seconds) {
                return std::nullopt;
            }
            return PropertyList::date(kSecondsFrom1970To2001 + *seconds->asReal());
        }
        case kUID: {
            const auto value = number(body, uint64_t{size} + 1, theTableOffset);
            if (!value) {
                return std::nullopt;
            }
            return PropertyList::integer(static_cast<int64_t>(*value));
        }
        case kData:
        case kASCIIString:
        case kUTF16String:
        case kArray:
        case kSet:
        case kDictionary: break;
        default: return std::nullopt;
        }
        uint64_t start = body;
        const auto count = length(size, start);
        if (!count) {
            return std::nullopt;
        }
        switch (kind) {
        case kData: {
            const auto bytes = span(start, *count);
            if (!bytes) {
                return std::nullopt;
            }
            return PropertyList::data(std::vector<uint8_t>(bytes->begin(), bytes->end()));
        }
        case kASCIIString: {
            const auto bytes = span(start, *count);
            if (!bytes || bytes->find('\0') != std::string_view::npos) {
                return std::nullopt;
            }
            return PropertyList::string(std::string(*bytes));
        }
        case kUTF16String: {
            auto text = utf16(start, *count);
            if (!text) {
                return std::nullopt;
            }
            return PropertyList::string(std::move(*text));
        }
        case kArray:
        case kSet: return array(start, *count, depth);
        default: return dictionary(start, *count, depth);
        }
    }

    // The element count of a variable-size object: the low four bits of its
    // marker, or an integer object of 1, 2, 4 or 8 bytes that follows it.
    std::optional<uint64_t> length(unsigned size, uint64_t& start) const
    {
        if (size != kSizeFollows) {
            return size;
        }
        const auto marker = number(start, 1, theTableOffset);
        if (!marker || (*marker >> 4) != kInteger || (*marker & 0x0F) > 3) {
            return std::nullopt;
        }
        const uint64_t width = uint64_t{1} << (*marker & 0x0F);
        const auto count = number(start + 1, width, theTableOffset);
        if (!count) {
            return std::nullopt;
        }
        start += 1 + width;
        return count;
    }

    std::optional<PropertyList> integer(uint64_t body, unsigned size) const
    {
        // 1, 2 and 4 bytes are unsigned, 8 bytes two's complement; of 16 bytes
        // only the low 8 are kept.
        if (size > 4) {
            return std::nullopt;
        }
        const uint64_t width = uint64_t{1} << size;
        const uint64_t low = width == 16 ? 8 : width;
        if (!span(body, width)) {
            return std::nullopt;
        }
        const auto value = number(body + (width - low), low, theTableOffset);
        if (!value) {
            return std::nullopt;
        }
        return PropertyList::integer(static_cast<int64_t>(*value));
    }

    std::optional<PropertyList> real(uint64_t body, unsigned size) const
    {
        if (size == 2) {
            const auto bits = number(body, 4, theTableOffset);
            if (!bits) {
                return std::nullopt;
            }
            const auto raw = static_cast<uint32_t>(*bits);
            float value = 0;
            std::memcpy(&value, &raw, sizeof value);
            return PropertyList::real(static_cast<double>(value));
        }
        if (size == 3) {
            const auto bits = number(body, 8, theTableOffset);
            if (!bits) {
                return std::nullopt;
            }
            double value = 0;
            std::memcpy(&value, &*bits, sizeof value);
            return PropertyList::real(value);
        }
        return std::nullopt;
    }

    // Big-endian UTF-16 to UTF-8; none for NUL or a surrogate without its
    // partner.
    std::optional<std::string> utf16(uint64_t start, uint64_t units) const
    {
        if (units > theTableOffset / 2) {
            return std::nullopt;
        }
        const auto bytes = span(start, units * 2);
        if (!bytes) {
            return std::nullopt;
        }
        auto unitAt = [&](uint64_t i) {
            return static_cast<char32_t>((static_cast<unsigned char>((*bytes)[2 * i]) << 8) |
                                         static_cast<unsigned char>((*bytes)[2 * i + 1]));
        };
        std::string out;
        out.reserve(bytes->size());
        for (uint64_t i = 0; i < units; ++i) {
            const char32_t unit = unitAt(i);
            if (unit == 0 || (unit >= 0xDC00 && unit <= 0xDFFF)) {
                return std::nullopt;
            }
            if (unit >= 0xD800 && unit <= 0xDBFF) {
                if (i + 1 >= units || unitAt(i + 1) < 0xDC00 || unitAt(i + 1) > 0xDFFF) {
                    return std::nullopt;
                }
                appendUTF8(out, 0x10000 + ((unit - 0xD800) << 10) + (unitAt(i + 1) - 0xDC00));
                ++i;
            } else {
                appendUTF8(out, unit);
            }
        }
        return out;
    }

    // The index held by the reference at position i of a list at start.
    std::optional<uint64_t> reference(uint64_t start, uint64_t i) const
    {
        return number(start + i * theReferenceSize, theReferenceSize, theTableOffset);
    }

    bool referencesFit(uint64_t start, uint64_t count) const
    {
        return count <= theTableOffset / theReferenceSize && span(start, count * theReferenceSize).has_value();
    }

    std::optional<PropertyList> array(uint64_t start, uint64_t count, int depth)
    {
        if (!referencesFit(start, count)) {
            return std::nullopt;
        }
        PropertyList::Array items;
        items.reserve(count);
        for (uint64_t i = 0; i < count; ++i) {
            const auto index = reference(start, i);
            auto item = index ? object(*index, depth + 1) : std::nullopt;
            if (!item) {
                return std::nullopt;
            }
            items.push_back(std::move(*item));
        }
        return PropertyList::array(std::move(items));
    }

    std::optional<PropertyList> dictionary(uint64_t start, uint64_t count, int depth)
    {
        if (count > theTableOffset / 2 || !referencesFit(start, 2 * count)) {
            return std::nullopt;
        }
        PropertyList::Dictionary entries;
        for (uint64_t i = 0; i < count; ++i) {
            const auto keyIndex = reference(start, i);
            const auto valueIndex = reference(start, count + i);
            auto key = keyIndex ? object(*keyIndex, depth + 1) : std::nullopt;
            if (!key || key->asString() == nullptr || !valueIndex) {
                return std::nullopt;
            }
            auto value = object(*valueIndex, depth + 1);
            if (!value) {
                return std::nullopt;
            }
            entries.insert_or_assign(*key->asString(), std::move(*value));
        }
        return PropertyList::dictionary(std::move(entries));
    }

    std::string_view theBytes;
    int theMaximumDepth;
    uint64_t theOffsetSize = 0;
    uint64_t theReferenceSize = 0;
    uint64_t theObjectCount = 0;
    uint64_t theTableOffset = 0;
    uint64_t theBudget = 0;
};

}  // namespace

bool BinaryPropertyListReader::looksBinary(std::string_view bytes) noexcept
{
    return bytes.substr(0, 6) == "bplist";
}

std::optional<PropertyList> BinaryPropertyListReader::read(std::string_view bytes, int maximumDepth)
{
    return Reader(bytes, maximumDepth).read();
}

}  // namespace platform
