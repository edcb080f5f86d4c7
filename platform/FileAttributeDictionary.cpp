#include "platform/FileAttributeDictionary.h"

namespace platform {

namespace {

template <typename Kind>
std::optional<Kind> valueOfKind(const FileAttributeDictionary& attributes, std::string_view key)
{
    const auto found = attributes.find(key);
    if (found == attributes.end()) {
        return std::nullopt;
    }
    const Kind* value = std::get_if<Kind>(&found->second);
    if (value == nullptr) {
        return std::nullopt;
    }
    return *value;
}

}  // namespace

std::optional<uint64_t> numberForKey(const FileAttributeDictionary& attributes, std::string_view key)
{
    return valueOfKind<uint64_t>(attributes, key);
}

std::optional<std::string> stringForKey(const FileAttributeDictionary& attributes, std::string_view key)
{
    return valueOfKind<std::string>(attributes, key);
}

}  // namespace platform
