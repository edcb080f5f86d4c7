// Property-list values (string, integer, real, boolean, date, data, array,
// dictionary), read from XML or binary files and written as XML.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class PropertyList {
public:
    enum class Type { String, Integer, Real, Boolean, Date, Data, Array, Dictionary };
    using Array = std::vector<PropertyList>;
    using Dictionary = std::map<std::string, PropertyList, std::less<>>;

    static PropertyList string(std::string value);
    static PropertyList integer(int64_t value);
    static PropertyList real(double value);
    static PropertyList boolean(bool value);
    static PropertyList date(double secondsSince1970);
    static PropertyList data(std::vector<uint8_t> value);
    static PropertyList array(Array value);
    static PropertyList dictionary(Dictionary value);

    Type type() const noexcept;

    // Typed views: nullptr when the value is of another type.
    const std::string* asString() const noexcept;
    const int64_t* asInteger() const noexcept;
    const double* asReal() const noexcept;
    const bool* asBoolean() const noexcept;
    const double* asDate() const noexcept;
    const std::vector<uint8_t>* asData() const noexcept;
    const Array* asArray() const noexcept;
    const Dictionary* asDictionary() const noexcept;

    // A dictionary's value for key; nullptr when missing or not a dictionary.
    const PropertyList* objectForKey(std::string_view key) const noexcept;

    // A file that is missing or not a property list gives none; so does one
    // that is not a regular file or is larger than RegularFile::kSizeLimit
    // (FileManager::contentsAtPath reads it), with a console line.
    static std::optional<PropertyList> readFromFile(const std::string& path);
    // As readFromFile, and none unless the top value is a dictionary.
    static std::optional<PropertyList> dictionaryWithContentsOfFile(const std::string& path);
    // Parses XML or binary property-list bytes; none when they are damaged,
    // including when no memory can be had for the value.
    static std::optional<PropertyList> fromBytes(std::string_view bytes);
    // Writes XML; atomically goes through a temporary file and a rename.
    bool writeToFile(const std::string& path, bool atomically) const;
    std::string toXML() const;

    bool operator==(const PropertyList& other) const;

private:
    struct Storage;
    explicit PropertyList(std::shared_ptr<const Storage> storage);
    std::shared_ptr<const Storage> theStorage;
};

}  // namespace platform
