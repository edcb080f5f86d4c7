// What an install log can never make the remover erase, run in both sandbox
// layouts: with separate mounts every top-level folder is also a mount point;
// on a single disk only the guard keeps the system and home folders.
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/RemoverFixture.h"
#include "tests/support/UpdaterAgents.h"

namespace {

using namespace testsupport;

constexpr char kSystemFolder[] = "a protected system folder";
constexpr char kHomeStandardFolder[] = "a standard folder of the home folder";
constexpr char kRunningBundle[] = "the running program's bundle";
constexpr char kMountPoint[] = "a mount point";

// A binary property list whose dictionary key is "a" followed by NUL, its
// UTF-16 length written as an integer 16 bytes wide.
constexpr char kWideLengthPlistHex[] =
    "62706c6973743030d101026f1400000000000000000000000000000002006100005178080b2100000000000001010000000000000003000000"
    "00000000000000000000000023";
// The same key, behind a trailer whose offset size is above 8.
constexpr char kWideOffsetPlistHex[] =
    "62706c6973743030d1010262006100005178000000000000000000000000000000080000000000000000000000000000000b000000000000"
    "000000000000000000100000000000001001000000000000000300000000000000000000000000000012";

std::string fromHex(const std::string& hex)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

// A sandbox of one layout with the default application installed, and the
// checks of a run over an install log.
class RemovalGuardFixture : public testing::Test {
protected:
    explicit RemovalGuardFixture(Layout layout) : sandbox(layout) {}

    void SetUp() override { installApp(sandbox, kDefaultApp); }

    RunResult runWithLog(const std::string& listText)
    {
        sandbox.writeFile(kProductLog, listText);
        return sandbox.run({"x", kDefaultApp});
    }

    // Everything after the install log's entries, for the default app.
    static std::string afterLog()
    {
        const QuietRunTail tail = quietRunTail(kDefaultApp);
        return line(kRemoved, kProductLog) + tail.agent + tail.manager + tail.fileList + tail.components + tail.folder;
    }

    // A folder outside the fixture's folders ("/srv"), with a file in it,
    // where the layout lets the test make one: only the single-disk layout
    // has its own "/". False when it cannot be made.
    bool makeTopLevelFolder(const std::string& path)
    {
        if (sandbox.layout() != Layout::SingleDisk) {
            return false;
        }
        const std::filesystem::path host = sandbox.root() + "/fs" + path;
        std::filesystem::create_directories(host);
        std::ofstream(host / "kept") << "kept";
        return true;
    }

    bool topLevelFileKept(const std::string& path) const
    {
        std::ifstream in(sandbox.root() + "/fs" + path + "/kept");
        std::string text;
        std::getline(in, text);
        return text == "kept";
    }

    // Expects the run to report the listed path as not removed, on standard
    // output as usual and on the console with the reason.
    void expectRefused(const RunResult& result, const std::string& path, const std::string& reason)
    {
        ASSERT_EQ(result.exitStatus, 0) << describe(result);
        EXPECT_EQ(result.standardOutput, line(kCouldNotRemove, path) + afterLog()) << describe(result);
        const std::string consoleLine = "not removed: " + path + ": " + reason + "\n";
        EXPECT_NE(result.standardError.find(consoleLine), std::string::npos) << describe(result);
    }

    Sandbox sandbox;
};

class RemovalGuardTest : public RemovalGuardFixture, public testing::WithParamInterface<Layout> {
protected:
    RemovalGuardTest() : RemovalGuardFixture(GetParam()) {}
};

// A listed folder the guard refuses: what the test puts inside it, the line
// of the install log, the path the report names and the reason the console
// gives. Everything put inside must still be there after the run.
struct RefusedFolder {
    const char* name;  // the behaviour, as the test's name
    std::vector<std::string> inside;
    const char* listed;
    const char* reported;
    const char* reason;
    enum class Extra { None, LinkToRootInLibrary, BundleCopy } extra = Extra::None;
};

void PrintTo(const RefusedFolder& folder, std::ostream* out)
{
    *out << folder.name;
}

const RefusedFolder kRefusedFolders[] = {
    {"RootFolderIsRefused", {"/Library/Keep/file", "~/Documents/letter"}, "/", "/", kSystemFolder},
    {"LibraryIsRefused", {"/Library/Keep/file"}, "/Library", "/Library", kSystemFolder},
    {"ApplicationsIsRefused", {"/Applications/Other.app/file"}, "/Applications", "/Applications", kSystemFolder},
    // /root is a system folder too, which is the reason given first.
    {"HomeFolderByTildeIsRefused", {"~/Documents/letter"}, "~", "/root", kSystemFolder},
    {"RootsHomeFolderIsRefused", {"~/Documents/letter"}, "/root", "/root", kSystemFolder},
    {"HomeLibraryIsRefused", {"~/Library/Keep/file"}, "~/Library", "/root/Library", kHomeStandardFolder},
    {"HomeLaunchAgentsIsRefused",
     {"~/Library/LaunchAgents/other.plist"},
     "~/Library/LaunchAgents",
     "/root/Library/LaunchAgents",
     kHomeStandardFolder},
    {"ApplicationsThroughDotDotIsRefused",
     {"/Applications/Other.app/file"},
     "/Library/../Applications",
     "/Library/../Applications",
     kSystemFolder},
    {"ApplicationsThroughALinkToRootIsRefused",
     {"/Applications/Other.app/file"},
     "/Library/RootLink/Applications",
     "/Library/RootLink/Applications",
     kSystemFolder,
     RefusedFolder::Extra::LinkToRootInLibrary},
    // The bundle is the sandbox's copy, with the remover in it.
    {"RunningProgramsBundleIsRefused",
     {Sandbox::kRemoverPath},
     Sandbox::kBundlePath,
     Sandbox::kBundlePath,
     kRunningBundle,
     RefusedFolder::Extra::BundleCopy},
};

class RefusedFolderTest : public RemovalGuardFixture,
                          public testing::WithParamInterface<std::tuple<RefusedFolder, Layout>> {
protected:
    RefusedFolderTest() : RemovalGuardFixture(std::get<1>(GetParam())) {}
};

TEST_P(RefusedFolderTest, IsReportedAsNotRemovedAndKeepsEverythingInIt)
{
    const RefusedFolder& folder = std::get<0>(GetParam());
    if (folder.extra == RefusedFolder::Extra::BundleCopy) {
        sandbox.useBundleCopy();
    } else {
        for (const std::string& path : folder.inside) {
            sandbox.writeFile(path, "x");
        }
    }
    if (folder.extra == RefusedFolder::Extra::LinkToRootInLibrary) {
        sandbox.makeSymlink("/Library/RootLink", "/");
    }
    const RunResult result = runWithLog(std::string(folder.listed) + "\n");
    expectRefused(result, folder.reported, folder.reason);
    for (const std::string& path : folder.inside) {
        EXPECT_TRUE(sandbox.exists(path)) << path;
    }
}

TEST_P(RemovalGuardTest, TmpIsRefused)
{
    const bool made = makeTopLevelFolder("/tmp");
    const RunResult result = runWithLog("/tmp\n");
    expectRefused(result, "/tmp", kSystemFolder);
    if (made) {
        EXPECT_TRUE(topLevelFileKept("/tmp"));
    }
}

TEST_P(RemovalGuardTest, SrvIsRefused)
{
    if (!makeTopLevelFolder("/srv")) {
        // Not there to protect: the line says so and nothing is removed.
        const RunResult result = runWithLog("/srv\n");
        ASSERT_EQ(result.exitStatus, 0) << describe(result);
        EXPECT_EQ(result.standardOutput, line(kNotFound, "/srv") + afterLog());
        return;
    }
    const RunResult result = runWithLog("/srv\n");
    expectRefused(result, "/srv", kSystemFolder);
    EXPECT_TRUE(topLevelFileKept("/srv"));
}

TEST_P(RemovalGuardTest, SystemAccountsHomeByTildeIsRefused)
{
    // "~bin" is the home of the account bin, /bin, which holds launchctl.
    const RunResult result = runWithLog("~bin\n");
    expectRefused(result, "/bin", kSystemFolder);
    const RunResult launchctl = sandbox.runProgram("/usr/bin/test", {"-x", "/bin/launchctl"});
    EXPECT_EQ(launchctl.exitStatus, 0) << describe(launchctl);
}

TEST_P(RemovalGuardTest, ReadOnlyUsrIsRefusedBeforeAnyWalk)
{
    const RunResult result = runWithLog("/usr\n");
    expectRefused(result, "/usr", kSystemFolder);
    // One line, for /usr itself: had the walk started, the first file it
    // could not unlink would be named, with a count of the others.
    EXPECT_EQ(result.standardError.find("Read-only file system"), std::string::npos) << describe(result);
    EXPECT_EQ(result.standardError.find("more)"), std::string::npos) << describe(result);
    const RunResult sh = sandbox.runProgram("/usr/bin/test", {"-x", "/usr/bin/sh"});
    EXPECT_EQ(sh.exitStatus, 0) << describe(sh);
}

TEST_P(RemovalGuardTest, OrdinaryEntriesInsideProtectedFoldersStillGo)
{
    sandbox.writeFile("/Library/Application Support/Corvane/Lumidoc/10/data", "x");
    sandbox.writeFile("/Library/Preferences/com.corvane.other.plist", "x");
    sandbox.writeFile("~/Library/LaunchAgents/com.corvane.helper.plist", "x");
    sandbox.writeFile("/Applications/Corvane Extra.app/Contents/Info.plist", "x");
    const RunResult result =
        runWithLog("/Library/Application Support/Corvane/Lumidoc/10\n/Library/Preferences/com.corvane.other.plist\n"
                   "~/Library/LaunchAgents/com.corvane.helper.plist\n/Applications/Corvane Extra.app\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, "/Library/Application Support/Corvane/Lumidoc/10") +
                                         line(kRemoved, "/Library/Preferences/com.corvane.other.plist") +
                                         line(kRemoved, "/root/Library/LaunchAgents/com.corvane.helper.plist") +
                                         line(kRemoved, "/Applications/Corvane Extra.app") + afterLog());
    EXPECT_FALSE(sandbox.exists("/Library/Application Support/Corvane/Lumidoc/10"));
    EXPECT_FALSE(sandbox.exists("/Library/Preferences/com.corvane.other.plist"));
    EXPECT_FALSE(sandbox.exists("~/Library/LaunchAgents/com.corvane.helper.plist"));
    EXPECT_FALSE(sandbox.exists("/Applications/Corvane Extra.app"));
    EXPECT_TRUE(sandbox.exists("/Library/Preferences"));
    EXPECT_TRUE(sandbox.exists("~/Library/LaunchAgents"));
    for (const char* listed : {"/Library/Application Support/Corvane/Lumidoc/10", "/Library/Preferences/",
                               "/root/Library/LaunchAgents", "/Applications/Corvane Extra.app"}) {
        EXPECT_EQ(result.standardError.find(std::string("not removed: ") + listed), std::string::npos)
            << describe(result);
    }
}

TEST_P(RemovalGuardTest, FolderListedWithDotDotInTheMiddleGoesWhenItIsNotProtected)
{
    sandbox.writeFile("/Library/Corvane Old/Data/file", "x");
    sandbox.makeDirectory("/Library/Corvane Temp");
    const RunResult result = runWithLog("/Library/Corvane Temp/../Corvane Old\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, "/Library/Corvane Temp/../Corvane Old") + afterLog());
    EXPECT_FALSE(sandbox.exists("/Library/Corvane Old"));
    EXPECT_TRUE(sandbox.exists("/Library/Corvane Temp"));
}

TEST_P(RemovalGuardTest, BindMountOfTheSameDiskInsideAListedFolderKeepsItsSource)
{
    sandbox.writeFile("~/Elsewhere/one", "1");
    sandbox.writeFile("~/Elsewhere/sub/two", "2");
    sandbox.writeFile("/Library/Corvane Cache/file", "x");
    sandbox.bindFolder("/root/Elsewhere", "/Library/Corvane Cache/mnt");
    const RunResult result = runWithLog("/Library/Corvane Cache\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kCouldNotRemove, "/Library/Corvane Cache") + afterLog());
    // The console line names the mount point inside the listed folder.
    EXPECT_NE(result.standardError.find("not removed: /Library/Corvane Cache/mnt: " + std::string(kMountPoint)),
              std::string::npos)
        << describe(result);
    EXPECT_EQ(sandbox.readFile("~/Elsewhere/one"), "1");
    EXPECT_EQ(sandbox.readFile("~/Elsewhere/sub/two"), "2");
    EXPECT_FALSE(sandbox.exists("/Library/Corvane Cache/file"));
}

TEST_P(RemovalGuardTest, DamagedPropertyListsLetTheSequenceRunToItsEnd)
{
    // The same run without them, for the expected output.
    Sandbox plain(GetParam());
    installApp(plain, kDefaultApp);
    plain.writeFile(kProductLog, "");
    const RunResult expected = plain.run({"x", kDefaultApp});
    ASSERT_EQ(expected.exitStatus, 0) << describe(expected);

    for (const char* preferencesHex : {kWideLengthPlistHex, kWideOffsetPlistHex}) {
        Sandbox damaged(GetParam());
        installApp(damaged, kDefaultApp);
        damaged.writeFile(kProductLog, "");
        damaged.writeFile("~/Library/LaunchAgents/wide-length.plist", fromHex(kWideLengthPlistHex));
        damaged.writeFile("~/Library/LaunchAgents/wide-offset.plist", fromHex(kWideOffsetPlistHex));
        damaged.writeFile(kPluginPreferences, fromHex(preferencesHex));
        const RunResult result = damaged.run({"x", kDefaultApp});
        ASSERT_EQ(result.exitStatus, 0) << describe(result);
        EXPECT_EQ(result.standardOutput, expected.standardOutput);
        EXPECT_TRUE(damaged.exists("~/Library/LaunchAgents/wide-length.plist"));
        EXPECT_TRUE(damaged.exists("~/Library/LaunchAgents/wide-offset.plist"));
    }
}

TEST_P(RemovalGuardTest, AgentSweepDoesNotFollowALaunchAgentsFolderThatIsALink)
{
    const std::string stale = "/Library/LaunchAgents/com.corvane.QEL.stale.plist";
    sandbox.writeFile(stale, agentXml("com.corvane.QEL.stale", {"/Applications/Gone/Helper"}));
    sandbox.makeDirectory("~/Library");
    sandbox.makeSymlink(kAgents, "/Library/LaunchAgents");
    const RunResult result = runWithLog("");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, afterLog());
    EXPECT_TRUE(sandbox.exists(stale));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

TEST_P(RemovalGuardTest, AgentSweepRemovesNoPlistThroughALinkedSubFolder)
{
    const std::string stale = "/Library/Elsewhere/com.corvane.QEL.stale.plist";
    sandbox.writeFile(stale, agentXml("com.corvane.QEL.stale", {"/Applications/Gone/Helper"}));
    sandbox.makeDirectory(kAgents);
    sandbox.makeSymlink(std::string(kAgents) + "/sub", "/Library/Elsewhere");
    const RunResult result = runWithLog("");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, afterLog());
    EXPECT_TRUE(sandbox.exists(stale));
    EXPECT_TRUE(sandbox.exists(std::string(kAgents) + "/sub"));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

INSTANTIATE_TEST_SUITE_P(RemovalGuard, RemovalGuardTest, testing::Values(Layout::SeparateMounts, Layout::SingleDisk),
                         [](const testing::TestParamInfo<Layout>& info) { return layoutName(info.param); });

// Named after the case and the layout, such as
// RootFolderIsRefused_SeparateMounts.
INSTANTIATE_TEST_SUITE_P(RemovalGuard, RefusedFolderTest,
                         testing::Combine(testing::ValuesIn(kRefusedFolders),
                                          testing::Values(Layout::SeparateMounts, Layout::SingleDisk)),
                         [](const testing::TestParamInfo<std::tuple<RefusedFolder, Layout>>& info) {
                             return std::string(std::get<0>(info.param).name) + "_" +
                                    layoutName(std::get<1>(info.param));
                         });

}  // namespace
