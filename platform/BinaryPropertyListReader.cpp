#include "platform/BinaryPropertyListReader.h"

#include "platform/UTF8.h"

#include <cstdint>
#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <unordered_map>
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

// What one file may produce, in counted bytes: the bytes of every string and
// data value made, of every dictionary key each time a dictionary holds it,
// and kElementBytes for every array item or dictionary entry. Real files
// stay far below: text grows at most 1.5 times from UTF-16, an element costs
// a reference of at least one byte, and a key shared by many dictionaries
// costs one or two bytes of reference per use. A small file that fans one
// large key out into many dictionaries is damaged, not a demand for
// gigabytes.
constexpr uint64_t kProducedBytesPerFileByte = 16;
constexpr uint64_t kProducedBytesExtra = uint64_t{1} << 20;
constexpr uint64_t kElementBytes = 8;

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
        // Every object is made once and shared by all that refer to it, so
        // the work is bounded by the object count; what is produced is
        // bounded by the byte budget (see kProducedBytesPerFileByte).
        theBudget = 2 * static_cast<uint64_t>(theBytes.size()) + 16;
        theBytesLeft = kProducedBytesPerFileByte * static_cast<uint64_t>(theBytes.size()) + kProducedBytesExtra;
        try {
            auto made = object(*rootIndex, 0);
            if (!made) {
                return std::nullopt;
            }
            return std::move(made->value);
        } catch (const std::bad_alloc&) {
            return std::nullopt;
        } catch (const std::length_error&) {
            return std::nullopt;
        }
    }

private:
    // A value with the height of its nesting (0 for a scalar or an empty
    // container), so that a shared value met deeper down than where it was
    // made still counts its full depth.
    struct Made {
        PropertyList value;
        int height;
    };

    // Takes `bytes` from the budget of bytes produced; false when it is spent.
    bool spend(uint64_t bytes)
    {
        if (bytes > theBytesLeft) {
            return false;
        }
        theBytesLeft -= bytes;
        return true;
    }

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

    std::optional<Made> object(uint64_t index, int depth)
    {
        if (index >= theObjectCount || depth > theMaximumDepth) {
            return std::nullopt;
        }
        if (const auto found = theMade.find(index); found != theMade.end()) {
            if (depth + found->second.height > theMaximumDepth) {
                return std::nullopt;
            }
            return found->second;
        }
        auto made = make(index, depth);
        if (made) {
            theMade.emplace(index, *made);
        }
        return made;
    }

    std::optional<Made> scalar(std::optional<PropertyList> value) const
    {
        if (!value) {
            return std::nullopt;
        }
        return Made{std::move(*value), 0};
    }

    std::optional<Made> make(uint64_t index, int depth)
    {
        if (theBudget == 0) {
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
                return scalar(PropertyList::boolean(size == kTrue));
            }
            return std::nullopt;
        case kInteger: return scalar(integer(body, size));
        case kReal: return scalar(real(body, size));
        case kDate: {
            if (size != 3) {
                return std::nullopt;
            }
            const auto seconds = real(body, size);
            if (!seconds) {
                return std::nullopt;
            }
            return scalar(PropertyList::date(kSecondsFrom1970To2001 + *seconds->asReal()));
        }
        case kUID: {
            const auto value = number(body, uint64_t{size} + 1, theTableOffset);
            if (!value) {
                return std::nullopt;
            }
            return scalar(PropertyList::integer(static_cast<int64_t>(*value)));
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
            if (!bytes || !spend(bytes->size())) {
                return std::nullopt;
            }
            return scalar(PropertyList::data(std::vector<uint8_t>(bytes->begin(), bytes->end())));
        }
        case kASCIIString: {
            const auto bytes = span(start, *count);
            if (!bytes || bytes->find('\0') != std::string_view::npos || !spend(bytes->size())) {
                return std::nullopt;
            }
            return scalar(PropertyList::string(std::string(*bytes)));
        }
        case kUTF16String: {
            auto text = utf16(start, *count);
            if (!text || !spend(text->size())) {
                return std::nullopt;
            }
            return scalar(PropertyList::string(std::move(*text)));
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

    std::optional<Made> array(uint64_t start, uint64_t count, int depth)
    {
        if (!referencesFit(start, count) || count > theBytesLeft / kElementBytes || !spend(count * kElementBytes)) {
            return std::nullopt;
        }
        PropertyList::Array items;
        items.reserve(count);
        int height = 0;
        for (uint64_t i = 0; i < count; ++i) {
            const auto index = reference(start, i);
            auto item = index ? object(*index, depth + 1) : std::nullopt;
            if (!item) {
                return std::nullopt;
            }
            height = std::max(height, item->height + 1);
            items.push_back(std::move(item->value));
        }
        return Made{PropertyList::array(std::move(items)), height};
    }

    std::optional<Made> dictionary(uint64_t start, uint64_t count, int depth)
    {
        if (count > theTableOffset / 2 || !referencesFit(start, 2 * count) || count > theBytesLeft / kElementBytes ||
            !spend(count * kElementBytes)) {
            return std::nullopt;
        }
        PropertyList::Dictionary entries;
        int height = 0;
        for (uint64_t i = 0; i < count; ++i) {
            const auto keyIndex = reference(start, i);
            const auto valueIndex = reference(start, count + i);
            auto key = keyIndex ? object(*keyIndex, depth + 1) : std::nullopt;
            const std::string* keyText = key ? key->value.asString() : nullptr;
            // A key is copied into every dictionary that uses it: each copy
            // counts.
            if (keyText == nullptr || !valueIndex || !spend(keyText->size())) {
                return std::nullopt;
            }
            auto value = object(*valueIndex, depth + 1);
            if (!value) {
                return std::nullopt;
            }
            height = std::max(height, value->height + 1);
            entries.insert_or_assign(*keyText, std::move(value->value));
        }
        return Made{PropertyList::dictionary(std::move(entries)), height};
    }

    std::string_view theBytes;
    int theMaximumDepth;
    uint64_t theOffsetSize = 0;
    uint64_t theReferenceSize = 0;
    uint64_t theObjectCount = 0;
    uint64_t theTableOffset = 0;
    uint64_t theBudget = 0;
    uint64_t theBytesLeft = 0;
    std::unordered_map<uint64_t, Made> theMade;
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
