// User defaults: the argument domain from the command line ("-Key value"
// pairs), then the application domain
// (~/Library/Preferences/<main bundle identifier>.plist), then the global
// domain (~/Library/Preferences/.GlobalPreferences.plist). Stored domains
// are read afresh at every look-up.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/PropertyList.h"

namespace platform {

class UserDefaults {
public:
    static UserDefaults& standardUserDefaults();

    // The first domain's value for key, in the order above.
    std::optional<PropertyList> objectForKey(std::string_view key) const;
    // A string value, or none (values of other types give none).
    std::optional<std::string> stringForKey(std::string_view key) const;
    // An integer, a real (truncated), a boolean (0/1) or a string read as
    // integerValue; 0 when missing or of another type.
    int64_t integerForKey(std::string_view key) const;
    // The argument domain on its own, string values only.
    const PropertyList::Dictionary& argumentDomain() const;

    // By default the argument domain is parsed from ProcessInfo's arguments
    // (all after the program name). A front end with positional arguments
    // hands over just the part that holds settings.
    void setArgumentDomainFromArguments(const std::vector<std::string>& arguments);
    // Parses "-Key value" pairs: an argument that is a hyphen followed by a
    // letter is a key, the next argument its value; anything else is skipped.
    static PropertyList::Dictionary parseArgumentDomain(const std::vector<std::string>& arguments);

private:
    UserDefaults();
    PropertyList::Dictionary theArgumentDomain;
};

}  // namespace platform
