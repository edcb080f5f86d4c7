// The end-to-end harness itself: the fixture seen from inside the sandbox,
// the tool doubles with their journal and databases, and the library double.
#include "tests/support/Sandbox.h"

#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using testsupport::JournalEntry;
using testsupport::Layout;
using testsupport::RunResult;
using testsupport::Sandbox;

RunResult shell(const Sandbox& sandbox, const std::string& script, const testsupport::Environment& environment = {})
{
    return sandbox.runProgram("/bin/sh", {"-c", script}, environment);
}

std::string describe(const RunResult& result)
{
    return "status " + std::to_string(result.exitStatus) + "\nstdout:\n" + result.standardOutput + "\nstderr:\n" +
           result.standardError;
}

TEST(SandboxTest, FixtureFoldersAreWhatTheProgramSeesAtApplicationsLibraryAndHome)
{
    Sandbox sandbox;
    sandbox.writeFile("/Applications/Corvane Lumidoc X Pro/marker", "A");
    sandbox.writeFile("/Library/Preferences/marker", "L");
    sandbox.writeFile("~/Library/marker", "H");

    const RunResult result =
        shell(sandbox, "cat '/Applications/Corvane Lumidoc X Pro/marker' /Library/Preferences/marker "
                       "/root/Library/marker && echo made >/Library/inside && mkdir /root/Made");

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, "ALH");
    EXPECT_EQ(sandbox.readFile("/Library/inside"), "made\n");
    EXPECT_TRUE(sandbox.exists("/root/Made"));
}

TEST(SandboxTest, PasswordDatabaseGivesRootTheFixtureHomeWhateverHomeSays)
{
    Sandbox sandbox;
    sandbox.writeFile("/root/home-marker", "");

    const RunResult result =
        shell(sandbox, "home=$(getent passwd \"$(id -u)\" | cut -d: -f6) && echo \"$home\" && ls \"$home\"",
              {{"HOME", "/nonexistent"}});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, "/root\nhome-marker\n");
}

TEST(SandboxTest, SystemToolFoldersHoldOnlyTheDoubles)
{
    Sandbox sandbox;

    const RunResult result = shell(sandbox, "ls /usr/sbin; ls /bin; readlink /bin/sh");

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, "pkgutil\nlaunchctl\nsh\n/usr/bin/sh\n");
}

TEST(SandboxTest, EnvironmentInsideIsCleanWithTheVariablesTheTestSets)
{
    Sandbox sandbox;

    const RunResult result =
        shell(sandbox, "echo \"$HOME|$PATH|$USER|$EXTRA|${TMPDIR-unset}\"; pwd", {{"EXTRA", "two  blanks"}});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, "/root|/usr/bin:/bin|root|two  blanks|unset\n/\n");
}

TEST(SandboxTest, BuiltBundleIsMountedReadOnlyAtOpt)
{
    Sandbox sandbox;

    const RunResult result = shell(sandbox, "test -x /opt/RemoverTool.app/Contents/MacOS/RemoverTool && "
                                            "test -x /opt/RemoverTool.app/Contents/MacOS/qelutil && "
                                            "test -f /opt/RemoverTool.app/Contents/Info.plist && "
                                            "! touch /opt/RemoverTool.app/Contents/x 2>/dev/null");

    EXPECT_EQ(result.exitStatus, 0) << describe(result);
}

TEST(SandboxTest, BundleCopyCarriesTheLibraryDoubleAndTheTestsChanges)
{
    Sandbox sandbox;
    sandbox.installLibraryDouble();
    sandbox.remove("/opt/RemoverTool.app/Contents/Info.plist");

    const RunResult result = shell(sandbox, "test -f /opt/RemoverTool.app/Contents/Frameworks/CorvaneHOV.dylib && "
                                            "test -x /opt/RemoverTool.app/Contents/MacOS/RemoverTool && "
                                            "! test -e /opt/RemoverTool.app/Contents/Info.plist");

    EXPECT_EQ(result.exitStatus, 0) << describe(result);
}

TEST(SandboxTest, ReadOnlyPathCannotBeRemovedInside)
{
    Sandbox sandbox;
    sandbox.writeFile("/Library/Keep/file", "kept");
    sandbox.makeReadOnly("/Library/Keep");

    const RunResult result = shell(sandbox, "rm -rf /Library/Keep; rm -f /Library/Keep/file; cat /Library/Keep/file");

    EXPECT_EQ(result.standardOutput, "kept");
    EXPECT_TRUE(sandbox.exists("/Library/Keep/file"));
}

TEST(SandboxTest, ProgramRunsAsTheUserTheTestNames)
{
    Sandbox sandbox;
    sandbox.writeFile("/Library/RootsOwn/file", "");
    ASSERT_EQ(::chmod(sandbox.hostPath("/Library/RootsOwn").c_str(), 0755), 0);

    const RunResult result =
        sandbox.runProgramAs({1000, 1000}, "/bin/sh", {"-c", "id -u; id -g; rm -f /Library/RootsOwn/file"});

    EXPECT_EQ(result.standardOutput, "1000\n1000\n");
    EXPECT_NE(result.exitStatus, 0);
    EXPECT_TRUE(sandbox.exists("/Library/RootsOwn/file"));
}

TEST(SandboxTest, ExitStatusSignalAndBothOutputsAreReportedApart)
{
    Sandbox sandbox;

    const RunResult exited = shell(sandbox, "echo out; echo err >&2; exit 3");
    const RunResult killed = shell(sandbox, "kill -TERM $$");

    EXPECT_EQ(exited.exitStatus, 3);
    EXPECT_FALSE(exited.signaled);
    EXPECT_EQ(exited.standardOutput, "out\n");
    EXPECT_EQ(exited.standardError, "err\n");
    EXPECT_TRUE(killed.signaled);
    EXPECT_EQ(killed.signalNumber, 15);
}

TEST(SandboxTest, DoublesJournalEveryArgumentWithBlanksAndControlCharactersIntact)
{
    Sandbox sandbox;

    const RunResult result = shell(sandbox, "/usr/sbin/pkgutil --pkgs --volume '/Volumes/My  Disk ' ; "
                                            "/bin/launchctl list \"$(printf 'tab\\there')\" 'back\\slash' "
                                            "\"$(printf 'line\\nfeed\\r')\" ''");

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const std::vector<JournalEntry> expected{
        {"pkgutil", "--pkgs", "--volume", "/Volumes/My  Disk "},
        {"launchctl", "list", "tab\there", "back\\slash", "line\nfeed\r", ""},
    };
    EXPECT_EQ(sandbox.journal(), expected);
}

TEST(SandboxTest, PkgutilForgetsReceiptsWhoseWholeIdentifierMatchesThePattern)
{
    Sandbox sandbox;
    sandbox.addReceipt("com.corvane.lumidoc.10.viewer.app.pkg");
    sandbox.addReceipt("com.corvane.lumidoc.10.viewer.app.pk");  // "g*" matches no g at all
    sandbox.addReceipt("com.corvane.lumidoc.10.viewer.app.pkg.extra");
    sandbox.addReceipt("x.com.corvane.lumidoc.10.viewer.app.pkg");
    sandbox.addReceipt("com.corvane.lumidoc.11.viewer.app.pkg");

    const RunResult result = sandbox.runProgram(
        "/usr/sbin/pkgutil", {"--regexp", "--forget", "com.corvane.lumidoc.10.viewer.app.pkg*", "--volume", "/"});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, "Forgot package 'com.corvane.lumidoc.10.viewer.app.pk' on '/'.\n"
                                     "Forgot package 'com.corvane.lumidoc.10.viewer.app.pkg' on '/'.\n");
    const std::vector<std::string> left{"com.corvane.lumidoc.10.viewer.app.pkg.extra",
                                        "com.corvane.lumidoc.11.viewer.app.pkg",
                                        "x.com.corvane.lumidoc.10.viewer.app.pkg"};
    EXPECT_EQ(sandbox.receipts(), left);
}

TEST(SandboxTest, PkgutilWithoutVolumeWorksOnTheStartupVolumeOnly)
{
    Sandbox sandbox;
    sandbox.addReceipt("com.corvane.lumidoc.10.viewer.browser.pkg");
    sandbox.addReceipt("com.corvane.lumidoc.10.viewer.app.pkg", "/Volumes/Backup");

    const RunResult result = sandbox.runProgram("/usr/sbin/pkgutil", {"--regexp", "--forget", "com.corvane.*"});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, "Forgot package 'com.corvane.lumidoc.10.viewer.browser.pkg' on '/'.\n");
    EXPECT_TRUE(sandbox.receipts().empty());
    EXPECT_EQ(sandbox.receipts("/Volumes/Backup"), std::vector<std::string>{"com.corvane.lumidoc.10.viewer.app.pkg"});
}

TEST(SandboxTest, PkgutilWithoutRegexpForgetsOnlyTheExactIdentifier)
{
    Sandbox sandbox;
    sandbox.addReceipt("com.corvane.a");
    sandbox.addReceipt("comXcorvane.a");

    const RunResult result = sandbox.runProgram("/usr/sbin/pkgutil", {"--forget", "com.corvane.a"});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(sandbox.receipts(), std::vector<std::string>{"comXcorvane.a"});
}

TEST(SandboxTest, PkgutilReportsAMissingReceiptOnStandardErrorAndFails)
{
    Sandbox sandbox;
    sandbox.addReceipt("com.example.other.pkg");

    const RunResult result = sandbox.runProgram("/usr/sbin/pkgutil", {"--regexp", "--forget", "com.corvane.x*"});

    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError, "No receipt for 'com.corvane.x*' found at '/'.\n");
    EXPECT_EQ(sandbox.receipts(), std::vector<std::string>{"com.example.other.pkg"});
    EXPECT_EQ(sandbox.journal().size(), 1U);
}

TEST(SandboxTest, LaunchctlLoadAddsAndUnloadRemovesAnAgent)
{
    Sandbox sandbox;
    const std::string first = "/root/Library/LaunchAgents/com.corvane.QEL.a.plist";
    const std::string second = "/root/Library/LaunchAgents/sub folder/com.corvane.QEL.b.plist";
    sandbox.writeFile(first, "");
    sandbox.writeFile(second, "");
    sandbox.addLoadedAgent(first);

    const RunResult load = sandbox.runProgram("/bin/launchctl", {"load", second});
    const std::vector<std::string> bothLoaded{first, second};
    EXPECT_EQ(sandbox.loadedAgents(), bothLoaded);
    const RunResult unload = sandbox.runProgram("/bin/launchctl", {"unload", first});

    EXPECT_EQ(load.exitStatus, 0) << describe(load);
    EXPECT_EQ(unload.exitStatus, 0) << describe(unload);
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{second});
    const std::vector<JournalEntry> expected{{"launchctl", "load", second}, {"launchctl", "unload", first}};
    EXPECT_EQ(sandbox.journal(), expected);
}

TEST(SandboxTest, LaunchctlUnloadOfAnAgentNotLoadedFailsAndIsJournaled)
{
    Sandbox sandbox;
    const std::string plist = "/root/Library/LaunchAgents/com.corvane.QEL.a.plist";
    sandbox.writeFile(plist, "");

    const RunResult result = sandbox.runProgram("/bin/launchctl", {"unload", plist});

    EXPECT_NE(result.exitStatus, 0);
    EXPECT_EQ(result.standardError, plist + ": Could not find specified service\n");
    EXPECT_TRUE(sandbox.loadedAgents().empty());
    const std::vector<JournalEntry> expected{{"launchctl", "unload", plist}};
    EXPECT_EQ(sandbox.journal(), expected);
}

TEST(SandboxTest, LaunchctlLoadOfAMissingPlistFails)
{
    Sandbox sandbox;

    const RunResult result = sandbox.runProgram("/bin/launchctl", {"load", "/root/Library/LaunchAgents/none.plist"});

    EXPECT_NE(result.exitStatus, 0);
    EXPECT_TRUE(sandbox.loadedAgents().empty());
}

TEST(SandboxTest, TreeListsEveryPathSortedWithItsTypeMark)
{
    Sandbox sandbox;
    sandbox.makeDirectory("/Applications/Corvane Lumidoc X Pro");
    sandbox.writeFile("/Applications/Corvane Lumidoc X Pro/Icon\r", "");
    sandbox.makeSymlink("/Library/Dangling", "/nowhere");
    sandbox.writeFile("/Library/A/b", "");
    sandbox.makeDirectory("/root/Library");

    const std::vector<std::string> expected{
        "d /Applications/Corvane Lumidoc X Pro",
        "f /Applications/Corvane Lumidoc X Pro/Icon\r",
        "d /Library/A",
        "f /Library/A/b",
        "l /Library/Dangling -> /nowhere",
        "d /root/Library",
    };
    EXPECT_EQ(sandbox.tree(), expected);
    EXPECT_EQ(sandbox.tree("/Library/A"), std::vector<std::string>{"f /Library/A/b"});
}

TEST(SandboxTest, TreeShowsWhatAProgramInsideRemoved)
{
    Sandbox sandbox;
    sandbox.writeFile("/Library/Gone/file", "");
    sandbox.writeFile("/Library/Stays", "");

    const RunResult result = shell(sandbox, "rm -r /Library/Gone");

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(sandbox.tree(), std::vector<std::string>{"f /Library/Stays"});
}

TEST(SandboxTest, CommandOnThisMachineIsFoundByNameInPath)
{
    const RunResult result = testsupport::runCommand({"printf", "%s|", "a b", "c"});

    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.standardOutput, "a b|c|");
}

// The mounts a program inside sees: mount point -> device ("major:minor"),
// read from /proc/self/mountinfo inside the sandbox.
std::map<std::string, std::string> mountsInside(const Sandbox& sandbox)
{
    const RunResult result = sandbox.runProgram("/usr/bin/cat", {"/proc/self/mountinfo"});
    EXPECT_EQ(result.exitStatus, 0) << describe(result);
    std::map<std::string, std::string> mounts;
    std::istringstream lines(result.standardOutput);
    std::string line;
    while (std::getline(lines, line)) {
        // ID PARENT MAJOR:MINOR ROOT MOUNT-POINT ...
        std::istringstream fields(line);
        std::string id;
        std::string parent;
        std::string device;
        std::string root;
        std::string mountPoint;
        fields >> id >> parent >> device >> root >> mountPoint;
        mounts[mountPoint] = device;
    }
    return mounts;
}

TEST(SandboxTest, SeparateLayoutMountsApplicationsLibraryHomeAndTmpEachOnItsOwn)
{
    const Sandbox sandbox(Layout::SeparateMounts);

    const std::map<std::string, std::string> mounts = mountsInside(sandbox);

    for (const char* path : {"/Applications", "/Library", "/root", "/tmp"}) {
        EXPECT_EQ(mounts.count(path), 1U) << path;
    }
}

TEST(SandboxTest, SingleDiskLayoutHasApplicationsLibraryHomeAndTmpOnTheRootMount)
{
    Sandbox sandbox(Layout::SingleDisk);
    sandbox.makeDirectory("/root/elsewhere");
    sandbox.writeFile("/root/elsewhere/file", "x");
    sandbox.bindFolder("/root/elsewhere", "/Library/X/mnt");

    const std::map<std::string, std::string> mounts = mountsInside(sandbox);

    ASSERT_EQ(mounts.count("/"), 1U);
    for (const char* path : {"/Applications", "/Library", "/root", "/tmp"}) {
        EXPECT_EQ(mounts.count(path), 0U) << path;
    }
    // The bind is a mount of its own, on the same device as "/".
    ASSERT_EQ(mounts.count("/Library/X/mnt"), 1U);
    EXPECT_EQ(mounts.at("/Library/X/mnt"), mounts.at("/"));
    const RunResult seen = sandbox.runProgram("/usr/bin/cat", {"/Library/X/mnt/file"});
    EXPECT_EQ(seen.standardOutput, "x") << describe(seen);
}

class SandboxLayoutTest : public testing::TestWithParam<Layout> {};

TEST_P(SandboxLayoutTest, FixtureFunctionsSeeWhatAProgramInsideDid)
{
    const Sandbox sandbox(GetParam());
    ASSERT_EQ(sandbox.layout(), GetParam());
    sandbox.writeFile("/Library/In", "in");
    sandbox.writeFile("~/Home", "home");
    sandbox.addReceipt("com.corvane.a");

    const RunResult result =
        shell(sandbox, "cat /Library/In /root/Home > /Applications/Out && rm /root/Home && "
                       "/usr/sbin/pkgutil --forget com.corvane.a >/dev/null && echo tmp > /tmp/t && cat /tmp/t");

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, "tmp\n");
    EXPECT_EQ(sandbox.readFile("/Applications/Out"), "inhome");
    EXPECT_EQ(sandbox.tree(), (std::vector<std::string>{"f /Applications/Out", "f /Library/In"}));
    EXPECT_EQ(sandbox.receipts(), std::vector<std::string>{});
    EXPECT_EQ(sandbox.journal(), (std::vector<JournalEntry>{{"pkgutil", "--forget", "com.corvane.a"}}));
}

INSTANTIATE_TEST_SUITE_P(SandboxTest, SandboxLayoutTest, testing::Values(Layout::SeparateMounts, Layout::SingleDisk),
                         [](const testing::TestParamInfo<Layout>& info) {
                             return testsupport::layoutName(info.param);
                         });

// The library doubles are loaded into this test process directly, writing
// their journal into the fixture's state folder.
class LibraryDoubleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(::setenv("DOUBLES_STATE_DIR", theSandbox.hostPath(Sandbox::kStatePath).c_str(), 1), 0);
    }

    static std::string libraryPath(const std::string& name)
    {
        return std::string(REMOVER_TEST_BINARY_DIR) + "/doubles/" + name + ".so";
    }

    Sandbox theSandbox;
};

using UninstallEntry = std::int32_t (*)(std::int32_t*);

TEST_F(LibraryDoubleTest, UninstallEntryReturnsTheChosenStatusAndJournalsLoadCallUnload)
{
    ASSERT_EQ(::setenv("HOV_DOUBLE_STATUS", "-3", 1), 0);
    void* handle = ::dlopen(libraryPath("CorvaneHOV").c_str(), RTLD_LAZY);
    ASSERT_NE(handle, nullptr) << ::dlerror();
    auto entry = reinterpret_cast<UninstallEntry>(::dlsym(handle, "hov_uninstallCorvaneApplicationManager"));
    ASSERT_NE(entry, nullptr);

    std::int32_t written = 0;
    const std::int32_t status = entry(&written);
    ::dlclose(handle);

    EXPECT_EQ(status, -3);
    EXPECT_EQ(written, 1);
    const std::vector<JournalEntry> expected{
        {"CorvaneHOV", "load"},
        {"CorvaneHOV", "hov_uninstallCorvaneApplicationManager"},
        {"CorvaneHOV", "unload"},
    };
    EXPECT_EQ(theSandbox.journal(), expected);
}

TEST_F(LibraryDoubleTest, UninstallEntryReturnsZeroWhenNoStatusIsChosen)
{
    ASSERT_EQ(::unsetenv("HOV_DOUBLE_STATUS"), 0);
    void* handle = ::dlopen(libraryPath("CorvaneHOV").c_str(), RTLD_LAZY);
    ASSERT_NE(handle, nullptr) << ::dlerror();
    auto entry = reinterpret_cast<UninstallEntry>(::dlsym(handle, "hov_uninstallCorvaneApplicationManager"));
    ASSERT_NE(entry, nullptr);

    std::int32_t written = 0;
    EXPECT_EQ(entry(&written), 0);
    ::dlclose(handle);
}

TEST_F(LibraryDoubleTest, LibraryWithoutEntryLoadsButHasNoUninstallEntry)
{
    void* handle = ::dlopen(libraryPath("CorvaneHOVNoEntry").c_str(), RTLD_LAZY);
    ASSERT_NE(handle, nullptr) << ::dlerror();

    EXPECT_EQ(::dlsym(handle, "hov_uninstallCorvaneApplicationManager"), nullptr);
    ::dlclose(handle);
    const std::vector<JournalEntry> expected{{"CorvaneHOVNoEntry", "load"}, {"CorvaneHOVNoEntry", "unload"}};
    EXPECT_EQ(theSandbox.journal(), expected);
}

}  // namespace
