#include "platform/UserDefaults.h"

#include <sys/stat.h>

#include <cmath>
#include <limits>
#include <utility>

#include "platform/Bundle.h"
#include "platform/Path.h"
#include "platform/ProcessInfo.h"
#include "platform/Text.h"
#include "platform/User.h"

namespace platform {

namespace {

bool isASCIILetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// The domain's value for key; none when there is no domain or it lacks the
// key.
std::optional<PropertyList> valueInDomain(const std::shared_ptr<const PropertyList>& domain, std::string_view key)
{
    if (!domain) {
        return std::nullopt;
    }
    const PropertyList* value = domain->objectForKey(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    return *value;
}

int64_t nanosecondsOf(const struct timespec& time)
{
    return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + static_cast<int64_t>(time.tv_nsec);
}

int64_t truncatedToInteger(double value)
{
    if (std::isnan(value)) {
        return 0;
    }
    // 2^63 is exactly representable; anything at or beyond it saturates.
    constexpr double limit = 9223372036854775808.0;
    if (value >= limit) {
        return std::numeric_limits<int64_t>::max();
    }
    if (value <= -limit) {
        return std::numeric_limits<int64_t>::min();
    }
    return static_cast<int64_t>(value);
}

}  // namespace

UserDefaults::UserDefaults() = default;

UserDefaults& UserDefaults::standardUserDefaults()
{
    static UserDefaults defaults;
    return defaults;
}

bool UserDefaults::isKeyArgument(std::string_view argument)
{
    return argument.size() >= 2 && argument[0] == '-' && isASCIILetter(argument[1]);
}

PropertyList::Dictionary UserDefaults::parseArgumentDomain(const std::vector<std::string>& arguments)
{
    PropertyList::Dictionary domain;
    size_t index = 0;
    while (index < arguments.size()) {
        const std::string& argument = arguments[index];
        if (!isKeyArgument(argument)) {
            ++index;
            continue;
        }
        if (index + 1 >= arguments.size()) {
            break;
        }
        domain.insert_or_assign(argument.substr(1), PropertyList::string(arguments[index + 1]));
        index += 2;
    }
    return domain;
}

const PropertyList::Dictionary& UserDefaults::argumentDomainLocked() const
{
    if (!theArgumentDomainIsSet) {
        const auto& all = ProcessInfo::arguments();
        const std::vector<std::string> afterProgramName(all.empty() ? all.end() : all.begin() + 1, all.end());
        theArgumentDomain = parseArgumentDomain(afterProgramName);
        theArgumentDomainIsSet = true;
    }
    return theArgumentDomain;
}

const PropertyList::Dictionary& UserDefaults::argumentDomain() const
{
    const std::lock_guard<std::mutex> lock(theMutex);
    return argumentDomainLocked();
}

void UserDefaults::setArgumentDomainFromArguments(const std::vector<std::string>& arguments)
{
    PropertyList::Dictionary domain = parseArgumentDomain(arguments);
    const std::lock_guard<std::mutex> lock(theMutex);
    theArgumentDomain = std::move(domain);
    theArgumentDomainIsSet = true;
}

std::string UserDefaults::preferencesDirectory() const
{
    {
        const std::lock_guard<std::mutex> lock(theMutex);
        if (thePreferencesDirectoryForTesting) {
            return *thePreferencesDirectoryForTesting;
        }
    }
    return appendingPathComponents(homeDirectory(), {"Library", "Preferences"});
}

void UserDefaults::setPreferencesDirectoryForTesting(std::optional<std::string> directory)
{
    const std::lock_guard<std::mutex> lock(theMutex);
    thePreferencesDirectoryForTesting = std::move(directory);
}

std::optional<PropertyList> UserDefaults::objectForKey(std::string_view key) const
{
    {
        const std::lock_guard<std::mutex> lock(theMutex);
        const PropertyList::Dictionary& arguments = argumentDomainLocked();
        auto found = arguments.find(key);
        if (found != arguments.end()) {
            return found->second;
        }
    }
    const std::string folder = preferencesDirectory();
    const auto identifier = applicationIdentifier();
    if (identifier && !identifier->empty()) {
        auto value = valueInDomain(cachedDictionary(appendingPathComponent(folder, *identifier + ".plist"),
                                                    theStoredDomains, theStoredDomainReadCount),
                                   key);
        if (value) {
            return value;
        }
    }
    return valueInDomain(cachedDictionary(appendingPathComponent(folder, ".GlobalPreferences.plist"), theStoredDomains,
                                          theStoredDomainReadCount),
                         key);
}

std::optional<std::string> UserDefaults::applicationIdentifier() const
{
    const auto mainBundle = Bundle::mainBundle();
    if (!mainBundle) {
        return std::nullopt;
    }
    const auto info =
        cachedDictionary(mainBundle->infoDictionaryPath(), theMainBundleInfo, theApplicationIdentifierReadCount);
    if (!info) {
        return std::nullopt;
    }
    return Bundle::identifierInInfoDictionary(*info);
}

std::shared_ptr<const PropertyList> UserDefaults::cachedDictionary(const std::string& path, DictionaryCache& cache,
                                                                   uint64_t& readCount) const
{
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        const std::lock_guard<std::mutex> lock(theMutex);
        cache.erase(path);
        return nullptr;
    }
    CachedDictionary identity;
    identity.device = static_cast<uint64_t>(status.st_dev);
    identity.inode = static_cast<uint64_t>(status.st_ino);
    identity.modificationNanoseconds = nanosecondsOf(status.st_mtim);
    identity.changeNanoseconds = nanosecondsOf(status.st_ctim);
    identity.size = static_cast<int64_t>(status.st_size);
    {
        const std::lock_guard<std::mutex> lock(theMutex);
        const auto found = cache.find(path);
        if (found != cache.end()) {
            const CachedDictionary& cached = found->second;
            if (cached.device == identity.device && cached.inode == identity.inode &&
                cached.modificationNanoseconds == identity.modificationNanoseconds &&
                cached.changeNanoseconds == identity.changeNanoseconds && cached.size == identity.size) {
                return cached.contents;
            }
        }
    }
    // Read outside the lock; a file changed between the stat and the read
    // is seen as changed again at the next look-up, because its times have
    // moved on from those kept here.
    if (std::optional<PropertyList> read = PropertyList::dictionaryWithContentsOfFile(path)) {
        identity.contents = std::make_shared<const PropertyList>(*std::move(read));
    }
    std::shared_ptr<const PropertyList> contents = identity.contents;
    const std::lock_guard<std::mutex> lock(theMutex);
    ++readCount;
    cache.insert_or_assign(path, std::move(identity));
    return contents;
}

uint64_t UserDefaults::storedDomainReadCount() const
{
    const std::lock_guard<std::mutex> lock(theMutex);
    return theStoredDomainReadCount;
}

uint64_t UserDefaults::applicationIdentifierReadCount() const
{
    const std::lock_guard<std::mutex> lock(theMutex);
    return theApplicationIdentifierReadCount;
}

std::optional<std::string> UserDefaults::stringForKey(std::string_view key) const
{
    const auto value = objectForKey(key);
    if (!value) {
        return std::nullopt;
    }
    return stringFromValue(*value);
}

std::optional<std::string> UserDefaults::stringFromValue(const PropertyList& value)
{
    if (const std::string* text = value.asString()) {
        return *text;
    }
    // Numbers answer their text, as the settings store gives them.
    if (const int64_t* number = value.asInteger()) {
        return stringFromNumber(*number);
    }
    if (const bool* flag = value.asBoolean()) {
        return std::string(*flag ? "1" : "0");
    }
    if (const double* real = value.asReal()) {
        return stringFromNumber(*real);
    }
    return std::nullopt;
}

int64_t UserDefaults::integerForKey(std::string_view key) const
{
    const auto value = objectForKey(key);
    if (!value) {
        return 0;
    }
    if (const int64_t* integer = value->asInteger()) {
        return *integer;
    }
    if (const double* real = value->asReal()) {
        return truncatedToInteger(*real);
    }
    if (const bool* boolean = value->asBoolean()) {
        return *boolean ? 1 : 0;
    }
    if (const std::string* text = value->asString()) {
        return integerValue(*text);
    }
    return 0;
}

}  // namespace platform
