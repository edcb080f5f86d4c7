// The remover's command line and the order of its steps, run in the sandbox.
#include <gtest/gtest.h>
#include <string>

#include "tests/support/RemoverFixture.h"

namespace {

using namespace testsupport;
using testsupport::RunResult;
using testsupport::Sandbox;

const std::string kWarning = "RemoverTool:WARNING: Application path parameter not passed. Using default value "
                             "[/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app].\n";

std::string quietRun(const std::string& appPath, bool defaultFolder)
{
    const QuietRunTail tail = quietRunTail(appPath);
    return tail.agent + tail.manager + tail.fileList + tail.components + (defaultFolder ? tail.folder : "");
}

TEST(RemoverEntry, NoArgumentsWarnFirstAndUseTheDefaultPath)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    const RunResult result = sandbox.run({});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, kWarning + quietRun(kDefaultApp, true));
    EXPECT_FALSE(sandbox.exists(kDefaultFolder));
}

TEST(RemoverEntry, OneArgumentWarnsFirstAndUsesTheDefaultPath)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    const RunResult result = sandbox.run({"/Applications/Other/App.app"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, kWarning + quietRun(kDefaultApp, true));
}

TEST(RemoverEntry, SecondArgumentIsThePathAndTheOthersAreIgnored)
{
    Sandbox sandbox;
    const std::string app = "/Applications/Other/App.app";
    installApp(sandbox, app);
    installApp(sandbox, kDefaultApp);
    const RunResult result = sandbox.run({"/Applications/Corvane Lumidoc X Pro", app, kDefaultApp, "more"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, quietRun(app, false));
    // The default installation was not the one named, so it stays.
    EXPECT_TRUE(sandbox.exists(kDefaultApp));
}

TEST(RemoverSequence, ApplicationOutsideTheDefaultFolderKeepsItsFolder)
{
    Sandbox sandbox;
    const std::string app = "/Applications/Other/App.app";
    installApp(sandbox, app);
    sandbox.writeFile("/Applications/Other/" + std::string("Icon\r"), "icon");
    const RunResult result = sandbox.run({"x", app});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const QuietRunTail tail = quietRunTail(app);
    EXPECT_EQ(result.standardOutput, tail.agent + tail.manager +
                                         line(kNotFound, "/Applications/Other/Corvane Lumidoc Pro.app") +
                                         tail.components);
    EXPECT_TRUE(sandbox.exists("/Applications/Other/Icon\r"));
    EXPECT_TRUE(sandbox.exists(app));
}

TEST(RemoverSequence, DefaultPathWithTrailingSlashStillClearsTheDefaultFolder)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    sandbox.writeFile(std::string(kDefaultFolder) + "/Icon\r", "icon");
    const RunResult result = sandbox.run({"x", std::string(kDefaultApp) + "/"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // The agent is named after the bundle's own path, which has no trailing
    // slash; the list's relative entry and the folder resolve as usual.
    EXPECT_EQ(result.standardOutput, quietRun(kDefaultApp, true));
    EXPECT_FALSE(sandbox.exists(kDefaultFolder));
}

TEST(RemoverSequence, ProductLogEntriesComeBeforeTheLogsOwnLine)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    sandbox.writeFile("/Library/Fonts/Lumidoc.otf", "font");
    sandbox.writeFile("/Library/Application Support/Corvane/Lumidoc/Shared/dictionary.dat", "words");
    sandbox.writeFile(kProductLog, "/Library/Fonts/Lumidoc.otf\n/Library/Application Support/Corvane/Lumidoc/Shared\n");
    const RunResult result = sandbox.run({"x", kDefaultApp});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, "/Library/Fonts/Lumidoc.otf") +
                                         line(kRemoved, "/Library/Application Support/Corvane/Lumidoc/Shared") +
                                         line(kRemoved, kProductLog) + quietRun(kDefaultApp, true));
    // The product's own sub-folder stays, emptied of its log.
    EXPECT_TRUE(sandbox.exists(std::string(kLogFolder) + "/" + kAppIdentifier));
    EXPECT_FALSE(sandbox.exists(kProductLog));
}

TEST(RemoverSequence, CompanionLogFollowsTheProductLog)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    sandbox.writeFile("/Library/Product.dat", "p");
    sandbox.writeFile("/Library/Companion.dat", "c");
    sandbox.writeFile(kProductLog, "/Library/Product.dat\n");
    sandbox.writeFile(kCompanionLog, "/Library/Companion.dat\n");
    const RunResult result = sandbox.run({"x", kDefaultApp});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kRemoved, "/Library/Product.dat") + line(kRemoved, kProductLog) +
                                         line(kRemoved, "/Library/Companion.dat") + line(kRemoved, kCompanionLog) +
                                         quietRun(kDefaultApp, true));
}

TEST(RemoverSequence, WithoutEitherInstallLogTheOutputBeginsWithTheAgentLine)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    const RunResult result = sandbox.run({"x", kDefaultApp});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput.substr(0, result.standardOutput.find('\n') + 1),
              line(kRemoved, agentPlistPath(kDefaultApp)));
    EXPECT_EQ(result.standardOutput, quietRun(kDefaultApp, true));
}

TEST(RemoverSequence, BundleWithoutIdentifierFindsNoProductLog)
{
    Sandbox sandbox;
    sandbox.writeFile(std::string(kDefaultApp) + "/Contents/Info.plist",
                      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict></dict></plist>\n");
    sandbox.writeFile("/Library/Keep.dat", "k");
    sandbox.writeFile(kProductLog, "/Library/Keep.dat\n");
    const RunResult result = sandbox.run({"x", kDefaultApp});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, quietRun(kDefaultApp, true));
    EXPECT_TRUE(sandbox.exists("/Library/Keep.dat"));
    EXPECT_TRUE(sandbox.exists(kProductLog));
}

TEST(RemoverSequence, ExitStatusIsZeroWhenItemsFail)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    sandbox.writeFile("/Library/Locked/file", "x");
    sandbox.makeReadOnly("/Library/Locked");
    sandbox.writeFile(kProductLog, "/Library/Locked/file\n");
    const RunResult result = sandbox.run({"x", kDefaultApp});
    EXPECT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, line(kCouldNotRemove, "/Library/Locked/file") + line(kRemoved, kProductLog) +
                                         quietRun(kDefaultApp, true));
    EXPECT_TRUE(sandbox.exists("/Library/Locked/file"));
}

}  // namespace
