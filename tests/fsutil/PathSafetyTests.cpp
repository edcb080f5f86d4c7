// Whether a path may be trusted by a user, the repair of its write bits, and
// the attributes the shared services create items with.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "fsutil/QELSecurity.h"
#include "platform/FileAttributeDictionary.h"
#include "platform/User.h"
#include "tests/support/Settings.h"
#include "tests/support/FileModes.h"
#include "tests/support/FolderSwapper.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/TempDir.h"

namespace {

using testsupport::modeOf;
using testsupport::TempDir;

constexpr uid_t kOtherUser = 65534;  // nobody

class PathSafety : public testing::Test {
protected:
    void SetUp() override { testsupport::useCommandLineSettings({"-AppType", "Path Test"}); }

    std::string folder(const std::string& name, mode_t mode)
    {
        testsupport::makeDirectories(dir.at(name));
        EXPECT_EQ(::chmod(dir.at(name).c_str(), mode), 0);
        return dir.at(name);
    }

    std::string file(const std::string& name, mode_t mode)
    {
        testsupport::writeFile(dir.at(name), "x");
        EXPECT_EQ(::chmod(dir.at(name).c_str(), mode), 0);
        return dir.at(name);
    }

    static bool isSafeForMe(const std::string& path) { return QELSecurity::makePathOK(path, platform::userName()); }

    TempDir dir;
};

TEST_F(PathSafety, ADirectoryOfTheUserWithMode0777Becomes0755AndIsAccepted)
{
    const std::string path = folder("open", 0777);
    EXPECT_TRUE(isSafeForMe(path));
    EXPECT_EQ(modeOf(path), 0755U);
}

TEST_F(PathSafety, AFileOfTheUserWithMode04775LosesSetUserIdAndWriteBitsAndIsAccepted)
{
    const std::string path = file("setuid", 04775);
    EXPECT_TRUE(isSafeForMe(path));
    EXPECT_EQ(modeOf(path), 0755U);
}

TEST_F(PathSafety, AStickyDirectoryWithMode01777KeepsTheStickyBitAndIsAccepted)
{
    const std::string path = folder("sticky", 01777);
    EXPECT_TRUE(isSafeForMe(path));
    EXPECT_EQ(modeOf(path), 01755U);
}

TEST_F(PathSafety, TheSetGroupIdBitGoesEvenWhenNoWriteBitIsSet)
{
    const std::string path = folder("setgid", 02750);
    EXPECT_TRUE(isSafeForMe(path));
    EXPECT_EQ(modeOf(path), 0750U);
}

TEST_F(PathSafety, APathOwnedByAnotherUserIsRefusedAndItsModeIsNotChanged)
{
    const std::string path = folder("theirs", 0777);
    ASSERT_EQ(::chown(path.c_str(), kOtherUser, kOtherUser), 0);
    EXPECT_FALSE(isSafeForMe(path));
    EXPECT_EQ(modeOf(path), 0777U);
}

TEST_F(PathSafety, APathIsSafeForTheUserNamedWhenThatUserOwnsIt)
{
    const std::string path = folder("theirs", 0775);
    ASSERT_EQ(::chown(path.c_str(), kOtherUser, kOtherUser), 0);
    EXPECT_TRUE(QELSecurity::makePathOK(path, "nobody"));
    EXPECT_EQ(modeOf(path), 0755U);
}

TEST_F(PathSafety, ALinkToASafeDirectoryIsRefusedAndTheDirectoryIsNotChanged)
{
    const std::string target = folder("safe", 0777);
    ASSERT_EQ(::symlink(target.c_str(), dir.at("link").c_str()), 0);
    EXPECT_FALSE(isSafeForMe(dir.at("link")));
    EXPECT_EQ(modeOf(target), 0777U);
}

TEST_F(PathSafety, APathThatDoesNotExistIsRefused)
{
    EXPECT_FALSE(isSafeForMe(dir.at("missing")));
}

TEST_F(PathSafety, AnUnknownUserNameIsRefused)
{
    const std::string path = folder("mine", 0700);
    EXPECT_FALSE(QELSecurity::makePathOK(path, ""));
    EXPECT_FALSE(QELSecurity::makePathOK(path, "no-such-user-here"));
}

TEST_F(PathSafety, APathIsRefusedWhenItsPermissionsCannotBeRead)
{
    const std::string path = folder("mine", 0777);
    testsupport::useCommandLineSettings({"-AppType", "Path Test", "-ForceError", "1950"});
    EXPECT_FALSE(isSafeForMe(path));
    EXPECT_EQ(modeOf(path), 0777U);
}

TEST_F(PathSafety, APathIsRefusedWhenItsRepairCannotBeWritten)
{
    const std::string path = folder("mine", 0777);
    testsupport::useCommandLineSettings({"-AppType", "Path Test", "-ForceError", "1952"});
    EXPECT_FALSE(isSafeForMe(path));
    EXPECT_EQ(modeOf(path), 0777U);
}

TEST_F(PathSafety, TheModeReadBackAfterTheRepairDecides)
{
    // The first read and its two consultations pass; the read after the
    // repair fails, so the repaired path is still refused.
    const std::string path = folder("mine", 0777);
    testsupport::useCommandLineSettings({"-AppType", "Path Test", "-ForceError", "1950", "-ForceErrorSkipCount", "2"});
    EXPECT_FALSE(isSafeForMe(path));
    EXPECT_EQ(modeOf(path), 0755U);
}

TEST_F(PathSafety, ASymbolicLinkOrAPathWithoutTypeCountsAsALink)
{
    const std::string target = file("file", 0644);
    ASSERT_EQ(::symlink(target.c_str(), dir.at("link").c_str()), 0);
    EXPECT_TRUE(QELSecurity::fileIsSymbolicLink(dir.at("link")));
    EXPECT_TRUE(QELSecurity::fileIsSymbolicLink(dir.at("missing")));
    EXPECT_FALSE(QELSecurity::fileIsSymbolicLink(target));
    EXPECT_FALSE(QELSecurity::fileIsSymbolicLink(dir.path()));
}

TEST_F(PathSafety, DesiredDirectoryAndFileAttributesAreBothMode0700)
{
    const auto directory = QELSecurity::desiredDirectoryAttributes();
    const auto file = QELSecurity::desiredFileAttributes();
    EXPECT_EQ(directory.size(), 1U);
    EXPECT_EQ(file.size(), 1U);
    EXPECT_EQ(platform::numberForKey(directory, platform::kFilePosixPermissions), 0700U);
    EXPECT_EQ(platform::numberForKey(file, platform::kFilePosixPermissions), 0700U);
}

// The owner of a folder on the path swaps it for a link to a folder of
// root's, as fast as it can, while root repairs the owner's file on that
// path again and again: the repair judged on one item must never land on the
// file of the same name behind the link (root's file would take the mode of
// the owner's, 0644, and become readable to all).
TEST_F(PathSafety, ARepairNeverReachesTheFileBehindAFolderSwappedForALinkMeanwhile)
{
    ASSERT_EQ(::geteuid(), 0U) << "the suite runs as root";
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    const std::string victim = folder("victim", 0755);
    const std::string secret = file("victim/x", 0600);
    const std::string owned = folder("owned", 0755);
    testsupport::writeFile(owned + "/A/x", "mine");
    ASSERT_EQ(::chmod((owned + "/A/x").c_str(), 0666), 0);
    ASSERT_EQ(::symlink(victim.c_str(), (owned + "/B").c_str()), 0);
    for (const std::string& item : {owned, owned + "/A", owned + "/A/x"}) {
        ASSERT_EQ(::chown(item.c_str(), testsupport::kUnprivilegedUser, testsupport::kUnprivilegedGroup), 0);
    }
    ASSERT_EQ(::lchown((owned + "/B").c_str(), testsupport::kUnprivilegedUser, testsupport::kUnprivilegedGroup), 0);
    const std::optional<std::string> owner = platform::accountNameForUserID(testsupport::kUnprivilegedUser);
    ASSERT_TRUE(owner);

    testsupport::FolderSwapper swapper(owned, "x");
    for (int round = 0; round < 10000 && modeOf(secret) == 0600U; ++round) {
        static_cast<void>(QELSecurity::makePathOK(owned + "/A/x", *owner));
    }
    EXPECT_GT(swapper.stop(), 0U) << "the folder was never swapped";
    EXPECT_EQ(modeOf(secret), 0600U);
}

}  // namespace
