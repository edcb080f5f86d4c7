#include "platform/User.h"

#include "platform/Path.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
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

std::optional<PasswordEntry> effectiveUserEntry()
{
    const uid_t uid = geteuid();
    return lookUpEntry([uid](passwd* entry, char* buffer, std::size_t size, passwd** found) {
        return getpwuid_r(uid, entry, buffer, size, found);
    });
}

}  // namespace

uint32_t effectiveUserID()
{
    return ::geteuid();
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
