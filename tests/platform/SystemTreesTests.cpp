// Where an item lies with respect to the system's trees, told by identity
// over a temporary root laid out like a system: /usr with bin and local,
// /bin a link to usr/bin, /etc, and a home folder outside every tree.
#include "platform/SystemTrees.h"

#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <system_error>

namespace {

using platform::SystemTrees;
using testsupport::makeDirectories;
using testsupport::TempDir;
using testsupport::writeFile;

class SystemTreesTest : public ::testing::Test {
protected:
    SystemTreesTest()
    {
        makeDirectories(theRoot.at("usr/bin"));
        makeDirectories(theRoot.at("usr/local/x"));
        makeDirectories(theRoot.at("etc"));
        makeDirectories(theRoot.at("home/user"));
        writeFile(theRoot.at("usr/bin/tool"), "program");
        writeFile(theRoot.at("usr/local/x/f"), "data");
        writeFile(theRoot.at("etc/passwd"), "root:x:0:0::/root:/bin/sh\n");
        writeFile(theRoot.at("home/user/f"), "mine");
        EXPECT_EQ(::symlink("usr/bin", theRoot.at("bin").c_str()), 0);
    }

    // The tree holding path as the trees of the temporary root see it; the
    // error, when there is one, fails the test.
    std::optional<std::string> treeHolding(const std::string& path) const
    {
        std::error_code error;
        std::optional<std::string> tree = theTrees.treeHolding(path, &error);
        EXPECT_FALSE(error) << path << ": " << error.message();
        return tree;
    }

    std::string root(const std::string& tree) const { return theRoot.path() + tree; }

    TempDir theRoot;
    // None of these exists: nothing is recorded.
    SystemTrees theTrees{SystemTrees::standardTrees("/nonexistent-root")};
};

// The trees of theRoot, made once the fixture's folders exist.
class LaidOutSystemTreesTest : public SystemTreesTest {
protected:
    LaidOutSystemTreesTest() { theTrees = SystemTrees(SystemTrees::standardTrees(theRoot.path())); }
};

TEST_F(LaidOutSystemTreesTest, OnlyTheTreesThatExistAreRecordedAndALinkToAnotherTreeOnce)
{
    // /usr and /etc; /bin leads to usr/bin, a folder of its own.
    EXPECT_EQ(theTrees.size(), 3U);
}

TEST_F(LaidOutSystemTreesTest, AFileDeepBelowATreeLiesInIt)
{
    EXPECT_EQ(treeHolding(theRoot.at("usr/local/x/f")), root("/usr"));
    EXPECT_EQ(treeHolding(theRoot.at("etc/passwd")), root("/etc"));
}

TEST_F(LaidOutSystemTreesTest, ATreeItselfAndAFolderBelowItLieInIt)
{
    EXPECT_EQ(treeHolding(theRoot.at("usr")), root("/usr"));
    EXPECT_EQ(treeHolding(theRoot.at("usr/local/x")), root("/usr"));
    EXPECT_EQ(treeHolding(theRoot.at("usr/local/x/")), root("/usr"));
}

TEST_F(LaidOutSystemTreesTest, TheOutermostTreeNamesThePlace)
{
    // /usr/bin is also what /bin leads to.
    EXPECT_EQ(treeHolding(theRoot.at("usr/bin/tool")), root("/usr"));
    EXPECT_EQ(treeHolding(theRoot.at("bin/tool")), root("/usr"));
}

TEST_F(LaidOutSystemTreesTest, AnItemOutsideEveryTreeLiesInNone)
{
    EXPECT_EQ(treeHolding(theRoot.at("home/user/f")), std::nullopt);
    EXPECT_EQ(treeHolding(theRoot.at("home/user")), std::nullopt);
    EXPECT_EQ(treeHolding(theRoot.path()), std::nullopt);
}

TEST_F(LaidOutSystemTreesTest, NeitherALinkNorDotDotOnTheWayHidesWhereAnItemLies)
{
    ASSERT_EQ(::symlink("../../usr/local", theRoot.at("home/user/shortcut").c_str()), 0);
    EXPECT_EQ(treeHolding(theRoot.at("home/user/shortcut/x/f")), root("/usr"));
    EXPECT_EQ(treeHolding(theRoot.at("home/user/../../usr/local/x/f")), root("/usr"));
    EXPECT_EQ(treeHolding(theRoot.at("usr/local/../../home/user/f")), std::nullopt);
}

TEST_F(LaidOutSystemTreesTest, ALinkIsJudgedWhereItLiesNotWhereItLeads)
{
    ASSERT_EQ(::symlink("../../usr/bin/tool", theRoot.at("home/user/tool").c_str()), 0);
    EXPECT_EQ(treeHolding(theRoot.at("home/user/tool")), std::nullopt);
    ASSERT_EQ(::symlink("../../home/user/f", theRoot.at("usr/local/mine").c_str()), 0);
    EXPECT_EQ(treeHolding(theRoot.at("usr/local/mine")), root("/usr"));
}

TEST_F(LaidOutSystemTreesTest, AMissingItemCannotBePlaced)
{
    std::error_code error;
    EXPECT_EQ(theTrees.treeHolding(theRoot.at("usr/missing"), &error), std::nullopt);
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_EQ(theTrees.treeHolding(theRoot.at("home/missing"), &error), std::nullopt);
    EXPECT_TRUE(error);
}

TEST_F(LaidOutSystemTreesTest, ARelativePathIsPlacedFromTheWorkingFolder)
{
    ASSERT_EQ(::chdir(theRoot.at("usr/local").c_str()), 0);
    EXPECT_EQ(treeHolding("x/f"), root("/usr"));
    ASSERT_EQ(::chdir(theRoot.at("home/user").c_str()), 0);
    EXPECT_EQ(treeHolding("f"), std::nullopt);
}

TEST_F(SystemTreesTest, TreesMadeAfterTheRecordingAreNotKnown)
{
    // Recorded under a root that does not exist: nothing.
    EXPECT_EQ(theTrees.size(), 0U);
    EXPECT_EQ(treeHolding(theRoot.at("usr/local/x/f")), std::nullopt);
}

TEST(SystemTreesStandardTest, TheStandardTreesArePlacedUnderTheRoot)
{
    EXPECT_EQ(SystemTrees::standardTrees("/r"),
              (std::vector<std::string>{"/r/usr", "/r/bin", "/r/sbin", "/r/lib", "/r/lib32", "/r/lib64", "/r/libx32",
                                        "/r/etc", "/r/boot", "/r/System"}));
}

TEST(SystemTreesStandardTest, OnThisSystemUsrAndEtcAreTrees)
{
    // Read only: nothing is changed.
    std::error_code error;
    EXPECT_EQ(SystemTrees::shared().treeHolding("/usr/bin", &error), std::optional<std::string>("/usr"));
    EXPECT_FALSE(error);
    EXPECT_EQ(SystemTrees::shared().treeHolding("/etc/passwd", &error), std::optional<std::string>("/etc"));
    EXPECT_FALSE(error);
    EXPECT_EQ(SystemTrees::shared().treeHolding("/proc", &error), std::nullopt);
    EXPECT_FALSE(error);
}

}  // namespace
