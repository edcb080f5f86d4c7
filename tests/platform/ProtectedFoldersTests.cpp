#include "platform/ProtectedFolders.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>

#include "platform/User.h"
#include "tests/support/TempDir.h"

using platform::ProtectedFolders;
using testsupport::makeDirectories;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

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
                                   "home/bob",
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

    TempDir theRoot;
};

}  // namespace

TEST_F(ProtectedFoldersUnderARoot, TheRootAndTopLevelFoldersOfBothLayoutsAreProtected)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(protectedFolders.reasonToRefusePath(theRoot.path()), kSystem);
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
        EXPECT_EQ(protectedFolders.reasonToRefusePath(at(folder)), kSystem) << folder;
    }
}

TEST_F(ProtectedFoldersUnderARoot, WhatIsInsideProtectedFoldersIsNotProtected)
{
    const ProtectedFolders protectedFolders = folders();
    for (const char* item :
         {"usr/share/doc", "Library/Application Support/Corvane", "Applications/Corvane Lumidoc X Pro",
          "home/alice/Documents/notes", "home/alice/Library/LaunchAgents/com.corvane.agent.plist"}) {
        EXPECT_EQ(protectedFolders.reasonToRefusePath(at(item)), std::nullopt) << item;
    }
}

TEST_F(ProtectedFoldersUnderARoot, EverythingBelowSystemIsProtected)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("System/Library/Extensions")), kSystem);
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("System/Library/Extensions/Deep/Deeper")), kSystem);
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("Library/../System/Library")), kSystem);
}

TEST_F(ProtectedFoldersUnderARoot, HomeFoldersOfEveryAccountAreProtected)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("home/alice")), kHome);
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("home/bob")), kHome);
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("home/alice/")), kHome);
}

TEST_F(ProtectedFoldersUnderARoot, StandardFoldersOfTheRunningUsersHomeAreProtected)
{
    const ProtectedFolders protectedFolders = folders();
    for (const char* folder :
         {"home/alice/Library", "home/alice/Library/LaunchAgents", "home/alice/Library/Preferences",
          "home/alice/Library/Containers", "home/alice/Documents"}) {
        EXPECT_EQ(protectedFolders.reasonToRefusePath(at(folder)), kHomeStandard) << folder;
    }
}

TEST_F(ProtectedFoldersUnderARoot, TheRunningProgramsBundleIsProtected)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("opt/Tool.app")), kBundle);
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("opt/Tool.app/Contents/MacOS")), std::nullopt);
}

TEST_F(ProtectedFoldersUnderARoot, DotDotAndLinksInTheMiddleAreFollowedToWhatWouldBeRemoved)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("Library/../Applications")), kSystem);
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("Library/RootLink/Applications")), kSystem);
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("Library/RootLink/home/alice")), kHome);
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("usr/share/doc/..")), kSystem);
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("Library/Application Support/Corvane/../Corvane")), std::nullopt);
}

TEST_F(ProtectedFoldersUnderARoot, ALinkStandingForAProtectedFolderIsProtectedItself)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("lib")), kSystem);
}

TEST_F(ProtectedFoldersUnderARoot, TheTestIsOnIdentityNotOnText)
{
    const ProtectedFolders protectedFolders = folders();
    // Renamed after the set was made: still the same folder.
    ASSERT_EQ(::rename(at("srv").c_str(), at("srv-renamed").c_str()), 0);
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("srv-renamed")), kSystem);
    // A new folder where a protected one stood is another folder.
    makeDirectories(at("srv"));
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("srv")), std::nullopt);
    // The same names under another root are other folders.
    TempDir other;
    makeDirectories(other.at("usr"));
    EXPECT_EQ(protectedFolders.reasonToRefusePath(other.at("usr")), std::nullopt);
}

TEST_F(ProtectedFoldersUnderARoot, ReasonToRefuseComparesDeviceAndInode)
{
    const ProtectedFolders protectedFolders = folders();
    struct stat status {};
    ASSERT_EQ(::lstat(at("etc").c_str(), &status), 0);
    EXPECT_EQ(protectedFolders.reasonToRefuse(status.st_dev, status.st_ino, "/anywhere/else"), kSystem);
    ASSERT_EQ(::lstat(at("usr/share/doc").c_str(), &status), 0);
    EXPECT_EQ(protectedFolders.reasonToRefuse(status.st_dev, status.st_ino, at("usr/share/doc")), std::nullopt);
    // Below the protected tree by its resolved path alone.
    EXPECT_EQ(protectedFolders.reasonToRefuse(status.st_dev, status.st_ino, at("System/Anything")), kSystem);
    EXPECT_EQ(protectedFolders.reasonToRefuse(status.st_dev, status.st_ino, at("SystemX")), std::nullopt);
}

TEST_F(ProtectedFoldersUnderARoot, AMissingItemHasNothingToProtect)
{
    const ProtectedFolders protectedFolders = folders();
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("missing")), std::nullopt);
    EXPECT_EQ(protectedFolders.reasonToRefusePath(at("missing/deeper")), std::nullopt);
    EXPECT_EQ(protectedFolders.reasonToRefusePath(""), std::nullopt);
}

// Reads the real system only.
TEST(ProtectedFoldersOfThisSystem, ProtectTheSystemAndHomeFoldersButNotWhatIsInside)
{
    const ProtectedFolders& protectedFolders = ProtectedFolders::shared();
    EXPECT_EQ(&protectedFolders, &ProtectedFolders::shared());
    for (const char* folder : {"/", "/usr", "/etc", "/tmp", "/usr/share", "/var"}) {
        EXPECT_EQ(protectedFolders.reasonToRefusePath(folder), kSystem) << folder;
    }
    const auto rootHome = platform::homeDirectoryForUser("root");
    ASSERT_TRUE(rootHome.has_value());
    EXPECT_TRUE(protectedFolders.reasonToRefusePath(*rootHome).has_value());
    EXPECT_EQ(protectedFolders.reasonToRefusePath("/usr/share/doc"), std::nullopt);
    EXPECT_EQ(protectedFolders.reasonToRefusePath("/usr/share/doc/.."), kSystem);
}
