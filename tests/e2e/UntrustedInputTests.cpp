// What the remover reads as root from places others may control, run in the
// sandbox in both layouts: lists only root could have written, a bundle
// identifier that is not one folder name, FIFOs and devices where files are
// expected, files past the size limit, NUL bytes and lists that are not text.
// None of it may hang the run, end it early, or remove what it should not.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <tuple>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform/RegularFile.h"
#include "tests/support/PlistXml.h"
#include "tests/support/RemoverFixture.h"

namespace {

using namespace testsupport;

// A file no list of the test should ever remove.
constexpr char kVictim[] = "/Library/Keychains/System.keychain";

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

class UntrustedInputTest : public testing::TestWithParam<Layout> {
protected:
    UntrustedInputTest() : sandbox(GetParam()) {}

    void SetUp() override
    {
        installApp(sandbox, kDefaultApp);
        sandbox.writeFile(kVictim, "keys");
    }

    RunResult run() const { return sandbox.run({"x", kDefaultApp}); }

    // Everything the run prints after the install logs, for the default app.
    static std::string tail()
    {
        const QuietRunTail tail = quietRunTail(kDefaultApp);
        return tail.agent + tail.manager + tail.fileList + tail.components + tail.folder;
    }

    Sandbox sandbox;
};

TEST_P(UntrustedInputTest, IdentifierClimbingOutOfTheLogFolderNamesNoInstallLog)
{
    // The identifier would make the log /Library/Evil/uninstall.log.
    const std::string identifier = "../../../../Library/Evil";
    installApp(sandbox, kDefaultApp, identifier);
    sandbox.writeFile("/Library/Evil/uninstall.log", std::string(kVictim) + "\n");
    const RunResult result = run();
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, tail());
    EXPECT_TRUE(sandbox.exists(kVictim));
    EXPECT_TRUE(sandbox.exists("/Library/Evil/uninstall.log"));
    EXPECT_TRUE(contains(result.standardError,
                         "no install log: the bundle identifier \"" + identifier + "\" is not a folder name"))
        << result.standardError;
}

TEST_P(UntrustedInputTest, IdentifierDotDotNamesNoInstallLog)
{
    installApp(sandbox, kDefaultApp, "..");
    sandbox.writeFile("/Library/Application Support/Corvane/uninstall.log", std::string(kVictim) + "\n");
    const RunResult result = run();
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, tail());
    EXPECT_TRUE(sandbox.exists(kVictim));
    EXPECT_TRUE(contains(result.standardError, "no install log: the bundle identifier \"..\" is not a folder name"));
}

TEST_P(UntrustedInputTest, InstallLogOfAnotherUserIsNotRead)
{
    sandbox.writeFile(kProductLog, std::string(kVictim) + "\n");
    ASSERT_EQ(::chown(sandbox.hostPath(kProductLog).c_str(), 1000, 1000), 0);
    const RunResult result = run();
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // The log itself still goes: it is the suite's, wherever it came from.
    EXPECT_EQ(result.standardOutput, line(kRemoved, kProductLog) + tail());
    EXPECT_TRUE(sandbox.exists(kVictim));
    EXPECT_TRUE(contains(result.standardError, "not read: " + std::string(kProductLog) + ": writable by uid 1000"))
        << result.standardError;
}

TEST_P(UntrustedInputTest, InstallLogBelowAFolderOthersMayWriteIsNotRead)
{
    sandbox.writeFile(kProductLog, std::string(kVictim) + "\n");
    ASSERT_EQ(::chmod(sandbox.hostPath("/Library/Application Support/Corvane").c_str(), 0757), 0);
    const RunResult result = run();
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, kProductLog) + tail());
    EXPECT_TRUE(sandbox.exists(kVictim));
    EXPECT_TRUE(contains(result.standardError,
                         "not read: " + std::string(kProductLog) + ": a folder above it is writable by others"))
        << result.standardError;
}

TEST_P(UntrustedInputTest, InstallLogOfRootInTrustedFoldersIsRead)
{
    sandbox.writeFile("/Library/Foo", "foo");
    sandbox.writeFile(kProductLog, "/Library/Foo\n");
    const RunResult result = run();
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, "/Library/Foo") + line(kRemoved, kProductLog) + tail());
}

TEST_P(UntrustedInputTest, SparseInstallLogLargerThanTheLimitIsNotRead)
{
    sandbox.writeFile(kProductLog, std::string(kVictim) + "\n");
    ASSERT_EQ(
        ::truncate(sandbox.hostPath(kProductLog).c_str(), static_cast<off_t>(platform::RegularFile::kSizeLimit) + 1),
        0);
    const RunResult result = run();
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, kProductLog) + tail());
    EXPECT_TRUE(sandbox.exists(kVictim));
    EXPECT_TRUE(contains(result.standardError,
                         "not read: " + std::string(kProductLog) + ": larger than a file read whole may be"))
        << result.standardError;
}

TEST_P(UntrustedInputTest, LineHoldingANulByteTouchesNothing)
{
    sandbox.writeFile("/Library/foo", "foo");
    sandbox.writeFile(kProductLog, std::string("/Library") + '\0' + "/foo\n");
    const RunResult result = run();
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // The status line is printed as C prints a string: up to the NUL.
    EXPECT_EQ(result.standardOutput, line(kNotFound, "/Library") + line(kRemoved, kProductLog) + tail());
    EXPECT_TRUE(sandbox.exists("/Library/foo"));
}

TEST_P(UntrustedInputTest, ListThatIsNotTextDoesNotAskAboutThePluginSoOnlyTheBundlesListEndsTheRun)
{
    // UTF-16 of an odd length, and a preference value that is a number: the
    // product log is not read and the plug-in question is not asked; the
    // bundle's own list, which is text, asks it and the run ends there.
    sandbox.writeFile(kProductLog, std::string("\xFF\xFE/\0L\0i\0b", 9));
    sandbox.writeFile(kPluginPreferences, plistDocument("<key>WebBrowserUsePath</key><integer>7</integer>"));
    const RunResult result = run();
    const QuietRunTail tail = quietRunTail(kDefaultApp);
    EXPECT_NE(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, kProductLog) + tail.agent + tail.manager);
    EXPECT_TRUE(contains(result.standardError, "not read: " + std::string(kProductLog) + ": not text"))
        << result.standardError;
    EXPECT_TRUE(contains(result.standardError, "WebBrowserUsePath")) << result.standardError;
    EXPECT_TRUE(sandbox.exists(kDefaultApp));
}

INSTANTIATE_TEST_SUITE_P(Layouts, UntrustedInputTest, testing::Values(Layout::SeparateMounts, Layout::SingleDisk),
                         [](const testing::TestParamInfo<Layout>& info) { return layoutName(info.param); });

// Something that is not a regular file where the remover reads one.
enum class Item { Fifo, LinkToDevZero };

struct Place {
    const char* name;
    // The path inside the sandbox.
    const char* path;
};

const Place kPlaces[] = {
    {"InstallLog", kProductLog},
    {"InfoPlist", "/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app/Contents/Info.plist"},
    {"PluginPreferences", kPluginPreferences},
    {"LaunchAgentsPlist", "/root/Library/LaunchAgents/com.corvane.QEL.other.plist"},
};

void PrintTo(Item item, std::ostream* out)
{
    *out << (item == Item::Fifo ? "a FIFO" : "a link to /dev/zero");
}

void PrintTo(const Place& place, std::ostream* out)
{
    *out << place.path;
}

class NotARegularFileTest : public testing::TestWithParam<std::tuple<Layout, Item, Place>> {};

TEST_P(NotARegularFileTest, ReadsAsCannotBeReadAndTheRunGoesOnToItsEnd)
{
    const auto [layout, item, place] = GetParam();
    Sandbox sandbox(layout);
    installApp(sandbox, kDefaultApp);
    sandbox.writeFile("/Library/Internet Plug-Ins/CorvanePDFViewer.plugin/Contents/Info.plist", "x");
    sandbox.writeFile(kProductLog, std::string(kPlugin) + "\n");
    sandbox.makeDirectory("/root/Library/LaunchAgents");
    sandbox.remove(place.path);
    sandbox.makeDirectory(std::string(place.path).substr(0, std::string(place.path).rfind('/')));
    const std::string host = sandbox.hostPath(place.path);
    if (item == Item::Fifo) {
        ASSERT_EQ(::mkfifo(host.c_str(), 0644), 0);
    } else {
        ASSERT_EQ(::symlink("/dev/zero", host.c_str()), 0);
    }

    const RunResult result = sandbox.run({"x", kDefaultApp});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_FALSE(result.signaled);
    const QuietRunTail tail = quietRunTail(kDefaultApp);
    const std::string end = tail.fileList + tail.components + tail.folder;
    ASSERT_GE(result.standardOutput.size(), end.size()) << describe(result);
    EXPECT_EQ(result.standardOutput.substr(result.standardOutput.size() - end.size()), end) << describe(result);
    EXPECT_TRUE(contains(result.standardError, "not read: " + std::string(place.path) + ": not a regular file"))
        << describe(result);
    // No preference file read, so the plug-in stays whatever else happened.
    EXPECT_TRUE(sandbox.exists(kPlugin));
}

std::string itemName(Item item)
{
    return item == Item::Fifo ? "Fifo" : "LinkToDevZero";
}

INSTANTIATE_TEST_SUITE_P(Places, NotARegularFileTest,
                         testing::Combine(testing::Values(Layout::SeparateMounts, Layout::SingleDisk),
                                          testing::Values(Item::Fifo, Item::LinkToDevZero), testing::ValuesIn(kPlaces)),
                         [](const testing::TestParamInfo<std::tuple<Layout, Item, Place>>& info) {
                             return std::string(std::get<2>(info.param).name) + "_" +
                                    itemName(std::get<1>(info.param)) + "_" + layoutName(std::get<0>(info.param));
                         });

TEST(UntrustedQelutilInput, HashFileOfAFifoGivesStatusFourAtOnce)
{
    Sandbox sandbox;
    sandbox.makeDirectory("/root/Library");
    sandbox.makeDirectory("/root/files");
    ASSERT_EQ(::mkfifo(sandbox.hostPath("/root/files/fifo").c_str(), 0644), 0);
    const RunResult result = sandbox.runProgram(Sandbox::kQelutilPath, {"hash-file", "/root/files/fifo"});
    EXPECT_EQ(result.exitStatus, 4) << describe(result);
    EXPECT_EQ(result.standardOutput, std::string(64, '0') + "\n");
}

TEST(UntrustedQelutilInput, AgentRemoveWithAFifoAmongTheAgentsEnds)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    sandbox.makeDirectory("/root/Library/LaunchAgents");
    const std::string fifo = "/root/Library/LaunchAgents/com.corvane.QEL.other.plist";
    ASSERT_EQ(::mkfifo(sandbox.hostPath(fifo).c_str(), 0644), 0);
    const RunResult result = sandbox.runProgram(Sandbox::kQelutilPath, {"agent", "remove", kDefaultApp});
    EXPECT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_TRUE(contains(result.standardError, "not read: " + fifo + ": not a regular file")) << describe(result);
    EXPECT_TRUE(sandbox.exists(fifo));
}

}  // namespace
