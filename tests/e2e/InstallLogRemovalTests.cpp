// Removal of the paths an install log lists, run in the sandbox: the list's
// format, path resolution, and the browser plug-in's protection.
#include <gtest/gtest.h>
#include <string>

#include "tests/support/RemoverFixture.h"

namespace {

using namespace testsupport;
using testsupport::RunResult;
using testsupport::Sandbox;

// The default installation with the product log holding listText.
class InstallLogTest : public testing::Test {
protected:
    void SetUp() override { installApp(sandbox, kDefaultApp); }

    RunResult runWithLog(const std::string& listText, const std::string& appPath = kDefaultApp)
    {
        sandbox.writeFile(kProductLog, listText);
        return sandbox.run({"x", appPath});
    }

    // Everything after the product log's own line, for the default app.
    static std::string afterLog()
    {
        const QuietRunTail tail = quietRunTail(kDefaultApp);
        return line(kRemoved, kProductLog) + tail.agent + tail.manager + tail.fileList + tail.components + tail.folder;
    }

    Sandbox sandbox;
};

const std::string kEscapedDefaultApp =
    "file://localhost/Applications/Corvane%20Lumidoc%20X%20Pro/Corvane%20Lumidoc%20Pro.app/";

TEST_F(InstallLogTest, EmptyListPrintsNothingForEntries)
{
    const RunResult result = runWithLog("");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, afterLog());
}

TEST_F(InstallLogTest, ListOfBlankLinesPrintsNothingForEntries)
{
    const RunResult result = runWithLog("\n\n   \n\t\t\n \r\n\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, afterLog());
}

TEST_F(InstallLogTest, LeadingBlanksAreSkippedAndTextAfterTheFirstTabIgnored)
{
    sandbox.writeFile("/Library/Foo", "foo");
    const RunResult result = runWithLog("   /Library/Foo\tfile\t0644\troot\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, "/Library/Foo") + afterLog());
    EXPECT_FALSE(sandbox.exists("/Library/Foo"));
}

TEST_F(InstallLogTest, CarriageReturnBeforeTheLineFeedStaysPartOfThePath)
{
    sandbox.writeFile("/Library/Foo", "foo");
    const RunResult result = runWithLog("/Library/Foo\r\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kNotFound, "/Library/Foo\r") + afterLog());
    EXPECT_TRUE(sandbox.exists("/Library/Foo"));
}

TEST_F(InstallLogTest, RelativeEntryResolvesAgainstTheApplicationsFolder)
{
    const std::string app = "/Applications/X/App.app";
    installApp(sandbox, app);
    sandbox.writeFile("/Applications/X/Foo.app/Contents/Info.plist", "x");
    const RunResult result = runWithLog("Foo.app\n", app);
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const QuietRunTail tail = quietRunTail(app);
    EXPECT_EQ(result.standardOutput, line(kRemoved, "/Applications/X/Foo.app") + line(kRemoved, kProductLog) +
                                         tail.agent + tail.manager + tail.fileList + tail.components);
    EXPECT_FALSE(sandbox.exists("/Applications/X/Foo.app"));
    EXPECT_TRUE(sandbox.exists(app));
}

TEST_F(InstallLogTest, TildeEntryResolvesUnderTheHomeOfTheUserRunningTheRemover)
{
    sandbox.writeFile("~/Library/Foo", "foo");
    const RunResult result = runWithLog("~/Library/Foo\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, "/root/Library/Foo") + afterLog());
    EXPECT_FALSE(sandbox.exists("/root/Library/Foo"));
}

TEST_F(InstallLogTest, FolderListedBeforeItsContentsLeavesThemMissing)
{
    sandbox.writeFile("/Library/Lumidoc/a.dat", "a");
    sandbox.writeFile("/Library/Lumidoc/sub/b.dat", "b");
    const RunResult result = runWithLog("/Library/Lumidoc\n/Library/Lumidoc/a.dat\n/Library/Lumidoc/sub/b.dat\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, "/Library/Lumidoc") + line(kNotFound, "/Library/Lumidoc/a.dat") +
                                         line(kNotFound, "/Library/Lumidoc/sub/b.dat") + afterLog());
    EXPECT_FALSE(sandbox.exists("/Library/Lumidoc"));
}

TEST_F(InstallLogTest, ListNamingItsOwnFileIsReadWholeBeforeTheFirstEntry)
{
    sandbox.writeFile("/Library/After.dat", "after");
    const RunResult result = runWithLog(std::string(kProductLog) + "\n/Library/After.dat\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // The log went as an entry, so destroying it afterwards fails.
    const QuietRunTail tail = quietRunTail(kDefaultApp);
    EXPECT_EQ(result.standardOutput, line(kRemoved, kProductLog) + line(kRemoved, "/Library/After.dat") +
                                         line(kCouldNotRemove, kProductLog) + tail.agent + tail.manager +
                                         tail.fileList + tail.components + tail.folder);
    EXPECT_FALSE(sandbox.exists("/Library/After.dat"));
}

TEST_F(InstallLogTest, LinkWhoseTargetIsGoneCountsAsMissingAndStays)
{
    sandbox.makeSymlink("/Library/Dangling", "/Library/Gone");
    const RunResult result = runWithLog("/Library/Dangling\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kNotFound, "/Library/Dangling") + afterLog());
    EXPECT_TRUE(sandbox.exists("/Library/Dangling"));
}

TEST_F(InstallLogTest, ListedLinkGoesAndItsTargetStays)
{
    sandbox.writeFile("/Library/Target/keep.dat", "keep");
    sandbox.makeSymlink("/Library/Link", "/Library/Target");
    const RunResult result = runWithLog("/Library/Link\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, "/Library/Link") + afterLog());
    EXPECT_FALSE(sandbox.exists("/Library/Link"));
    EXPECT_TRUE(sandbox.exists("/Library/Target/keep.dat"));
}

TEST_F(InstallLogTest, WithoutPreferenceFilePluginAndPreferencesAreSkippedInEachList)
{
    sandbox.writeFile(std::string(kPlugin) + "/Contents/Info.plist", "plugin");
    sandbox.writeFile("/Library/Other.dat", "other");
    const RunResult result = runWithLog(std::string(kPlugin) + "\n" + kPluginPreferences + "\n/Library/Other.dat\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // The bundle's own list names both as well; they are skipped there too.
    EXPECT_EQ(result.standardOutput, line(kRemoved, "/Library/Other.dat") + afterLog());
    EXPECT_TRUE(sandbox.exists(std::string(kPlugin) + "/Contents/Info.plist"));
    EXPECT_FALSE(sandbox.exists("/Library/Other.dat"));
}

TEST_F(InstallLogTest, PreferenceNamingThisApplicationLetsPluginAndPreferencesGo)
{
    sandbox.writeFile(std::string(kPlugin) + "/Contents/Info.plist", "plugin");
    writePluginPreferences(sandbox, kEscapedDefaultApp);
    const RunResult result = runWithLog(std::string(kPlugin) + "\n" + kPluginPreferences + "\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // In the bundle's own list the preference file is gone, so both entries
    // are protected again and print nothing.
    EXPECT_EQ(result.standardOutput, line(kRemoved, kPlugin) + line(kRemoved, kPluginPreferences) + afterLog());
    EXPECT_FALSE(sandbox.exists(kPlugin));
    EXPECT_FALSE(sandbox.exists(kPluginPreferences));
}

TEST_F(InstallLogTest, PreferenceNamingAnotherApplicationKeepsThePlugin)
{
    sandbox.writeFile(std::string(kPlugin) + "/Contents/Info.plist", "plugin");
    writePluginPreferences(sandbox, "file://localhost/Applications/Other%20Viewer.app/");
    const RunResult result = runWithLog(std::string(kPlugin) + "\n" + kPluginPreferences + "\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, afterLog());
    EXPECT_TRUE(sandbox.exists(kPlugin));
    EXPECT_TRUE(sandbox.exists(kPluginPreferences));
}

TEST_F(InstallLogTest, ApplicationPathWithTrailingSlashNeverMatchesThePreference)
{
    sandbox.writeFile(std::string(kPlugin) + "/Contents/Info.plist", "plugin");
    writePluginPreferences(sandbox, kEscapedDefaultApp);
    const RunResult result =
        runWithLog(std::string(kPlugin) + "\n" + kPluginPreferences + "\n", std::string(kDefaultApp) + "/");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, afterLog());
    EXPECT_TRUE(sandbox.exists(kPlugin));
    EXPECT_TRUE(sandbox.exists(kPluginPreferences));
}

TEST_F(InstallLogTest, SecondOccurrenceOfPreferencesAfterBothWereMetIsRemoved)
{
    sandbox.writeFile(std::string(kPlugin) + "/Contents/Info.plist", "plugin");
    writePluginPreferences(sandbox, "file://localhost/Applications/Other.app/");
    const RunResult result =
        runWithLog(std::string(kPluginPreferences) + "\n" + kPlugin + "\n" + kPluginPreferences + "\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, kPluginPreferences) + afterLog());
    EXPECT_FALSE(sandbox.exists(kPluginPreferences));
    EXPECT_TRUE(sandbox.exists(kPlugin));
}

TEST_F(InstallLogTest, WhileOnlyOneProtectedPathWasMetBothStayProtected)
{
    sandbox.writeFile(std::string(kPlugin) + "/Contents/Info.plist", "plugin");
    writePluginPreferences(sandbox, "file://localhost/Applications/Other.app/");
    const RunResult result = runWithLog(std::string(kPluginPreferences) + "\n" + kPluginPreferences + "\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, afterLog());
    EXPECT_TRUE(sandbox.exists(kPluginPreferences));
}

TEST_F(InstallLogTest, PreferenceValueThatIsNotTextEndsTheRunAbnormally)
{
    sandbox.writeFile("/Library/Foo", "foo");
    sandbox.writeFile(kPluginPreferences,
                      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>WebBrowserUsePath</key>"
                      "<integer>7</integer></dict></plist>\n");
    const RunResult result = runWithLog("/Library/Foo\n");
    EXPECT_TRUE(result.signaled) << describe(result);
    EXPECT_EQ(result.signalNumber, 6) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_TRUE(sandbox.exists("/Library/Foo"));
    EXPECT_TRUE(sandbox.exists(kProductLog));
}

TEST_F(InstallLogTest, PreferenceEscapesThatAreNotUtf8KeepThePlugin)
{
    sandbox.writeFile(std::string(kPlugin) + "/Contents/Info.plist", "plugin");
    writePluginPreferences(sandbox, "file://localhost/Applications/Corvane%FF/");
    const RunResult result = runWithLog(std::string(kPlugin) + "\n");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, afterLog());
    EXPECT_TRUE(sandbox.exists(kPlugin));
}

}  // namespace
