#include "platform/PropertyList.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>
#include <variant>

#include "platform/BinaryPropertyListReader.h"
#include "platform/FileManager.h"

namespace platform {

struct PropertyList::Storage {
    template <typename T, typename V>
    Storage(Type kind, std::in_place_type_t<T> alternative, V&& initial)
        : type(kind),
          value(alternative, std::forward<V>(initial))
    {
    }

    Type type;
    // Real and Date both keep a double; type tells them apart.
    std::variant<std::string, int64_t, double, bool, std::vector<uint8_t>, Array, Dictionary> value;
};

namespace {

// Seconds between 1970-01-01 and 2001-01-01, the reference date of libplist.
constexpr double kSecondsFrom1970To2001 = 978307200.0;
// Deeper nesting than this is treated as a damaged file.
constexpr int kMaximumDepth = 512;

struct PlistFree {
    void operator()(void* node) const noexcept { plist_free(static_cast<plist_t>(node)); }
};
using PlistHandle = std::unique_ptr<void, PlistFree>;

// Only trees libplist parsed from XML come here. Its getters assert that the
// length they recorded matches what they return; the XML parser keeps that
// true: it makes every dictionary key with plist_new_key (the key's length is
// its strlen) and gives every scalar its own fixed length.
std::optional<PropertyList> fromNode(plist_t node, int depth);

std::optional<PropertyList> arrayFromNode(plist_t node, int depth)
{
    PropertyList::Array items;
    const uint32_t count = plist_array_get_size(node);
    items.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        auto item = fromNode(plist_array_get_item(node, i), depth + 1);
        if (!item) {
            return std::nullopt;
        }
        items.push_back(std::move(*item));
    }
    return PropertyList::array(std::move(items));
}

std::optional<PropertyList> dictionaryFromNode(plist_t node, int depth)
{
    PropertyList::Dictionary entries;
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(node, &iter);
    if (iter == nullptr) {
        return std::nullopt;
    }
    bool failed = false;
    for (;;) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(node, iter, &key, &value);
        if (value == nullptr) {
            free(key);
            break;
        }
        std::string keyText = key != nullptr ? key : "";
        free(key);
        auto item = fromNode(value, depth + 1);
        if (!item) {
            failed = true;
            break;
        }
        entries.insert_or_assign(std::move(keyText), std::move(*item));
    }
    free(iter);
    if (failed) {
        return std::nullopt;
    }
    return PropertyList::dictionary(std::move(entries));
}

std::optional<PropertyList> fromNode(plist_t node, int depth)
{
    if (node == nullptr || depth > kMaximumDepth) {
        return std::nullopt;
    }
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return PropertyList::boolean(value != 0);
    }
    case PLIST_UINT:
    case PLIST_UID: {
        uint64_t value = 0;
        if (plist_get_node_type(node) == PLIST_UID) {
            plist_get_uid_val(node, &value);
        } else {
            plist_get_uint_val(node, &value);
        }
        // libplist keeps negative integers in two's complement.
        return PropertyList::integer(static_cast<int64_t>(value));
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return PropertyList::real(value);
    }
    case PLIST_STRING: {
        uint64_t length = 0;
        const char* text = plist_get_string_ptr(node, &length);
        std::string value = text != nullptr ? std::string(text, length) : std::string();
        // Text holding NUL cannot be a name or a path: the file is damaged.
        if (value.find('\0') != std::string::npos) {
            return std::nullopt;
        }
        return PropertyList::string(std::move(value));
    }
    case PLIST_DATA: {
        uint64_t length = 0;
        const char* bytes = plist_get_data_ptr(node, &length);
        std::vector<uint8_t> value;
        if (bytes != nullptr) {
            value.assign(reinterpret_cast<const uint8_t*>(bytes), reinterpret_cast<const uint8_t*>(bytes) + length);
        }
        return PropertyList::data(std::move(value));
    }
    case PLIST_DATE: {
        int32_t seconds = 0;
        int32_t microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        return PropertyList::date(kSecondsFrom1970To2001 + static_cast<double>(seconds) +
                                  static_cast<double>(microseconds) / 1e6);
    }
    case PLIST_ARRAY: return arrayFromNode(node, depth);
    case PLIST_DICT: return dictionaryFromNode(node, depth);
    default: return std::nullopt;
    }
}

// libplist frees (and copies) its trees recursively, and a few hundred
// thousand nested containers overflow the stack. Every array or dictionary it
// reads from XML starts with the literal text "<array" or "<dict", so their
// count bounds the nesting it can build; no file this program reads comes
// near the limit.
bool xmlContainerCountIsBounded(std::string_view bytes)
{
    constexpr size_t kMaximumContainers = 20000;
    size_t containers = 0;
    for (size_t at = bytes.find('<'); at != std::string_view::npos; at = bytes.find('<', at + 1)) {
        const std::string_view rest = bytes.substr(at + 1);
        if (rest.substr(0, 5) == "array" || rest.substr(0, 4) == "dict") {
            if (++containers > kMaximumContainers) {
                return false;
            }
        }
    }
    return true;
}

plist_t newDateNode(double secondsSince1970)
{
    double since2001 = secondsSince1970 - kSecondsFrom1970To2001;
    if (!std::isfinite(since2001)) {
        since2001 = 0;
    }
    double whole = std::floor(since2001);
    auto microseconds = static_cast<int64_t>(std::llround((since2001 - whole) * 1e6));
    if (microseconds >= 1000000) {
        whole += 1;
        microseconds -= 1000000;
    }
    constexpr double lowest = std::numeric_limits<int32_t>::min();
    constexpr double highest = std::numeric_limits<int32_t>::max();
    if (whole < lowest) {
        whole = lowest;
        microseconds = 0;
    } else if (whole > highest) {
        whole = highest;
        microseconds = 0;
    }
    return plist_new_date(static_cast<int32_t>(whole), static_cast<int32_t>(microseconds));
}

// Builds the libplist tree of a value; the caller owns the result.
plist_t toNode(const PropertyList& value)
{
    switch (value.type()) {
    case PropertyList::Type::String: return plist_new_string(value.asString()->c_str());
    case PropertyList::Type::Integer: return plist_new_uint(static_cast<uint64_t>(*value.asInteger()));
    case PropertyList::Type::Real: return plist_new_real(*value.asReal());
    case PropertyList::Type::Boolean: return plist_new_bool(*value.asBoolean() ? 1 : 0);
    case PropertyList::Type::Date: return newDateNode(*value.asDate());
    case PropertyList::Type::Data: {
        const auto& bytes = *value.asData();
        return plist_new_data(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    case PropertyList::Type::Array: {
        plist_t node = plist_new_array();
        for (const auto& item : *value.asArray()) {
            plist_array_append_item(node, toNode(item));
        }
        return node;
    }
    case PropertyList::Type::Dictionary: {
        plist_t node = plist_new_dict();
        for (const auto& [key, item] : *value.asDictionary()) {
            plist_dict_set_item(node, key.c_str(), toNode(item));
        }
        return node;
    }
    }
    return nullptr;
}

}  // namespace

PropertyList::PropertyList(std::shared_ptr<const Storage> storage) : theStorage(std::move(storage)) {}

PropertyList PropertyList::string(std::string value)
{
    return PropertyList(
        std::make_shared<const Storage>(Type::String, std::in_place_type<std::string>, std::move(value)));
}

PropertyList PropertyList::integer(int64_t value)
{
    return PropertyList(std::make_shared<const Storage>(Type::Integer, std::in_place_type<int64_t>, value));
}

PropertyList PropertyList::real(double value)
{
    return PropertyList(std::make_shared<const Storage>(Type::Real, std::in_place_type<double>, value));
}

PropertyList PropertyList::boolean(bool value)
{
    return PropertyList(std::make_shared<const Storage>(Type::Boolean, std::in_place_type<bool>, value));
}

PropertyList PropertyList::date(double secondsSince1970)
{
    return PropertyList(std::make_shared<const Storage>(Type::Date, std::in_place_type<double>, secondsSince1970));
}

PropertyList PropertyList::data(std::vector<uint8_t> value)
{
    return PropertyList(
        std::make_shared<const Storage>(Type::Data, std::in_place_type<std::vector<uint8_t>>, std::move(value)));
}

PropertyList PropertyList::array(Array value)
{
    return PropertyList(std::make_shared<const Storage>(Type::Array, std::in_place_type<Array>, std::move(value)));
}

PropertyList PropertyList::dictionary(Dictionary value)
{
    return PropertyList(
        std::make_shared<const Storage>(Type::Dictionary, std::in_place_type<Dictionary>, std::move(value)));
}

PropertyList::Type PropertyList::type() const noexcept
{
    return theStorage->type;
}

const std::string* PropertyList::asString() const noexcept
{
    return std::get_if<std::string>(&theStorage->value);
}

const int64_t* PropertyList::asInteger() const noexcept
{
    return std::get_if<int64_t>(&theStorage->value);
}

const double* PropertyList::asReal() const noexcept
{
    return theStorage->type == Type::Real ? std::get_if<double>(&theStorage->value) : nullptr;
}

const bool* PropertyList::asBoolean() const noexcept
{
    return std::get_if<bool>(&theStorage->value);
}

const double* PropertyList::asDate() const noexcept
{
    return theStorage->type == Type::Date ? std::get_if<double>(&theStorage->value) : nullptr;
}

const std::vector<uint8_t>* PropertyList::asData() const noexcept
{
    return std::get_if<std::vector<uint8_t>>(&theStorage->value);
}

const PropertyList::Array* PropertyList::asArray() const noexcept
{
    return std::get_if<Array>(&theStorage->value);
}

const PropertyList::Dictionary* PropertyList::asDictionary() const noexcept
{
    return std::get_if<Dictionary>(&theStorage->value);
}

const PropertyList* PropertyList::objectForKey(std::string_view key) const noexcept
{
    const Dictionary* entries = asDictionary();
    if (entries == nullptr) {
        return nullptr;
    }
    auto found = entries->find(key);
    return found != entries->end() ? &found->second : nullptr;
}

std::optional<PropertyList> PropertyList::fromBytes(std::string_view bytes)
{
    if (bytes.empty() || bytes.size() > std::numeric_limits<uint32_t>::max()) {
        return std::nullopt;
    }
    // libplist 2.2 fails an assertion on binary files whose dictionary keys
    // hold NUL, and trusts their sizes and nesting too far: binary bytes never
    // reach it.
    if (BinaryPropertyListReader::looksBinary(bytes)) {
        return BinaryPropertyListReader::read(bytes, kMaximumDepth);
    }
    if (!xmlContainerCountIsBounded(bytes)) {
        return std::nullopt;
    }
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    const PlistHandle owner(root);
    // What no memory can be had for reads as damaged: input never ends the
    // process.
    try {
        return fromNode(root, 0);
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    } catch (const std::length_error&) {
        return std::nullopt;
    }
}

std::optional<PropertyList> PropertyList::readFromFile(const std::string& path)
{
    // Only a regular file of at most RegularFile::kSizeLimit bytes is read.
    const std::optional<std::string> bytes = FileManager::defaultManager().contentsAtPath(path);
    if (!bytes) {
        return std::nullopt;
    }
    return fromBytes(*bytes);
}

std::optional<PropertyList> PropertyList::dictionaryWithContentsOfFile(const std::string& path)
{
    auto value = readFromFile(path);
    if (!value || value->type() != Type::Dictionary) {
        return std::nullopt;
    }
    return value;
}

std::string PropertyList::toXML() const
{
    const PlistHandle root(toNode(*this));
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(static_cast<plist_t>(root.get()), &xml, &length);
    if (xml == nullptr) {
        return {};
    }
    std::string text(xml, length);
    plist_to_xml_free(xml);
    return text;
}

bool PropertyList::writeToFile(const std::string& path, bool atomically) const
{
    const std::string xml = toXML();
    if (xml.empty()) {
        return false;
    }
    const FileManager& fileManager = FileManager::defaultManager();
    return atomically ? fileManager.writeFileAtomically(path, xml) : fileManager.createFileAtPath(path, xml);
}

bool PropertyList::operator==(const PropertyList& other) const
{
    if (theStorage == other.theStorage) {
        return true;
    }
    return theStorage->type == other.theStorage->type && theStorage->value == other.theStorage->value;
}

}  // namespace platform
