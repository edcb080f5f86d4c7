#include "platform/User.h"

#include "platform/Path.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <vector>

namespace platform {

namespace {

struct PasswordEntry {
    std::string name;
    std::string home;
};

// Looks up an entry with getpwuid_r / getpwnam_r, growing the buffer as asked.
template <typename Lookup>
std::optional<PasswordEntry> lookUpEntry(Lookup lookup)
{
    long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 1024);
    for (;;) {
        passwd entry{};
        passwd* found = nullptr;
        const int status = lookup(&entry, buffer.data(), buffer.size(), &found);
        if (status == ERANGE && buffer.size() < (std::size_t{1} << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (status != 0 || found == nullptr) {
            return std::nullopt;
        }
        return PasswordEntry{found->pw_name != nullptr ? found->pw_name : "",
                             found->pw_dir != nullptr ? found->pw_dir : ""};
    }
}

// The effective user's entry, as last found, and the id it belongs to.
// Guarded by gEffectiveUserMutex.
std::mutex gEffectiveUserMutex;
std::optional<uid_t> gEffectiveUserID;
PasswordEntry gEffectiveUserEntry;
uint64_t gEffectiveUserLookUpCount = 0;

// The entry is looked up once per effective user id and then kept: the
// account of a user with a running process is not changed (usermod refuses
// while the user has processes, and this process is one of them), so its
// name and home folder stay what they were for as long as the process runs
// as that user. The id itself may change (a child that gives up root), and
// then the entry is looked up again. An id without an entry is asked again
// every time, since an account may be added meanwhile.
std::optional<PasswordEntry> effectiveUserEntry()
{
    const uid_t uid = geteuid();
    const std::lock_guard<std::mutex> lock(gEffectiveUserMutex);
    if (gEffectiveUserID == uid) {
        return gEffectiveUserEntry;
    }
    ++gEffectiveUserLookUpCount;
    auto entry = lookUpEntry([uid](passwd* found, char* buffer, std::size_t size, passwd** result) {
        return getpwuid_r(uid, found, buffer, size, result);
    });
    if (entry) {
        gEffectiveUserID = uid;
        gEffectiveUserEntry = *entry;
    }
    return entry;
}

}  // namespace

uint32_t effectiveUserID()
{
    return ::geteuid();
}

uint64_t effectiveUserEntryLookUpCount()
{
    const std::lock_guard<std::mutex> lock(gEffectiveUserMutex);
    return gEffectiveUserLookUpCount;
}

std::string userName()
{
    const auto entry = effectiveUserEntry();
    return entry ? entry->name : std::string();
}

std::string homeDirectory()
{
    const auto entry = effectiveUserEntry();
    return entry ? entry->home : std::string();
}

std::optional<std::string> homeDirectoryForUser(const std::string& name)
{
    // A name holding NUL would be looked up cut short at it: no account has it.
    if (name.empty() || name.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    const auto entry = lookUpEntry([&name](passwd* pw, char* buffer, std::size_t size, passwd** found) {
        return getpwnam_r(name.c_str(), pw, buffer, size, found);
    });
    if (!entry) {
        return std::nullopt;
    }
    return entry->home;
}

std::optional<std::string> accountNameForUserID(uint32_t uid)
{
    const auto entry = lookUpEntry([uid](passwd* pw, char* buffer, std::size_t size, passwd** found) {
        return getpwuid_r(static_cast<uid_t>(uid), pw, buffer, size, found);
    });
    if (!entry) {
        return std::nullopt;
    }
    return entry->name;
}

std::vector<std::string> homeDirectoriesOfAllUsers()
{
    std::vector<std::string> homes;
    long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 1024);
    setpwent();
    for (;;) {
        passwd entry{};
        passwd* found = nullptr;
        const int status = getpwent_r(&entry, buffer.data(), buffer.size(), &found);
        if (status == ERANGE && buffer.size() < (std::size_t{1} << 20)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (status != 0 || found == nullptr) {
            break;
        }
        if (found->pw_dir != nullptr && found->pw_dir[0] != '\0') {
            homes.emplace_back(found->pw_dir);
        }
    }
    endpwent();
    return homes;
}

std::vector<std::string> searchPathForDirectoriesInDomains(SearchPathDirectory directory, SearchPathDomainMask domains,
                                                           bool expandTilde)
{
    if (directory != SearchPathDirectory::Library || domains != SearchPathDomainMask::User) {
        return {};
    }
    if (!expandTilde) {
        return {"~/Library"};
    }
    // A user with no entry in the password database has no home folder, and
    // so no Library folder.
    const std::string home = homeDirectory();
    if (home.empty()) {
        return {};
    }
    return {appendingPathComponent(home, "Library")};
}

}  // namespace platform
