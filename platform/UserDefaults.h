// User defaults: the argument domain from the command line ("-Key value"
// pairs), then the application domain
// (~/Library/Preferences/<main bundle identifier>.plist), then the global
// domain (~/Library/Preferences/.GlobalPreferences.plist). Every look-up sees
// the stored domains, and the main bundle's Info.plist that names the
// application domain, as they are on disk now; such a file is read and
// parsed again only when it has changed (another file at the path, or a new
// modification time, change time or size), since a setting such as the log
// level is asked for on every logged line.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
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
    // A string value; a number or boolean gives its text ("42", "2.5", "1");
    // none for other types.
    std::optional<std::string> stringForKey(std::string_view key) const;
    // An integer, a real (truncated), a boolean (0/1) or a string read as
    // integerValue; 0 when missing or of another type.
    int64_t integerForKey(std::string_view key) const;
    // What stringForKey makes of a stored value: a string stays itself, a
    // number or boolean gives its text; none for other types.
    static std::optional<std::string> stringFromValue(const PropertyList& value);
    // The argument domain on its own, string values only.
    const PropertyList::Dictionary& argumentDomain() const;

    // By default the argument domain is parsed from ProcessInfo's arguments
    // (all after the program name). A front end with positional arguments
    // hands over just the part that holds settings.
    void setArgumentDomainFromArguments(const std::vector<std::string>& arguments);
    // Parses "-Key value" pairs: an argument that is a key (see isKeyArgument)
    // is followed by its value; anything else is skipped. The value may itself
    // begin with a hyphen; a key with no argument after it is ignored; a key
    // given twice keeps its later value.
    static PropertyList::Dictionary parseArgumentDomain(const std::vector<std::string>& arguments);
    // True for an argument that names a setting: a hyphen followed by an ASCII
    // letter ("-LogLevel", "-a"), whatever follows. "-1", "--x", "-" and "-é"
    // are not keys.
    static bool isKeyArgument(std::string_view argument);

    // The folder the stored domains are read from: the home folder's
    // Library/Preferences (the home from the password database), unless a
    // test has set another.
    std::string preferencesDirectory() const;
    // Test seam: read the stored domains from directory instead of the home
    // folder's Library/Preferences, so that tests never touch the real home;
    // none restores the default.
    void setPreferencesDirectoryForTesting(std::optional<std::string> directory);

    // How many times a stored domain file has been read and parsed in this
    // process; tests use it to see that an unchanged file is not read again.
    uint64_t storedDomainReadCount() const;
    // How many times the main bundle's Info.plist has been read and parsed
    // for the application domain's name in this process.
    uint64_t applicationIdentifierReadCount() const;

private:
    // A dictionary file as last read, and the identity of the file it came
    // from.
    struct CachedDictionary {
        uint64_t device = 0;
        uint64_t inode = 0;
        int64_t modificationNanoseconds = 0;
        int64_t changeNanoseconds = 0;
        int64_t size = 0;
        // Null when the file is not a dictionary.
        std::shared_ptr<const PropertyList> contents;
    };

    UserDefaults();
    using DictionaryCache = std::map<std::string, CachedDictionary, std::less<>>;

    const PropertyList::Dictionary& argumentDomainLocked() const;
    // The dictionary file at path, from cache while the file is unchanged,
    // else read, kept there and counted in readCount; null when there is no
    // file or it holds no dictionary.
    std::shared_ptr<const PropertyList> cachedDictionary(const std::string& path, DictionaryCache& cache,
                                                         uint64_t& readCount) const;
    // The main bundle's identifier, which names the application domain.
    std::optional<std::string> applicationIdentifier() const;

    mutable std::mutex theMutex;
    mutable bool theArgumentDomainIsSet = false;
    mutable PropertyList::Dictionary theArgumentDomain;
    std::optional<std::string> thePreferencesDirectoryForTesting;
    mutable DictionaryCache theStoredDomains;
    mutable uint64_t theStoredDomainReadCount = 0;
    mutable DictionaryCache theMainBundleInfo;
    mutable uint64_t theApplicationIdentifierReadCount = 0;
};

}  // namespace platform
