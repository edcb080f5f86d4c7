#include "platform/Path.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/User.h"
#include "tests/support/TempDir.h"

namespace {

using platform::appendingPathComponent;
using platform::appendingPathComponents;
using platform::appendingPathExtension;
using platform::deletingLastPathComponent;
using platform::expandingTildeInPath;
using platform::isAbsolutePath;
using platform::lastPathComponent;
using platform::pathComponents;

std::string passwordHomeOf(uid_t uid)
{
    const passwd* entry = getpwuid(uid);
    return entry != nullptr && entry->pw_dir != nullptr ? entry->pw_dir : "";
}

TEST(LastPathComponent, TakesTheNameAfterTheLastSlash)
{
    EXPECT_EQ(lastPathComponent("/tmp/scratch.tiff"), "scratch.tiff");
}

TEST(LastPathComponent, IgnoresOneTrailingSlash)
{
    EXPECT_EQ(lastPathComponent("/tmp/"), "tmp");
}

TEST(LastPathComponent, IgnoresSeveralTrailingSlashes)
{
    EXPECT_EQ(lastPathComponent("scratch///"), "scratch");
}

TEST(LastPathComponent, OfRootIsRoot)
{
    EXPECT_EQ(lastPathComponent("/"), "/");
    EXPECT_EQ(lastPathComponent("///"), "/");
}

TEST(LastPathComponent, OfEmptyIsEmpty)
{
    EXPECT_EQ(lastPathComponent(""), "");
}

TEST(LastPathComponent, OfNameWithoutSlashIsTheName)
{
    EXPECT_EQ(lastPathComponent("scratch.tiff"), "scratch.tiff");
}

TEST(DeletingLastPathComponent, LeavesTheParentFolder)
{
    EXPECT_EQ(deletingLastPathComponent("/tmp/scratch.tiff"), "/tmp");
}

TEST(DeletingLastPathComponent, DropsATrailingSlashBeforeTheLastComponent)
{
    EXPECT_EQ(deletingLastPathComponent("/tmp/lock/"), "/tmp");
}

TEST(DeletingLastPathComponent, OfTopLevelFolderIsRoot)
{
    EXPECT_EQ(deletingLastPathComponent("/tmp/"), "/");
    EXPECT_EQ(deletingLastPathComponent("/tmp"), "/");
}

TEST(DeletingLastPathComponent, OfRootIsRoot)
{
    EXPECT_EQ(deletingLastPathComponent("/"), "/");
}

TEST(DeletingLastPathComponent, OfSingleRelativeNameIsEmpty)
{
    EXPECT_EQ(deletingLastPathComponent("scratch.tiff"), "");
}

TEST(DeletingLastPathComponent, DropsDoubledSlashesBeforeTheLastComponent)
{
    EXPECT_EQ(deletingLastPathComponent("/tmp//scratch"), "/tmp");
    EXPECT_EQ(deletingLastPathComponent("a/b/c"), "a/b");
}

TEST(DeletingLastPathComponent, CollapsesRepeatedSlashesInWhatIsLeft)
{
    EXPECT_EQ(deletingLastPathComponent("/a//b/c"), "/a/b");
    EXPECT_EQ(deletingLastPathComponent("//a///b//c//"), "/a/b");
    EXPECT_EQ(deletingLastPathComponent("a//b/c"), "a/b");
    EXPECT_EQ(deletingLastPathComponent("//tmp"), "/");
}

TEST(AppendingPathComponent, JoinsWithOneSlash)
{
    EXPECT_EQ(appendingPathComponent("/tmp", "x"), "/tmp/x");
}

TEST(AppendingPathComponent, DoesNotDoubleAnExistingTrailingSlash)
{
    EXPECT_EQ(appendingPathComponent("/tmp/", "x"), "/tmp/x");
}

TEST(AppendingPathComponent, CollapsesDoubledSlashesInTheResult)
{
    EXPECT_EQ(appendingPathComponent("/tmp//", "x"), "/tmp/x");
    EXPECT_EQ(appendingPathComponent("/tmp", "/x"), "/tmp/x");
    EXPECT_EQ(appendingPathComponent("/a//b", "x"), "/a/b/x");
}

TEST(AppendingPathComponent, DropsATrailingSlashOfTheComponent)
{
    EXPECT_EQ(appendingPathComponent("/tmp", "x/"), "/tmp/x");
    EXPECT_EQ(appendingPathComponent("/tmp", "x//"), "/tmp/x");
}

TEST(AppendingPathComponent, ToRootGivesAbsoluteName)
{
    EXPECT_EQ(appendingPathComponent("/", "x"), "/x");
}

TEST(AppendingPathComponent, ToEmptyGivesTheComponent)
{
    EXPECT_EQ(appendingPathComponent("", "x"), "x");
}

TEST(AppendingPathComponent, OfEmptyComponentLeavesThePathWithoutTrailingSlash)
{
    EXPECT_EQ(appendingPathComponent("/tmp", ""), "/tmp");
    EXPECT_EQ(appendingPathComponent("/tmp/", ""), "/tmp");
    EXPECT_EQ(appendingPathComponent("/", ""), "/");
}

TEST(AppendingPathComponent, KeepsATrailingCarriageReturnInTheComponent)
{
    EXPECT_EQ(appendingPathComponent("/tmp", "name\r"), "/tmp/name\r");
}

TEST(AppendingPathComponent, KeepsSpacesAndNonAsciiBytes)
{
    EXPECT_EQ(appendingPathComponent("/tmp", " a b \xC3\xA9 "), "/tmp/ a b \xC3\xA9 ");
}

TEST(AppendingPathComponents, JoinsEachComponentInTurn)
{
    EXPECT_EQ(appendingPathComponents("/Apps/X.app", {"Contents", "Resources", "English.lproj"}),
              "/Apps/X.app/Contents/Resources/English.lproj");
    EXPECT_EQ(appendingPathComponents("", {"a", "b"}), "a/b");
    EXPECT_EQ(appendingPathComponents("/", {"Library", "Preferences"}), "/Library/Preferences");
}

TEST(AppendingPathComponents, GivesWhatNestedSingleAppendsGive)
{
    const std::string path = "/Apps//X.app/";
    const std::string nested = appendingPathComponent(
        appendingPathComponent(appendingPathComponent(path, ""), "Contents/"), "name\r with \xC3\xA9");
    EXPECT_EQ(appendingPathComponents(path, {"", "Contents/", "name\r with \xC3\xA9"}), nested);
    EXPECT_EQ(nested, "/Apps/X.app/Contents/name\r with \xC3\xA9");
}

TEST(AppendingPathComponents, TakesComponentsThatAreMadeOnTheSpot)
{
    const std::string name = "Lumidoc";
    EXPECT_EQ(appendingPathComponents("/Apps", {name + " Updater Helper.app", "Contents"}),
              "/Apps/Lumidoc Updater Helper.app/Contents");
}

TEST(AppendingPathComponents, WithNoComponentsLeavesThePathAsWritten)
{
    EXPECT_EQ(appendingPathComponents("/tmp//x/", {}), "/tmp//x/");
}

TEST(AppendingPathExtension, AddsDotAndExtensionAfterExistingExtension)
{
    EXPECT_EQ(appendingPathExtension("/tmp/scratch.old", "tiff"), "/tmp/scratch.old.tiff");
}

TEST(AppendingPathExtension, DropsTrailingSlashBeforeAdding)
{
    EXPECT_EQ(appendingPathExtension("/tmp/", "tiff"), "/tmp.tiff");
}

TEST(AppendingPathExtension, ExtendsARelativeName)
{
    EXPECT_EQ(appendingPathExtension("scratch", "tiff"), "scratch.tiff");
}

TEST(AppendingPathExtension, LeavesRootAndEmptyAsTheyAre)
{
    EXPECT_EQ(appendingPathExtension("/", "tiff"), "/");
    EXPECT_EQ(appendingPathExtension("", "tiff"), "");
}

TEST(PathComponents, SplitsARelativePath)
{
    EXPECT_EQ(pathComponents("tmp/scratch"), (std::vector<std::string>{"tmp", "scratch"}));
}

TEST(PathComponents, StartsAnAbsolutePathWithRoot)
{
    EXPECT_EQ(pathComponents("/tmp/scratch"), (std::vector<std::string>{"/", "tmp", "scratch"}));
}

TEST(PathComponents, EndsWithSlashForATrailingSlash)
{
    EXPECT_EQ(pathComponents("/tmp/"), (std::vector<std::string>{"/", "tmp", "/"}));
    EXPECT_EQ(pathComponents("tmp//"), (std::vector<std::string>{"tmp", "/"}));
}

TEST(PathComponents, SkipsEmptyComponentsBetweenDoubledSlashes)
{
    EXPECT_EQ(pathComponents("//tmp//scratch"), (std::vector<std::string>{"/", "tmp", "scratch"}));
}

TEST(PathComponents, OfRootIsRootAlone)
{
    EXPECT_EQ(pathComponents("/"), (std::vector<std::string>{"/"}));
    EXPECT_EQ(pathComponents("//"), (std::vector<std::string>{"/"}));
}

TEST(PathComponents, OfEmptyIsEmpty)
{
    EXPECT_TRUE(pathComponents("").empty());
}

TEST(IsAbsolutePath, TrueForSlashOrTilde)
{
    EXPECT_TRUE(isAbsolutePath("/tmp"));
    EXPECT_TRUE(isAbsolutePath("/"));
    EXPECT_TRUE(isAbsolutePath("~"));
    EXPECT_TRUE(isAbsolutePath("~/x"));
}

TEST(IsAbsolutePath, FalseForRelativeOrEmpty)
{
    EXPECT_FALSE(isAbsolutePath("tmp/x"));
    EXPECT_FALSE(isAbsolutePath("./x"));
    EXPECT_FALSE(isAbsolutePath(""));
}

TEST(ExpandingTildeInPath, TildeAloneIsTheHomeFolder)
{
    const std::string home = passwordHomeOf(geteuid());
    ASSERT_FALSE(home.empty());
    EXPECT_EQ(expandingTildeInPath("~"), home);
}

TEST(ExpandingTildeInPath, TildeSlashNameIsInsideTheHomeFolder)
{
    const std::string home = passwordHomeOf(geteuid());
    ASSERT_FALSE(home.empty());
    EXPECT_EQ(expandingTildeInPath("~/x"), appendingPathComponent(home, "x"));
    EXPECT_EQ(expandingTildeInPath("~/Library/Caches"), appendingPathComponent(home, "Library/Caches"));
}

TEST(ExpandingTildeInPath, TildeSlashAloneIsTheHomeFolder)
{
    const std::string home = passwordHomeOf(geteuid());
    ASSERT_FALSE(home.empty());
    EXPECT_EQ(expandingTildeInPath("~/"), appendingPathComponent(home, ""));
}

TEST(ExpandingTildeInPath, UsesThePasswordDatabaseNotTheHomeVariable)
{
    const std::string home = passwordHomeOf(geteuid());
    ASSERT_FALSE(home.empty());
    ASSERT_EQ(setenv("HOME", "/nonexistent/elsewhere", 1), 0);
    EXPECT_EQ(expandingTildeInPath("~/x"), appendingPathComponent(home, "x"));
}

TEST(ExpandingTildeInPath, TildeUserIsThatUsersHomeFolder)
{
    const std::string rootHome = passwordHomeOf(0);
    ASSERT_FALSE(rootHome.empty());
    EXPECT_EQ(expandingTildeInPath("~root/x"), appendingPathComponent(rootHome, "x"));
    EXPECT_EQ(expandingTildeInPath("~root"), rootHome);
}

TEST(ExpandingTildeInPath, UnknownUserStaysAsWritten)
{
    EXPECT_EQ(expandingTildeInPath("~no_such_user_qel_7/x"), "~no_such_user_qel_7/x");
}

TEST(ExpandingTildeInPath, UserNameHoldingNULIsAnUnknownUser)
{
    using namespace std::string_literals;
    const std::string path = "~root\0junk/a"s;
    EXPECT_EQ(expandingTildeInPath(path), path);
    EXPECT_FALSE(platform::homeDirectoryForUser("root\0junk"s).has_value());
}

TEST(ExpandingTildeInPath, PathWithoutTildeIsUnchanged)
{
    EXPECT_EQ(expandingTildeInPath("/tmp/x"), "/tmp/x");
    EXPECT_EQ(expandingTildeInPath("x/~"), "x/~");
    EXPECT_EQ(expandingTildeInPath(""), "");
}

TEST(FileURLPath, AbsolutePathStaysAsWritten)
{
    EXPECT_EQ(platform::fileURLPath("/Applications/X Pro/App.app"), "/Applications/X Pro/App.app");
}

TEST(FileURLPath, TrailingSlashesAreDropped)
{
    EXPECT_EQ(platform::fileURLPath("/Applications/App.app//"), "/Applications/App.app");
    EXPECT_EQ(platform::fileURLPath("/"), "/");
}

TEST(FileURLPath, RelativePathIsTakenFromTheCurrentFolder)
{
    testsupport::TempDir dir;
    ASSERT_EQ(::chdir(dir.path().c_str()), 0);
    const std::string current = std::filesystem::current_path().string();
    EXPECT_EQ(platform::fileURLPath("Volumes/Backup/App.app/"), current + "/Volumes/Backup/App.app");
    EXPECT_EQ(platform::fileURLPath("a/../b"), current + "/a/../b");
    EXPECT_EQ(platform::fileURLPath(""), current);
}

}  // namespace
