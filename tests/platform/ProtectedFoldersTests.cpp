#include "platform/ProtectedFolders.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>

#include "platform/RemovalRefusal.h"
#include "platform/TreeRemover.h"
#include "platform/User.h"
#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <system_error>

namespace {

using platform::ProtectedFolders;
using testsupport::makeDirectories;
using testsupport::TempDir;
using testsupport::writeFile;

const std::optional<std::string> kSystem = std::string("a protected system folder");
const std::optional<std::string> kHome = std::string("a home folder");
const std::optional<std::string> kHomeStandard = std::string("a standard folder of the home folder");
const std::optional<std::string> kBundle = std::string("the running program's bundle");

// A small system under a temporary folder: both layouts, a home for the
// running user and another account, and the running program's bundle.
class ProtectedFoldersUnderARoot : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* folder : {"usr/share/doc",
                                   "usr/lib",
                                   "usr/local/bin",
                                   "etc",
                                   "tmp",
                                   "srv",
                                   "var/log",
                                   "bin",
                                   "Applications/Utilities",
                                   "Applications/Corvane Lumidoc X Pro",
                                   "Library/Application Support/Corvane",
                                   "Library/Fonts",
                                   "Library/LaunchDaemons",
                                   "System/Library/Extensions/Deep/Deeper",
                                   "Users/Shared",
                                   "home/alice/Library/LaunchAgents",
                                   "home/alice/Library/Preferences",
                                   "home/alice/Documents/notes",
                                   "home/alice/Library/Containers",
                                   "home/bob/Desktop",
                                   "home/bob/Library/Keychains",
                                   "opt/Tool.app/Contents/MacOS"}) {
            makeDirectories(theRoot.at(folder));
        }
        writeFile(theRoot.at("home/alice/Library/LaunchAgents/com.corvane.agent.plist"), "x");
        ASSERT_EQ(::symlink("usr/lib", theRoot.at("lib").c_str()), 0);
        ASSERT_EQ(::symlink(theRoot.path().c_str(), theRoot.at("Library/RootLink").c_str()), 0);
    }

    ProtectedFolders folders() const
    {
        return ProtectedFolders(ProtectedFolders::standardLists(theRoot.path(),
                                                                {theRoot.at("home/bob"), theRoot.at("nowhere/carol")},
                                                                theRoot.at("home/alice"), theRoot.at("opt/Tool.app")));
    }

    std::string at(const std::string& relative) const { return theRoot.at(relative); }

    // What the remover answers for the path with this set: the reason it
    // refused it, none when the item went, or what else kept it.
    static std::optional<std::string> refusalRemoving(const ProtectedFolders& folders, const std::string& path)
    {
        platform::TreeRemover remover;
        remover.setProtectedFolders(folders);
        std::error_code error;
        if (remover.removePath(path, &error)) {
            return std::nullopt;
        }
        if (error.category() == platform::removalRefusalCategory()) {
            return error.message();
        }
        return "not removed: " + error.message();
    }

    // The identity test alone, as the permission repair asks it.
    static std::optional<std::string> refusalOfIdentity(const ProtectedFolders& folders, const std::string& path)
    {
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) {
            return "cannot examine " + path;
        }
        const std::error_code refusal = folders.refusal(status.st_dev, status.st_ino);
        return refusal ? std::optional<std::string>(refusal.message()) : std::nullopt;
    }

    TempDir theRoot;
};

TEST_F(ProtectedFoldersUnderARoot, TheRootAndTopLevelFoldersOfBothLayoutsAreProtected)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(refusalRemoving(protectedFolders, theRoot.path()), kSystem);
    for (const char* folder : {"usr",
                               "usr/lib",
                               "usr/local/bin",
                               "usr/share",
                               "etc",
                               "tmp",
                               "srv",
                               "var",
                               "var/log",
                               "bin",
                               "home",
                               "opt",
                               "Applications",
                               "Applications/Utilities",
                               "Library",
                               "Library/Fonts",
                               "Library/LaunchDaemons",
                               "Library/Application Support",
                               "System",
                               "Users",
                               "Users/Shared"}) {
        EXPECT_EQ(refusalRemoving(protectedFolders, at(folder)), kSystem) << folder;
    }
}

TEST_F(ProtectedFoldersUnderARoot, WhatIsInsideProtectedFoldersIsNotProtected)
{
    const ProtectedFolders protectedFolders = folders();
    for (const char* item :
         {"usr/share/doc", "Library/Application Support/Corvane", "Applications/Corvane Lumidoc X Pro",
          "home/alice/Documents/notes", "home/alice/Library/LaunchAgents/com.corvane.agent.plist"}) {
        EXPECT_EQ(refusalRemoving(protectedFolders, at(item)), std::nullopt) << item;
    }
}

TEST_F(ProtectedFoldersUnderARoot, EverythingBelowSystemIsProtected)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(refusalRemoving(protectedFolders, at("System/Library/Extensions")), kSystem);
    EXPECT_EQ(refusalRemoving(protectedFolders, at("System/Library/Extensions/Deep/Deeper")), kSystem);
    EXPECT_EQ(refusalRemoving(protectedFolders, at("Library/../System/Library")), kSystem);
}

TEST_F(ProtectedFoldersUnderARoot, HomeFoldersOfEveryAccountAreProtected)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(refusalRemoving(protectedFolders, at("home/alice")), kHome);
    EXPECT_EQ(refusalRemoving(protectedFolders, at("home/bob")), kHome);
    EXPECT_EQ(refusalRemoving(protectedFolders, at("home/alice/")), kHome);
}

TEST_F(ProtectedFoldersUnderARoot, StandardFoldersOfTheRunningUsersHomeAreProtected)
{
    const ProtectedFolders protectedFolders = folders();
    for (const char* folder :
         {"home/alice/Library", "home/alice/Library/LaunchAgents", "home/alice/Library/Preferences",
          "home/alice/Library/Containers", "home/alice/Documents"}) {
        EXPECT_EQ(refusalRemoving(protectedFolders, at(folder)), kHomeStandard) << folder;
    }
}

TEST_F(ProtectedFoldersUnderARoot, TheRunningProgramsBundleAndTheFoldersItIsMadeOfAreProtected)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(refusalRemoving(protectedFolders, at("opt/Tool.app")), kBundle);
    EXPECT_EQ(refusalRemoving(protectedFolders, at("opt/Tool.app/Contents")), kBundle);
    EXPECT_EQ(refusalRemoving(protectedFolders, at("opt/Tool.app/Contents/MacOS")), kBundle);
}

TEST_F(ProtectedFoldersUnderARoot, AFileNamedInsideTheRunningProgramsBundleMayGo)
{
    writeFile(at("opt/Tool.app/Contents/Resources/Extra.txt"), "x");
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(refusalRemoving(protectedFolders, at("opt/Tool.app/Contents/Resources/Extra.txt")), std::nullopt);
}

TEST_F(ProtectedFoldersUnderARoot, DotDotAndLinksInTheMiddleAreFollowedToWhatWouldBeRemoved)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(refusalRemoving(protectedFolders, at("Library/../Applications")), kSystem);
    EXPECT_EQ(refusalRemoving(protectedFolders, at("Library/RootLink/Applications")), kSystem);
    EXPECT_EQ(refusalRemoving(protectedFolders, at("Library/RootLink/home/alice")), kHome);
    EXPECT_EQ(refusalOfIdentity(protectedFolders, at("usr/share/doc/..")), kSystem);
    EXPECT_EQ(refusalRemoving(protectedFolders, at("Library/Application Support/Corvane/../Corvane")), std::nullopt);
}

TEST_F(ProtectedFoldersUnderARoot, ALinkStandingForAProtectedFolderIsProtectedItself)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(refusalRemoving(protectedFolders, at("lib")), kSystem);
}

TEST_F(ProtectedFoldersUnderARoot, TheTestIsOnIdentityNotOnText)
{
    const ProtectedFolders protectedFolders = folders();
    // Renamed after the set was made: still the same folder.
    ASSERT_EQ(::rename(at("srv").c_str(), at("srv-renamed").c_str()), 0);
    EXPECT_EQ(refusalRemoving(protectedFolders, at("srv-renamed")), kSystem);
    // A new folder where a protected one stood is another folder.
    makeDirectories(at("srv"));
    EXPECT_EQ(refusalRemoving(protectedFolders, at("srv")), std::nullopt);
    // The same names under another root are other folders.
    TempDir other;
    makeDirectories(other.at("usr"));
    EXPECT_EQ(refusalRemoving(protectedFolders, other.at("usr")), std::nullopt);
}

TEST_F(ProtectedFoldersUnderARoot, RefusalComparesDeviceAndInodeOnly)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(refusalOfIdentity(protectedFolders, at("etc")), kSystem);
    EXPECT_EQ(refusalOfIdentity(protectedFolders, at("usr/share/doc/..")), kSystem);
    EXPECT_EQ(refusalOfIdentity(protectedFolders, at("home/bob")), kHome);
    EXPECT_EQ(refusalOfIdentity(protectedFolders, at("usr/share/doc")), std::nullopt);
    // Below the protected tree, yet not one of the folders themselves: only
    // the place tells.
    EXPECT_EQ(refusalOfIdentity(protectedFolders, at("System/Library/Extensions")), std::nullopt);
}

TEST_F(ProtectedFoldersUnderARoot, ThePlaceOfAFolderIsFoundByClimbingFromItsDescriptor)
{
    const ProtectedFolders protectedFolders = folders();
    ASSERT_TRUE(protectedFolders.hasTrees());
    const auto placeOf = [&](const std::string& path) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        EXPECT_GE(fd, 0) << path;
        const std::error_code place = protectedFolders.placeRefusal(fd);
        ::close(fd);
        return place;
    };
    EXPECT_EQ(placeOf(at("System")), platform::RemovalRefusal::SystemFolder);
    EXPECT_EQ(placeOf(at("System/Library/Extensions/Deep/Deeper")), platform::RemovalRefusal::SystemFolder);
    EXPECT_EQ(placeOf(at("Library/RootLink/System/Library")), platform::RemovalRefusal::SystemFolder);
    EXPECT_FALSE(placeOf(at("Library")));
    EXPECT_FALSE(placeOf(at("usr/share/doc")));
}

TEST_F(ProtectedFoldersUnderARoot, APlaceThatCannotBeToldIsRefused)
{
    const ProtectedFolders protectedFolders = folders();
    // A descriptor that is no folder cannot be climbed from: the answer is
    // the reason, never "not inside".
    EXPECT_EQ(protectedFolders.placeRefusal(-1), std::errc::bad_file_descriptor);
}

TEST_F(ProtectedFoldersUnderARoot, StandardFoldersOfEveryAccountsHomeAreProtected)
{
    const ProtectedFolders protectedFolders = folders();
    for (const char* folder : {"home/bob/Desktop", "home/bob/Library", "home/bob/Library/Keychains"}) {
        EXPECT_EQ(refusalRemoving(protectedFolders, at(folder)), kHomeStandard) << folder;
    }
    const auto lists = ProtectedFolders::standardLists(theRoot.path(), {at("home/bob")}, "", std::nullopt);
    EXPECT_NE(std::find(lists.homeStandardFolders.begin(), lists.homeStandardFolders.end(), at("home/bob/Desktop")),
              lists.homeStandardFolders.end());
    // Only those that exist are listed.
    EXPECT_EQ(std::find(lists.homeStandardFolders.begin(), lists.homeStandardFolders.end(), at("home/bob/Music")),
              lists.homeStandardFolders.end());
}

TEST_F(ProtectedFoldersUnderARoot, AMissingItemIsNotFoundRatherThanRefused)
{
    const ProtectedFolders protectedFolders = folders();
    const std::string notFound = "not removed: " + std::make_error_code(std::errc::no_such_file_or_directory).message();
    EXPECT_EQ(refusalRemoving(protectedFolders, at("missing")), notFound);
    EXPECT_EQ(refusalRemoving(protectedFolders, at("missing/deeper")), notFound);
}

// Reads the real system only: nothing is removed.
TEST(ProtectedFoldersOfThisSystem, ProtectTheSystemAndHomeFoldersButNotWhatIsInside)
{
    const ProtectedFolders& protectedFolders = ProtectedFolders::shared();
    EXPECT_EQ(&protectedFolders, &ProtectedFolders::shared());
    const auto refusalOf = [&](const std::string& path) {
        struct stat status {};
        EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
        return protectedFolders.refusal(status.st_dev, status.st_ino);
    };
    for (const char* folder : {"/", "/usr", "/etc", "/tmp", "/usr/share", "/var", "/usr/share/doc/.."}) {
        EXPECT_EQ(refusalOf(folder), platform::RemovalRefusal::SystemFolder) << folder;
    }
    const auto rootHome = platform::homeDirectoryForUser("root");
    ASSERT_TRUE(rootHome.has_value());
    EXPECT_TRUE(refusalOf(*rootHome));
    EXPECT_FALSE(refusalOf("/usr/share/doc"));
}

}  // namespace
