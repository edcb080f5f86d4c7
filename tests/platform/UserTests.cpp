#include "platform/User.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/RunUnprivileged.h"

namespace {

using platform::homeDirectory;
using platform::homeDirectoryForUser;
using platform::SearchPathDirectory;
using platform::SearchPathDomainMask;
using platform::searchPathForDirectoriesInDomains;
using platform::userName;

const passwd& effectiveUserEntry()
{
    const passwd* entry = getpwuid(geteuid());
    if (entry == nullptr) {
        throw std::runtime_error("no password entry for the effective user");
    }
    return *entry;
}

TEST(User, NameIsThePasswordEntryName)
{
    EXPECT_EQ(userName(), std::string(effectiveUserEntry().pw_name));
}

TEST(User, HomeDirectoryIsThePasswordEntryHome)
{
    EXPECT_EQ(homeDirectory(), std::string(effectiveUserEntry().pw_dir));
}

TEST(User, HomeDirectoryIgnoresTheHomeVariable)
{
    const std::string expected = effectiveUserEntry().pw_dir;
    ASSERT_EQ(setenv("HOME", "/nonexistent/elsewhere", 1), 0);
    EXPECT_EQ(homeDirectory(), expected);
}

TEST(User, TheEffectiveUsersEntryIsLookedUpOnceForManyCalls)
{
    const std::string home = homeDirectory();
    const uint64_t before = platform::effectiveUserEntryLookUpCount();
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(homeDirectory(), home);
        ASSERT_EQ(userName(), std::string(effectiveUserEntry().pw_name));
    }
    EXPECT_EQ(platform::effectiveUserEntryLookUpCount(), before);
}

TEST(User, TheEntryFollowsAChangeOfTheEffectiveUser)
{
    ASSERT_EQ(geteuid(), 0U) << "becoming another user needs root; the suite runs as root";
    const std::string rootHome = homeDirectory();
    const passwd* nobody = getpwuid(testsupport::kUnprivilegedUser);
    ASSERT_NE(nobody, nullptr);
    const std::string nobodyHome = nobody->pw_dir;
    const std::string nobodyName = nobody->pw_name;
    ASSERT_NE(nobodyHome, rootHome);
    EXPECT_EQ(
        testsupport::runUnprivileged([&] { return homeDirectory() == nobodyHome && userName() == nobodyName ? 0 : 1; }),
        0);
}

TEST(User, AnIdWithoutAnEntryIsAskedAgainEveryTime)
{
    ASSERT_EQ(geteuid(), 0U) << "taking an unknown id needs root; the suite runs as root";
    static_cast<void>(homeDirectory());
    // An id that the password database does not know.
    constexpr uid_t unknown = 43210;
    ASSERT_EQ(getpwuid(unknown), nullptr);
    const auto becomeUnknown = [] { return ::setresuid(unknown, unknown, unknown) == 0; };
    const auto askTwice = [] {
        const uint64_t before = platform::effectiveUserEntryLookUpCount();
        const bool none = homeDirectory().empty() && homeDirectory().empty();
        return none && platform::effectiveUserEntryLookUpCount() - before == 2 ? 0 : 1;
    };
    EXPECT_EQ(testsupport::runInChild(becomeUnknown, askTwice), 0);
}

TEST(User, HomeDirectoryForNamedUser)
{
    const passwd* root = getpwnam("root");
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(homeDirectoryForUser("root"), std::optional<std::string>(root->pw_dir));
}

TEST(User, HomeDirectoryForUnknownUserIsNone)
{
    EXPECT_EQ(homeDirectoryForUser("no_such_user_qel_7"), std::nullopt);
    EXPECT_EQ(homeDirectoryForUser(""), std::nullopt);
}

TEST(User, UserLibraryIsHomeSlashLibrary)
{
    const std::string home = effectiveUserEntry().pw_dir;
    const std::string expected = home == "/" ? "/Library" : home + "/Library";
    EXPECT_EQ(searchPathForDirectoriesInDomains(SearchPathDirectory::Library, SearchPathDomainMask::User, true),
              (std::vector<std::string>{expected}));
}

TEST(User, UserLibraryWithoutTildeExpansionIsTildeLibrary)
{
    EXPECT_EQ(searchPathForDirectoriesInDomains(SearchPathDirectory::Library, SearchPathDomainMask::User, false),
              (std::vector<std::string>{"~/Library"}));
}

TEST(User, OtherSearchPathsAreEmpty)
{
    EXPECT_TRUE(searchPathForDirectoriesInDomains(static_cast<SearchPathDirectory>(9), SearchPathDomainMask::User, true)
                    .empty());
    EXPECT_TRUE(
        searchPathForDirectoriesInDomains(SearchPathDirectory::Library, static_cast<SearchPathDomainMask>(8), true)
            .empty());
}

TEST(UserAccountName, IsThePasswordDatabaseNameOfTheId)
{
    EXPECT_EQ(platform::accountNameForUserID(0), "root");
    EXPECT_EQ(platform::accountNameForUserID(65534), "nobody");
    EXPECT_EQ(platform::accountNameForUserID(3999999), std::nullopt);
}

}  // namespace
