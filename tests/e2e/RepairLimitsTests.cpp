// What qelutil's permission repairs (path-ok, and the checks of mkdirs) leave
// alone when run as root inside the sandbox: the protected folders (/tmp,
// /var/tmp, ...) and anything in the system's trees (here the fixture's
// /usr/sbin, which lies below /usr) keep their modes and the answer is NO
// with the reason on standard error; a folder of the user's own is still
// repaired.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/support/FolderSwapper.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/Sandbox.h"

namespace {

using testsupport::Layout;
using testsupport::layoutName;
using testsupport::RunResult;
using testsupport::Sandbox;

constexpr char kRepairProbe[] = REMOVER_REPAIR_PROBE_PATH;

class RepairLimitsTest : public testing::TestWithParam<Layout> {
protected:
    // Runs a shell script inside the sandbox with qelutil as $0.
    RunResult script(const std::string& text) const
    {
        return theSandbox.runProgram("/bin/sh", {"-c", text, Sandbox::kQelutilPath});
    }

    // The line the repair writes on standard error for path.
    static std::string leftAsItIs(const std::string& path, const std::string& reason)
    {
        return "encountered error \"the permissions of " + path + " are left as they are: " + reason + "\"";
    }

    static bool contains(const std::string& text, const std::string& part)
    {
        return text.find(part) != std::string::npos;
    }

    Sandbox theSandbox{GetParam()};
};

TEST_P(RepairLimitsTest, TmpKeepsItsStickyWorldWritableMode)
{
    const RunResult result = script("chmod 1777 /tmp && \"$0\" path-ok /tmp; stat -c %a /tmp");
    EXPECT_EQ(result.standardOutput, "NO\n1777\n") << result.standardError;
    EXPECT_TRUE(contains(result.standardError, leftAsItIs("/tmp", "a protected system folder")))
        << result.standardError;
}

TEST_P(RepairLimitsTest, VarTmpKeepsItsModeWhenFoldersAreMadeBelowIt)
{
    // /var needs no repair and is passed as it is; /var/tmp would need one.
    const RunResult result = script("mkdir -p /var/tmp && chmod 0755 /var && chmod 1777 /var/tmp && "
                                    "\"$0\" mkdirs /var/tmp/a/b /; \"$0\" mkdirs /var/tmp/a/b /var; "
                                    "stat -c %a /var /var/tmp; ls -A /var/tmp");
    EXPECT_EQ(result.standardOutput, "NO\nNO\n755\n1777\n") << result.standardError;
    EXPECT_TRUE(contains(result.standardError, leftAsItIs("/var/tmp", "a protected system folder")))
        << result.standardError;
    EXPECT_FALSE(contains(result.standardError, "the permissions of /var are")) << result.standardError;
}

TEST_P(RepairLimitsTest, AProtectedFolderThatNeedsNoRepairIsAcceptedAsItIs)
{
    const RunResult result =
        script("mkdir -p /var/tmp && chmod 0755 /var && \"$0\" path-ok /var; stat -c '%a %Z' /var; "
               "sleep 1.1; \"$0\" path-ok /var; stat -c '%a %Z' /var");
    // Nothing is written: not even the change time moves.
    const std::string& out = result.standardOutput;
    ASSERT_EQ(out.substr(0, 8), "YES\n755 ") << result.standardError;
    const std::string first = out.substr(4, out.find('\n', 4) - 4);
    EXPECT_EQ(out, "YES\n" + first + "\nYES\n" + first + "\n");
    EXPECT_FALSE(contains(result.standardError, "are left as they are")) << result.standardError;
}

TEST_P(RepairLimitsTest, ASetUidFileBelowUsrKeepsItsBit)
{
    // /usr/sbin is the fixture's own folder, bound below the host's /usr.
    const RunResult result = script(": >/usr/sbin/tool && chmod 4775 /usr/sbin/tool && "
                                    "\"$0\" path-ok /usr/sbin/tool; stat -c %a /usr/sbin/tool");
    EXPECT_EQ(result.standardOutput, "NO\n4775\n") << result.standardError;
    EXPECT_TRUE(contains(result.standardError, leftAsItIs("/usr/sbin/tool", "it lies in the system's tree /usr")))
        << result.standardError;
}

TEST_P(RepairLimitsTest, AWritableFolderBelowUsrIsNeitherRepairedNorUsedToMakeFolders)
{
    const RunResult result = script("mkdir /usr/sbin/shared && chmod 0777 /usr/sbin/shared && "
                                    "\"$0\" path-ok /usr/sbin/shared; \"$0\" mkdirs /usr/sbin/shared/a /usr/sbin; "
                                    "stat -c %a /usr/sbin/shared; ls -A /usr/sbin/shared");
    EXPECT_EQ(result.standardOutput, "NO\nNO\n777\n") << result.standardError;
    EXPECT_TRUE(contains(result.standardError, leftAsItIs("/usr/sbin/shared", "it lies in the system's tree /usr")))
        << result.standardError;
}

TEST_P(RepairLimitsTest, ALinkOnTheWayDoesNotHideThatAFileLiesBelowUsr)
{
    const RunResult result = script(": >/usr/sbin/tool && chmod 4775 /usr/sbin/tool && "
                                    "ln -s /usr/sbin /root/tools && \"$0\" path-ok /root/tools/tool; "
                                    "stat -c %a /usr/sbin/tool");
    EXPECT_EQ(result.standardOutput, "NO\n4775\n") << result.standardError;
    EXPECT_TRUE(contains(result.standardError, leftAsItIs("/root/tools/tool", "it lies in the system's tree /usr")))
        << result.standardError;
}

TEST_P(RepairLimitsTest, ASetUidProgramInBinKeepsItsBit)
{
    const RunResult result = script(": >/bin/su && chmod 4755 /bin/su && \"$0\" path-ok /bin/su; stat -c %a /bin/su");
    EXPECT_EQ(result.standardOutput, "NO\n4755\n") << result.standardError;
    EXPECT_TRUE(contains(result.standardError, leftAsItIs("/bin/su", "it lies in the system's tree /bin")))
        << result.standardError;
}

TEST_P(RepairLimitsTest, AFolderOfTheUsersOwnIsStillRepaired)
{
    const RunResult result = script("mkdir -p /root/own/sub && chmod 0777 /root/own && chmod 4775 /root/own/sub && "
                                    "\"$0\" path-ok /root/own; \"$0\" path-ok /root/own/sub; "
                                    "stat -c %a /root/own /root/own/sub");
    EXPECT_EQ(result.standardOutput, "YES\nYES\n755\n755\n") << result.standardError;
    EXPECT_FALSE(contains(result.standardError, "are left as they are")) << result.standardError;
}

TEST_P(RepairLimitsTest, FoldersAreStillMadeBelowAFolderOfTheUsersOwn)
{
    const RunResult result = script("mkdir -p /tmp/mine && chmod 0777 /tmp/mine && "
                                    "\"$0\" mkdirs /tmp/mine/a/b /tmp; stat -c %a /tmp/mine /tmp/mine/a /tmp/mine/a/b");
    EXPECT_EQ(result.standardOutput, "YES\n755\n700\n700\n") << result.standardError;
}

TEST_P(RepairLimitsTest, AFinalLinkIsNotFollowedAndWhatItLeadsToKeepsItsMode)
{
    const RunResult result = script(": >/root/open && chmod 0666 /root/open && ln -s /root/open /root/link && "
                                    "\"$0\" path-ok /root/link; stat -c %a /root/open");
    EXPECT_EQ(result.standardOutput, "NO\n666\n") << result.standardError;
}

TEST_P(RepairLimitsTest, DotDotAtTheEndNamesTheProtectedFolderAboveAndItKeepsItsMode)
{
    const RunResult result = script("chmod 1777 /tmp && mkdir -p /tmp/x && \"$0\" path-ok /tmp/x/..; stat -c %a /tmp");
    EXPECT_EQ(result.standardOutput, "NO\n1777\n") << result.standardError;
    EXPECT_TRUE(contains(result.standardError, leftAsItIs("/tmp/x/..", "a protected system folder")))
        << result.standardError;
}

TEST_P(RepairLimitsTest, AProtectedFolderReachedThroughABindMountOfItsDiskKeepsItsMode)
{
    // /Applications/LibraryView shows /Library again, on the same disk.
    theSandbox.makeDirectory("/Library/Fonts");
    theSandbox.bindFolder("/Library", "/Applications/LibraryView");
    const RunResult result = script("chmod 0777 /Library/Fonts && \"$0\" path-ok /Applications/LibraryView/Fonts; "
                                    "stat -c %a /Library/Fonts");
    EXPECT_EQ(result.standardOutput, "NO\n777\n") << result.standardError;
    EXPECT_TRUE(
        contains(result.standardError, "the permissions of /Applications/LibraryView/Fonts are left as they are"))
        << result.standardError;
}

// nobody owns /Library/att, holding its folder A (with its file x, mode
// 0666) and a link B to root's folder /Library/Victim (with root's file x,
// mode 0600), and swaps A and B as fast as it can while root repairs
// /Library/att/A/x for nobody 20,000 times: every repair judged on nobody's
// file must land on it, never on root's file behind the link.
TEST_P(RepairLimitsTest, AMiddleFolderSwappedForALinkNeverTurnsTheRepairOntoAnotherFile)
{
    theSandbox.writeFile("/Library/Victim/x", "root's", 0600);
    theSandbox.writeFile("/Library/att/A/x", "nobody's", 0666);
    ASSERT_EQ(::chmod(theSandbox.hostPath("/Library/att/A/x").c_str(), 0666), 0);
    theSandbox.makeSymlink("/Library/att/B", "/Library/Victim");
    for (const char* path : {"/Library/att", "/Library/att/A", "/Library/att/A/x", "/Library/att/B"}) {
        ASSERT_EQ(::lchown(theSandbox.hostPath(path).c_str(), testsupport::kUnprivilegedUser,
                           testsupport::kUnprivilegedGroup),
                  0)
            << path;
    }
    theSandbox.useBundleCopy();
    const std::string probe = std::string(Sandbox::kBundlePath) + "/Contents/MacOS/repair-probe";
    std::filesystem::copy_file(kRepairProbe, theSandbox.hostPath(probe));

    RunResult result;
    std::uint64_t swaps = 0;
    {
        testsupport::FolderSwapper swapper(theSandbox.hostPath("/Library/att"), "x");
        result = theSandbox.runProgram(probe, {"nobody", "20000", "/Library/att/A/x"});
        swaps = swapper.stop();
    }
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
    struct stat victim {};
    ASSERT_EQ(::lstat(theSandbox.hostPath("/Library/Victim/x").c_str(), &victim), 0);
    EXPECT_EQ(victim.st_mode & 07777, 0600U) << result.standardOutput;
    EXPECT_EQ(victim.st_uid, 0U);
    EXPECT_EQ(theSandbox.readFile("/Library/Victim/x"), "root's");
    // Both sides of the swap were met: nobody's file was repaired.
    EXPECT_GT(swaps, 0U);
    EXPECT_TRUE(contains(result.standardOutput, " YES\n")) << result.standardOutput;
    // The swaps leave the real folder under either name.
    const std::string real =
        std::filesystem::is_symlink(theSandbox.hostPath("/Library/att/A")) ? "/Library/att/B" : "/Library/att/A";
    struct stat own {};
    ASSERT_EQ(::lstat(theSandbox.hostPath(real + "/x").c_str(), &own), 0);
    EXPECT_EQ(own.st_mode & 07777, 0644U);
}

INSTANTIATE_TEST_SUITE_P(RepairLimits, RepairLimitsTest, testing::Values(Layout::SeparateMounts, Layout::SingleDisk),
                         [](const testing::TestParamInfo<Layout>& info) { return layoutName(info.param); });

}  // namespace
