// Strings tables (Localizable.strings): the classic text form
// ("key" = "value"; with comments, UTF-8 or UTF-16 with a byte-order mark)
// and the property-list form.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

class StringsTable {
public:
    StringsTable() = delete;

    using Table = std::map<std::string, std::string, std::less<>>;
    // None when the file is missing or cannot be parsed.
    static std::optional<Table> readFromFile(const std::string& path);
    static std::optional<Table> parse(std::string_view bytes);
};

}  // namespace platform
