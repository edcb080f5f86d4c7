// The last two steps of a run: the two print components, removed only when
// they are of version 10, and the default application folder, whose custom
// icon is cleared and which is removed only when it is empty.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/support/RemoverFixture.h"
#include "tests/support/Sandbox.h"

namespace {

using testsupport::agentPlistPath;
using testsupport::describe;
using testsupport::installApp;
using testsupport::installVersionedBundle;
using testsupport::kAutomatorAction;
using testsupport::kCouldNotRemove;
using testsupport::kDefaultApp;
using testsupport::kDefaultFolder;
using testsupport::kNotFound;
using testsupport::kPdfServicesApp;
using testsupport::kRemoved;
using testsupport::line;
using testsupport::quietRunTail;
using testsupport::QuietRunTail;
using testsupport::RunResult;
using testsupport::Sandbox;

// A folder's custom icon file: "Icon" and a carriage return.
const std::string kIconName = "Icon\r";

// The lines of a run at the default path before the print components when no
// application is there: no bundle for the agent step, and the bundle's list
// names an application that is missing.
std::string linesBeforeComponentsForMissingApp()
{
    return line(kCouldNotRemove, agentPlistPath(kDefaultApp)) + quietRunTail(kDefaultApp).manager +
           line(kNotFound, kDefaultApp);
}

// The lines of a run at the default path, installed there, before the print
// components: the list removes the application.
std::string linesBeforeComponents()
{
    const QuietRunTail tail = quietRunTail(kDefaultApp);
    return tail.agent + tail.manager + tail.fileList;
}

std::string bothComponentsNotFound()
{
    return line(kNotFound, kAutomatorAction) + line(kNotFound, kPdfServicesApp);
}

TEST(PrintComponentsAndFolderTest, NeitherPrintComponentPresentGivesTwoNotFoundLinesAutomatorActionFirst)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, linesBeforeComponents() +
                                         "Not found /Library/Automator/Save as Corvane PDF.action.\n"
                                         "Not found /Library/PDF Services/Save as Corvane PDF.app.\n" +
                                         line(kRemoved, kDefaultFolder));
}

TEST(PrintComponentsAndFolderTest, PrintComponentVersionThatIsNotTextEndsTheRunAbnormally)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    sandbox.writeFile(std::string(kAutomatorAction) + "/Contents/Info.plist",
                      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleVersion</key>"
                      "<integer>10</integer></dict></plist>\n");
    installVersionedBundle(sandbox, kPdfServicesApp, "10.0");

    const RunResult result = sandbox.run({"x", kDefaultApp});

    EXPECT_TRUE(result.signaled) << describe(result);
    EXPECT_EQ(result.signalNumber, 6) << describe(result);
    // Everything before the print components is in the output; neither
    // component nor the application folder was dealt with.
    EXPECT_EQ(result.standardOutput, linesBeforeComponents());
    EXPECT_NE(result.standardError.find("NSInvalidArgumentException"), std::string::npos) << result.standardError;
    EXPECT_TRUE(sandbox.exists(kAutomatorAction));
    EXPECT_TRUE(sandbox.exists(kPdfServicesApp));
    EXPECT_TRUE(sandbox.exists(kDefaultFolder));
}

TEST(PrintComponentsAndFolderTest, PrintComponentOfAnotherVersionGetsNoLineAndStays)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    installVersionedBundle(sandbox, kAutomatorAction, "9.4.1");

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput,
              linesBeforeComponents() + line(kNotFound, kPdfServicesApp) + line(kRemoved, kDefaultFolder));
    const std::vector<std::string> automator{
        "d /Library/Automator/Save as Corvane PDF.action",
        "d /Library/Automator/Save as Corvane PDF.action/Contents",
        "f /Library/Automator/Save as Corvane PDF.action/Contents/Info.plist",
    };
    EXPECT_EQ(sandbox.tree("/Library/Automator"), automator);
}

TEST(PrintComponentsAndFolderTest, PrintComponentsOfVersion10AreRemovedEachWithARemovedLine)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    installVersionedBundle(sandbox, kAutomatorAction, "10.0.3");
    installVersionedBundle(sandbox, kPdfServicesApp, "10");
    sandbox.writeFile(std::string(kPdfServicesApp) + "/Contents/MacOS/Save as Corvane PDF", "#!/bin/sh\n", 0755);

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, linesBeforeComponents() +
                                         "Removed /Library/Automator/Save as Corvane PDF.action.\n"
                                         "Removed /Library/PDF Services/Save as Corvane PDF.app.\n" +
                                         line(kRemoved, kDefaultFolder));
    // Only the components go; the folders that held them stay.
    const std::vector<std::string> left{"d /Library/Automator", "d /Library/PDF Services"};
    EXPECT_EQ(sandbox.tree("/Library"), left);
}

TEST(PrintComponentsAndFolderTest, MissingApplicationFolderGetsNothingFromTheIconStepAndNotFoundFromTheFolderStep)
{
    Sandbox sandbox;

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, linesBeforeComponentsForMissingApp() + bothComponentsNotFound() +
                                         "Not found /Applications/Corvane Lumidoc X Pro.\n");
}

TEST(PrintComponentsAndFolderTest, PlainFileWhereTheFolderShouldBeIsReportedAsNotAFolderAndStays)
{
    Sandbox sandbox;
    sandbox.writeFile(kDefaultFolder, "not a folder");

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, linesBeforeComponentsForMissingApp() + bothComponentsNotFound() +
                                         "Not a folder /Applications/Corvane Lumidoc X Pro.\n");
    EXPECT_EQ(sandbox.readFile(kDefaultFolder), "not a folder");
}

TEST(PrintComponentsAndFolderTest, FolderStillHoldingOneHiddenFileStaysAndCannotBeRemoved)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    sandbox.writeFile(std::string(kDefaultFolder) + "/.hidden", "");

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, linesBeforeComponents() + bothComponentsNotFound() +
                                         "Could not remove /Applications/Corvane Lumidoc X Pro.\n");
    const std::vector<std::string> left{
        "d /Applications/Corvane Lumidoc X Pro",
        "f /Applications/Corvane Lumidoc X Pro/.hidden",
    };
    EXPECT_EQ(sandbox.tree("/Applications"), left);
}

TEST(PrintComponentsAndFolderTest, EmptyFolderIsRemoved)
{
    Sandbox sandbox;
    sandbox.makeDirectory(kDefaultFolder);

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, linesBeforeComponentsForMissingApp() + bothComponentsNotFound() +
                                         "Removed /Applications/Corvane Lumidoc X Pro.\n");
    EXPECT_FALSE(sandbox.exists(kDefaultFolder));
}

TEST(PrintComponentsAndFolderTest, FolderHoldingOnlyItsCustomIconIsClearedSilentlyAndThenRemoved)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    sandbox.writeFile(std::string(kDefaultFolder) + "/" + kIconName, "icon data");

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput,
              linesBeforeComponents() + bothComponentsNotFound() + line(kRemoved, kDefaultFolder));
    EXPECT_FALSE(sandbox.exists(kDefaultFolder));
}

TEST(PrintComponentsAndFolderTest, AppInstalledElsewhereKeepsItsFolderAndGetsNoFolderLine)
{
    Sandbox sandbox;
    const std::string app = "/Applications/Other Place/Corvane Lumidoc Pro.app";
    installApp(sandbox, app);
    // An empty default folder stays too: the folder step does not run.
    sandbox.makeDirectory(kDefaultFolder);

    const RunResult result = sandbox.run({"x", app});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const QuietRunTail tail = quietRunTail(app);
    EXPECT_EQ(result.standardOutput, tail.agent + tail.manager +
                                         "Removed /Applications/Other Place/Corvane Lumidoc Pro.app.\n" +
                                         bothComponentsNotFound());
    const std::vector<std::string> left{"d /Applications/Corvane Lumidoc X Pro", "d /Applications/Other Place"};
    EXPECT_EQ(sandbox.tree("/Applications"), left);
}

TEST(PrintComponentsAndFolderTest, CustomIconThatCannotBeRemovedIsReportedAndTheFolderStepFollows)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    // A folder in the icon's place that is not empty cannot be removed.
    sandbox.writeFile(std::string(kDefaultFolder) + "/" + kIconName + "/inside", "");

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, linesBeforeComponents() + bothComponentsNotFound() +
                                         "Cannot remove the image for /Applications/Corvane Lumidoc X Pro.\n"
                                         "Could not remove /Applications/Corvane Lumidoc X Pro.\n");
    const std::vector<std::string> left{
        "d /Applications/Corvane Lumidoc X Pro",
        "d /Applications/Corvane Lumidoc X Pro/Icon\r",
        "f /Applications/Corvane Lumidoc X Pro/Icon\r/inside",
    };
    EXPECT_EQ(sandbox.tree("/Applications"), left);
}

}  // namespace
