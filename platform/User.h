// The running user, taken from the password database's entry for the
// effective user id, and the user-domain search paths. The one place the
// password database is read. The effective user's entry is looked up once
// per effective user id and kept for the process (see User.cpp).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform {

enum class SearchPathDirectory : unsigned { Library = 5 };
enum class SearchPathDomainMask : unsigned { User = 1 };

std::string userName();
// How many times the password database has been asked for the effective
// user's entry in this process; tests use it to see that the entry is kept.
uint64_t effectiveUserEntryLookUpCount();
// The effective user id of this process (0 for root).
uint32_t effectiveUserID();
std::string homeDirectory();
std::optional<std::string> homeDirectoryForUser(const std::string& name);
// The name in the password database's entry for the user id; none when the
// id has no entry.
std::optional<std::string> accountNameForUserID(uint32_t uid);

// The home folder of every account in the password database, as recorded
// there (whether or not it exists).
std::vector<std::string> homeDirectoriesOfAllUsers();
// For (Library, User): one entry, home + "/Library" (with expandTilde false:
// "~/Library"). Other combinations, and a user without a home folder in
// the password database, give an empty list.
std::vector<std::string> searchPathForDirectoriesInDomains(SearchPathDirectory directory, SearchPathDomainMask domains,
                                                           bool expandTilde);

}  // namespace platform
