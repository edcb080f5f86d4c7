// The running user, taken from the password database's entry for the
// effective user id, and the user-domain search paths.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace platform {

enum class SearchPathDirectory : unsigned { Library = 5 };
enum class SearchPathDomainMask : unsigned { User = 1 };

std::string userName();
std::string homeDirectory();
std::optional<std::string> homeDirectoryForUser(const std::string& name);
// For (Library, User): one entry, home + "/Library" (with expandTilde false:
// "~/Library"). Other combinations, and a user without a home folder in
// the password database, give an empty list.
std::vector<std::string> searchPathForDirectoriesInDomains(SearchPathDirectory directory, SearchPathDomainMask domains,
                                                           bool expandTilde);

}  // namespace platform
