// The path and permission commands of qelutil, run as scripts run them:
// inside the sandbox over a fixture, as root and as unprivileged users.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/FileModes.h"
#include "tests/support/Sandbox.h"

namespace {

using testsupport::RunResult;
using testsupport::Sandbox;

constexpr testsupport::User kNobody{65534, 65534};
constexpr testsupport::User kDaemon{1, 1};
const std::string kAllBitsSet = "18446744073709551615";

class PathCommand : public testing::Test {
protected:
    RunResult qelutil(const std::vector<std::string>& arguments) const
    {
        return sandbox.runProgram(Sandbox::kQelutilPath, arguments);
    }
    // Another user cannot reach the bundle at /opt inside the sandbox (bwrap
    // makes /opt accessible to root only), so those runs use a copy of the
    // bundle in the fixture's /Applications.
    RunResult qelutilAs(testsupport::User user, const std::vector<std::string>& arguments) const
    {
        const std::string copy = "/Applications/RemoverTool.app";
        if (!sandbox.exists(copy)) {
            std::filesystem::copy(REMOVER_BUNDLE_PATH, sandbox.hostPath(copy),
                                  std::filesystem::copy_options::recursive);
        }
        return sandbox.runProgramAs(user, copy + "/Contents/MacOS/qelutil", arguments);
    }

    mode_t modeOf(const std::string& path) const { return testsupport::modeOf(sandbox.hostPath(path)); }
    void chown(const std::string& path, testsupport::User user) const
    {
        ASSERT_EQ(::lchown(sandbox.hostPath(path).c_str(), user.uid, user.gid), 0) << path;
    }

    static bool mentions(const std::string& text, const std::string& part)
    {
        return text.find(part) != std::string::npos;
    }
    static bool loggedCode(const RunResult& result, int code)
    {
        return mentions(result.standardError, "encountered errorCode " + std::to_string(code) + "\n");
    }

    Sandbox sandbox;
};

void expectUsage(const RunResult& result, const std::string& usage)
{
    EXPECT_EQ(result.exitStatus, 64) << result.standardError;
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_NE(result.standardError.find("usage: qelutil " + usage), std::string::npos) << result.standardError;
}

// Command lines ------------------------------------------------------------------

TEST_F(PathCommand, EachCommandWithTheWrongNumberOfArgumentsPrintsItsUsageAndExits64)
{
    expectUsage(qelutil({"mkdirs", "/Library/a"}), "mkdirs PATH BASE [skip-check]");
    expectUsage(qelutil({"path-ok"}), "path-ok PATH [USER]");
    expectUsage(qelutil({"path-ok", "/Library", "root", "extra"}), "path-ok PATH [USER]");
    expectUsage(qelutil({"delete", "/Library/a"}), "delete PATH CODE");
    expectUsage(qelutil({"file-size"}), "file-size PATH");
    expectUsage(qelutil({"permissions", "/Library", "/root"}), "permissions PATH");
}

TEST_F(PathCommand, MkdirsTakesOnlySkipCheckAsItsThirdArgument)
{
    expectUsage(qelutil({"mkdirs", "/Library/a", "/Library", "yes"}), "mkdirs PATH BASE [skip-check]");
    EXPECT_FALSE(sandbox.exists("/Library/a"));
}

TEST_F(PathCommand, DeleteTakesOnlyAWholeNumberAsItsCode)
{
    sandbox.writeFile("/Library/file", "x");
    expectUsage(qelutil({"delete", "/Library/file", "12x"}), "delete PATH CODE");
    EXPECT_TRUE(sandbox.exists("/Library/file"));
}

TEST_F(PathCommand, TheGeneralUsageListsThePathCommands)
{
    const RunResult result = qelutil({});
    EXPECT_EQ(result.exitStatus, 64);
    for (const char* usage : {"mkdirs PATH BASE [skip-check]", "path-ok PATH [USER]", "delete PATH CODE",
                              "file-size PATH", "permissions PATH"}) {
        EXPECT_TRUE(mentions(result.standardError, usage)) << usage;
    }
}

// file-size and permissions --------------------------------------------------------

TEST_F(PathCommand, FileSizePrintsTheSizeAndStatusZero)
{
    sandbox.writeFile("/Library/file", "twelve bytes");
    const RunResult result = qelutil({"file-size", "/Library/file"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "12 0\n");
}

TEST_F(PathCommand, FileSizeOfAMissingFileIsAllBitsSetWithStatus1953)
{
    const RunResult result = qelutil({"file-size", "/Library/missing"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.standardOutput, kAllBitsSet + " 1953\n");
    EXPECT_TRUE(loggedCode(result, 1953)) << result.standardError;
}

TEST_F(PathCommand, FileSizeWithASkipCountPassesTheLoggedCheckAndFailsTheStatusCheck)
{
    sandbox.writeFile("/Library/file", "present");
    const RunResult result =
        qelutil({"file-size", "/Library/file", "-ForceError", "1953", "-ForceErrorSkipCount", "1"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.standardOutput, kAllBitsSet + " 1953\n");
    EXPECT_TRUE(mentions(result.standardError, "Error 1953 forced for testing but count only 1 out of 2\n"))
        << result.standardError;
    EXPECT_TRUE(mentions(result.standardError, "Error 1953 forced for testing\n")) << result.standardError;
    EXPECT_FALSE(loggedCode(result, 1953)) << result.standardError;
}

TEST_F(PathCommand, FileSizeWithTheSizeCheckForcedIsAllBitsSetWithStatus1954)
{
    sandbox.writeFile("/Library/file", "present");
    const RunResult result = qelutil({"file-size", "/Library/file", "-ForceError", "1954"});
    EXPECT_EQ(result.standardOutput, kAllBitsSet + " 1954\n");
    EXPECT_TRUE(loggedCode(result, 1954)) << result.standardError;
}

TEST_F(PathCommand, FileSizeOfALinkIsTheLinksOwn)
{
    sandbox.writeFile("/Library/target", "a rather longer text");
    sandbox.makeSymlink("/Library/link", "target");
    EXPECT_EQ(qelutil({"file-size", "/Library/link"}).standardOutput, "6 0\n");
}

TEST_F(PathCommand, PermissionsPrintsTheOctalModeWithSpecialBitsAndStatusZero)
{
    sandbox.makeDirectory("/Library/sticky", 01777);
    sandbox.writeFile("/Library/setuid", "x", 04755);
    sandbox.writeFile("/Library/private", "x", 0600);
    EXPECT_EQ(qelutil({"permissions", "/Library/sticky"}).standardOutput, "1777 0\n");
    EXPECT_EQ(qelutil({"permissions", "/Library/setuid"}).standardOutput, "4755 0\n");
    EXPECT_EQ(qelutil({"permissions", "/Library/private"}).standardOutput, "0600 0\n");
}

TEST_F(PathCommand, PermissionsOfALinkAreTheLinksOwnNotTheTargets)
{
    sandbox.writeFile("/Library/target", "x", 0600);
    sandbox.makeSymlink("/Library/link", "target");
    EXPECT_EQ(qelutil({"permissions", "/Library/link"}).standardOutput, "0777 0\n");
}

TEST_F(PathCommand, PermissionsOfAMissingPathAreZeroWithStatus1950)
{
    const RunResult result = qelutil({"permissions", "/Library/missing"});
    EXPECT_EQ(result.standardOutput, "0000 1950\n");
    EXPECT_TRUE(loggedCode(result, 1950)) << result.standardError;
}

TEST_F(PathCommand, PermissionsWithTheNumberCheckForcedAreZeroWithStatus1951)
{
    sandbox.writeFile("/Library/file", "x", 0644);
    const RunResult result = qelutil({"permissions", "/Library/file", "-ForceError", "1951"});
    EXPECT_EQ(result.standardOutput, "0000 1951\n");
    EXPECT_TRUE(loggedCode(result, 1951)) << result.standardError;
}

// delete -----------------------------------------------------------------------

TEST_F(PathCommand, DeleteRemovesAFolderWithEverythingInIt)
{
    sandbox.writeFile("/Library/Logs/Corvane/Updater/a.log", "x");
    const RunResult result = qelutil({"delete", "/Library/Logs/Corvane", "1865"});
    EXPECT_EQ(result.standardOutput, "YES\n");
    EXPECT_FALSE(sandbox.exists("/Library/Logs/Corvane"));
}

TEST_F(PathCommand, DeleteOfAProtectedFolderSaysNoAndKeepsIt)
{
    sandbox.writeFile("/Library/Logs/Corvane/a.log", "x");
    const RunResult result = qelutil({"delete", "/Library/Logs", "1865"});
    EXPECT_EQ(result.standardOutput, "NO\n");
    EXPECT_TRUE(sandbox.exists("/Library/Logs/Corvane/a.log"));
    EXPECT_NE(result.standardError.find("not removed: /Library/Logs: a protected system folder"), std::string::npos)
        << result.standardError;
}

TEST_F(PathCommand, DeleteOfAMissingPathSaysYesAndLogsNothing)
{
    const RunResult result = qelutil({"delete", "/Library/missing", "1865"});
    EXPECT_EQ(result.standardOutput, "YES\n");
    EXPECT_EQ(result.standardError, "");
}

TEST_F(PathCommand, DeleteOfAnEmptyPathSaysNoAndLogsTheCode)
{
    const RunResult result = qelutil({"delete", "", "1865"});
    EXPECT_EQ(result.standardOutput, "NO\n");
    EXPECT_TRUE(loggedCode(result, 1865)) << result.standardError;
}

TEST_F(PathCommand, DeleteWithItsCodeForcedKeepsTheFileAndSaysNo)
{
    sandbox.writeFile("/Library/file", "x");
    const RunResult result = qelutil({"delete", "/Library/file", "1864", "-ForceError", "1864"});
    EXPECT_EQ(result.standardOutput, "NO\n");
    EXPECT_TRUE(sandbox.exists("/Library/file"));
    EXPECT_TRUE(loggedCode(result, 1864)) << result.standardError;
}

TEST_F(PathCommand, DeleteOfALinkRemovesTheLinkAndKeepsItsTarget)
{
    sandbox.writeFile("/Library/real/file", "x");
    sandbox.makeSymlink("/Library/link", "/Library/real");
    EXPECT_EQ(qelutil({"delete", "/Library/link", "1865"}).standardOutput, "YES\n");
    EXPECT_FALSE(sandbox.exists("/Library/link"));
    EXPECT_TRUE(sandbox.exists("/Library/real/file"));
}

TEST_F(PathCommand, DeleteOfAPathEndingInDotDotRemovesNothing)
{
    sandbox.writeFile("/Library/top/sub/file", "x");
    const RunResult result = qelutil({"delete", "/Library/top/sub/..", "1865"});
    EXPECT_EQ(result.standardOutput, "NO\n");
    EXPECT_TRUE(sandbox.exists("/Library/top/sub/file"));
    EXPECT_TRUE(loggedCode(result, 1865));
}

TEST_F(PathCommand, DeleteThatRootCouldDoFailsForAnUnprivilegedUser)
{
    sandbox.writeFile("/Library/Shared/file", "x");
    const RunResult user = qelutilAs(kNobody, {"delete", "/Library/Shared/file", "1865"});
    EXPECT_EQ(user.standardOutput, "NO\n");
    EXPECT_TRUE(loggedCode(user, 1865)) << user.standardError;
    EXPECT_TRUE(sandbox.exists("/Library/Shared/file"));
    EXPECT_NE(user.standardError.find("not removed: /Library/Shared/file: Permission denied"), std::string::npos)
        << user.standardError;
    EXPECT_EQ(qelutil({"delete", "/Library/Shared/file", "1865"}).standardOutput, "YES\n");
    EXPECT_FALSE(sandbox.exists("/Library/Shared/file"));
}

// mkdirs -------------------------------------------------------------------------

TEST_F(PathCommand, MkdirsCreatesEachMissingDirectoryWithMode0700UnderUmask0277)
{
    sandbox.makeDirectory("/root/Library", 0755);
    const RunResult result = sandbox.runProgram(
        "/bin/sh", {"-c", "umask 0277 && exec \"$0\" mkdirs /root/Library/Logs/Corvane /root", Sandbox::kQelutilPath});
    EXPECT_EQ(result.standardOutput, "YES\n") << result.standardError;
    EXPECT_EQ(modeOf("/root/Library/Logs"), 0700U);
    EXPECT_EQ(modeOf("/root/Library/Logs/Corvane"), 0700U);
    EXPECT_EQ(modeOf("/root/Library"), 0755U);
}

TEST_F(PathCommand, MkdirsBelowAPlainFileCreatesNothingAndSaysNo)
{
    sandbox.writeFile("/Library/a", "x");
    const RunResult result = qelutil({"mkdirs", "/Library/a/b/c", "/Library"});
    EXPECT_EQ(result.standardOutput, "NO\n");
    EXPECT_TRUE(loggedCode(result, 1537)) << result.standardError;
    EXPECT_EQ(sandbox.tree("/Library"), std::vector<std::string>{"f /Library/a"});
}

TEST_F(PathCommand, MkdirsRefusesALinkToADirectoryUnlessSkipCheckIsGiven)
{
    sandbox.makeDirectory("/Library/real", 0755);
    sandbox.makeSymlink("/Library/a", "/Library/real");
    const RunResult checked = qelutil({"mkdirs", "/Library/a/b", "/Library"});
    EXPECT_EQ(checked.standardOutput, "NO\n");
    EXPECT_TRUE(loggedCode(checked, 1537)) << checked.standardError;
    EXPECT_FALSE(sandbox.exists("/Library/real/b"));
    EXPECT_EQ(qelutil({"mkdirs", "/Library/a/b", "/Library", "skip-check"}).standardOutput, "YES\n");
    EXPECT_TRUE(sandbox.exists("/Library/real/b"));
}

TEST_F(PathCommand, MkdirsAcceptsADirectoryOfAnotherUserOnlyWithSkipCheck)
{
    sandbox.makeDirectory("/Library/theirs", 0777);
    chown("/Library/theirs", kNobody);
    EXPECT_EQ(qelutil({"mkdirs", "/Library/theirs/b", "/Library"}).standardOutput, "NO\n");
    EXPECT_FALSE(sandbox.exists("/Library/theirs/b"));
    EXPECT_EQ(modeOf("/Library/theirs"), 0777U);
    EXPECT_EQ(qelutil({"mkdirs", "/Library/theirs/b", "/Library", "skip-check"}).standardOutput, "YES\n");
    EXPECT_TRUE(sandbox.exists("/Library/theirs/b"));
}

TEST_F(PathCommand, MkdirsThatRootCouldDoFailsWith1538ForAnUnprivilegedUser)
{
    sandbox.makeDirectory("/Library/Logs", 0755);
    const RunResult user = qelutilAs(kNobody, {"mkdirs", "/Library/Logs/Corvane", "/Library", "skip-check"});
    EXPECT_EQ(user.standardOutput, "NO\n");
    EXPECT_TRUE(loggedCode(user, 1538)) << user.standardError;
    EXPECT_FALSE(sandbox.exists("/Library/Logs/Corvane"));
    EXPECT_EQ(qelutil({"mkdirs", "/Library/Logs/Corvane", "/Library"}).standardOutput, "YES\n");
}

TEST_F(PathCommand, MkdirsAsAUserChecksExistingDirectoriesForThatUser)
{
    sandbox.makeDirectory("/Library/Users", 0777);
    sandbox.makeDirectory("/Library/Users/nobody", 0777);
    chown("/Library/Users/nobody", kNobody);
    // /Library/Users is root's: the check fails for nobody, although nobody
    // could create below it.
    const RunResult refused = qelutilAs(kNobody, {"mkdirs", "/Library/Users/nobody/Logs", "/Library"});
    EXPECT_EQ(refused.standardOutput, "NO\n");
    EXPECT_FALSE(sandbox.exists("/Library/Users/nobody/Logs"));
    const RunResult accepted = qelutilAs(kNobody, {"mkdirs", "/Library/Users/nobody/Logs", "/Library/Users"});
    EXPECT_EQ(accepted.standardOutput, "YES\n") << accepted.standardError;
    EXPECT_EQ(modeOf("/Library/Users/nobody"), 0755U);
    EXPECT_EQ(modeOf("/Library/Users/nobody/Logs"), 0700U);
}

TEST_F(PathCommand, MkdirsWithADotDotComponentSaysNoAndLeavesTheFolderAbove)
{
    sandbox.makeDirectory("/Library/base/a", 0755);
    sandbox.makeDirectory("/Library", 0777);
    const RunResult result = qelutil({"mkdirs", "/Library/base/a/../../b", "/Library/base"});
    EXPECT_EQ(result.standardOutput, "NO\n");
    EXPECT_FALSE(sandbox.exists("/Library/b"));
    EXPECT_EQ(modeOf("/Library"), 0777U);
}

TEST_F(PathCommand, MkdirsWith1538ForcedStopsAfterTheFirstDirectory)
{
    // The check follows the creation: the first directory is made, its check
    // fails, and nothing below it is made.
    const RunResult result = qelutil({"mkdirs", "/Library/a/b", "/Library", "-ForceError", "1538"});
    EXPECT_EQ(result.standardOutput, "NO\n");
    EXPECT_TRUE(loggedCode(result, 1538));
    EXPECT_TRUE(sandbox.exists("/Library/a"));
    EXPECT_FALSE(sandbox.exists("/Library/a/b"));
}

// path-ok ------------------------------------------------------------------------

TEST_F(PathCommand, PathOkRepairsAnOpenDirectoryOfTheCurrentUser)
{
    sandbox.makeDirectory("/Library/open", 0777);
    EXPECT_EQ(qelutil({"path-ok", "/Library/open"}).standardOutput, "YES\n");
    EXPECT_EQ(modeOf("/Library/open"), 0755U);
}

TEST_F(PathCommand, PathOkRefusesAPathOfAnotherUserAndLeavesItsMode)
{
    sandbox.makeDirectory("/Library/theirs", 0777);
    chown("/Library/theirs", kNobody);
    EXPECT_EQ(qelutil({"path-ok", "/Library/theirs"}).standardOutput, "NO\n");
    EXPECT_EQ(qelutil({"path-ok", "/Library/theirs", "root"}).standardOutput, "NO\n");
    EXPECT_EQ(modeOf("/Library/theirs"), 0777U);
}

TEST_F(PathCommand, PathOkForAUserPassesAsRootAndFailsAsAnotherUnprivilegedUser)
{
    sandbox.makeDirectory("/Library/theirs", 0777);
    chown("/Library/theirs", kNobody);
    // daemon may not change nobody's folder: the repair fails with 1952.
    const RunResult other = qelutilAs(kDaemon, {"path-ok", "/Library/theirs", "nobody"});
    EXPECT_EQ(other.standardOutput, "NO\n");
    EXPECT_TRUE(loggedCode(other, 1952)) << other.standardError;
    EXPECT_EQ(modeOf("/Library/theirs"), 0777U);
    EXPECT_EQ(qelutil({"path-ok", "/Library/theirs", "nobody"}).standardOutput, "YES\n");
    EXPECT_EQ(modeOf("/Library/theirs"), 0755U);
}

TEST_F(PathCommand, PathOkAsAnUnprivilegedUserAcceptsItsOwnPath)
{
    sandbox.writeFile("/Library/mine", "x", 04777);
    chown("/Library/mine", kNobody);
    ASSERT_EQ(::chmod(sandbox.hostPath("/Library/mine").c_str(), 04777), 0);
    EXPECT_EQ(qelutilAs(kNobody, {"path-ok", "/Library/mine"}).standardOutput, "YES\n");
    EXPECT_EQ(modeOf("/Library/mine"), 0755U);
}

TEST_F(PathCommand, PathOkRefusesALinkAndAMissingPath)
{
    sandbox.makeDirectory("/Library/safe", 0777);
    sandbox.makeSymlink("/Library/link", "/Library/safe");
    EXPECT_EQ(qelutil({"path-ok", "/Library/link"}).standardOutput, "NO\n");
    EXPECT_EQ(modeOf("/Library/safe"), 0777U);
    EXPECT_EQ(qelutil({"path-ok", "/Library/missing"}).standardOutput, "NO\n");
}

}  // namespace
