// The package receipts step of a run: ten runs of the package tool, each
// waited for, the volume the application package is forgotten on, which
// receipts go and which stay, and how a path without a volume piece or a
// package tool that cannot be started ends the run.
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "tests/support/RemoverFixture.h"
#include "tests/support/Sandbox.h"
#include "tests/support/TempDir.h"

namespace {

using testsupport::agentPlistPath;
using testsupport::describe;
using testsupport::JournalEntry;
using testsupport::kCouldNotRemove;
using testsupport::kDefaultApp;
using testsupport::kNotFound;
using testsupport::line;
using testsupport::quietRunTail;
using testsupport::RunResult;
using testsupport::Sandbox;

constexpr int kSigabrt = 6;
constexpr char kAppPackagePattern[] = "com.corvane.lumidoc.10.viewer.app.pkg*";
constexpr char kListedAppName[] = "Corvane Lumidoc Pro.app";

// The runs of the nine further packages as the tool sees them: the pattern
// and no volume.
std::vector<JournalEntry> furtherPackageRuns()
{
    return {
        {"pkgutil", "--regexp", "--forget", "com.corvane.lumidoc.10.viewer.preinstall.pkg*"},
        {"pkgutil", "--regexp", "--forget", "com.corvane.lumidoc.10.viewer.appsupport.pkg*"},
        {"pkgutil", "--regexp", "--forget", "com.corvane.lumidoc.10.viewer.browser.pkg*"},
        {"pkgutil", "--regexp", "--forget", "com.corvane.lumidoc.10.viewer.print_automator.pkg*"},
        {"pkgutil", "--regexp", "--forget", "com.corvane.lumidoc.10.viewer.print_pdf_services.pkg*"},
        {"pkgutil", "--regexp", "--forget", "com.corvane.lumidoc.10.viewer.preferences.pkg*"},
        {"pkgutil", "--regexp", "--forget", "com.corvane.lumidoc.a10.LumidocUpd1001*"},
        {"pkgutil", "--regexp", "--forget", "com.corvane.lumidoc.a10.LumidocSecUpd1002*"},
        {"pkgutil", "--regexp", "--forget", "com.corvane.lumidoc.a10.LumidocSecUpd1003*"},
    };
}

// All ten runs: the application package on the volume, then the nine.
std::vector<JournalEntry> packageToolRuns(const std::string& volume)
{
    std::vector<JournalEntry> runs{{"pkgutil", "--regexp", "--forget", kAppPackagePattern, "--volume", volume}};
    const std::vector<JournalEntry> further = furtherPackageRuns();
    runs.insert(runs.end(), further.begin(), further.end());
    return runs;
}

// The journal entries of the package tool alone.
std::vector<JournalEntry> packageToolJournal(const Sandbox& sandbox)
{
    std::vector<JournalEntry> runs;
    for (JournalEntry& entry : sandbox.journal()) {
        if (!entry.empty() && entry.front() == "pkgutil") {
            runs.push_back(std::move(entry));
        }
    }
    return runs;
}

// What a run prints before the receipts step when no application exists at
// the path: the agent step finds no bundle and reports the agent named after
// the path made absolute; no reference file, no library in the built bundle.
std::string linesBeforeReceiptsForMissingApp(const std::string& absoluteAppPath)
{
    return line(kCouldNotRemove, agentPlistPath(absoluteAppPath)) + quietRunTail(absoluteAppPath).manager;
}

// What a run prints after the receipts step when the application's folder
// (as given, relative or not) holds nothing and is not the default one: the
// bundle's own list names the application in that folder, and neither print
// component is there.
std::string linesAfterReceiptsForMissingApp(const std::string& appFolder)
{
    return line(kNotFound, appFolder + "/" + kListedAppName) + quietRunTail(kDefaultApp).components;
}

// The package tool's own report of a receipt it forgot.
std::string forgot(const std::string& identifier, const std::string& volume)
{
    return "Forgot package '" + identifier + "' on '" + volume + "'.\n";
}

std::string sbinPath(const Sandbox& sandbox, const std::string& name)
{
    return sandbox.root() + "/sbin/" + name;
}

TEST(ReceiptRemovalTest, TenPackageToolRunsForgetTheApplicationPackageThenTheNineOthersInOrder)
{
    Sandbox sandbox;
    testsupport::installApp(sandbox, kDefaultApp);

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(packageToolJournal(sandbox), packageToolRuns("/"));
}

TEST(ReceiptRemovalTest, EachPackageToolRunEndsBeforeTheNextStartsAndBeforeTheSequenceGoesOn)
{
    Sandbox sandbox;
    testsupport::installApp(sandbox, kDefaultApp);
    sandbox.addReceipt("com.corvane.lumidoc.a10.LumidocSecUpd1003");
    // A slow package tool that marks its start and its end in the journal.
    std::filesystem::rename(sbinPath(sandbox, "pkgutil"), sbinPath(sandbox, "pkgutil-double"));
    testsupport::writeFile(sbinPath(sandbox, "pkgutil"), "#!/bin/sh\n"
                                                         "printf 'slow\\tstart\\n' >>/var/db/doubles/journal\n"
                                                         "sleep 0.2\n"
                                                         "/usr/sbin/pkgutil-double \"$@\"\n"
                                                         "status=$?\n"
                                                         "printf 'slow\\tend\\n' >>/var/db/doubles/journal\n"
                                                         "exit $status\n");
    ASSERT_EQ(::chmod(sbinPath(sandbox, "pkgutil").c_str(), 0755), 0);

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    std::vector<JournalEntry> expected;
    for (const JournalEntry& run : packageToolRuns("/")) {
        expected.push_back({"slow", "start"});
        expected.push_back(run);
        expected.push_back({"slow", "end"});
    }
    EXPECT_EQ(sandbox.journal(), expected);
    // The last run's report comes before the lines of the bundle's own list.
    const testsupport::QuietRunTail tail = quietRunTail(kDefaultApp);
    EXPECT_EQ(result.standardOutput, tail.agent + tail.manager +
                                         forgot("com.corvane.lumidoc.a10.LumidocSecUpd1003", "/") + tail.fileList +
                                         tail.components + tail.folder);
}

TEST(ReceiptRemovalTest, AppOnTheStartupVolumeHasItsPackageForgottenOnSlash)
{
    Sandbox sandbox;
    const std::string app = "/Applications/Tools/Corvane Lumidoc Pro.app";
    testsupport::installApp(sandbox, app);

    const RunResult result = sandbox.run({"x", app});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const std::vector<JournalEntry> runs = packageToolJournal(sandbox);
    ASSERT_FALSE(runs.empty());
    EXPECT_EQ(runs.front(), (JournalEntry{"pkgutil", "--regexp", "--forget", kAppPackagePattern, "--volume", "/"}));
}

TEST(ReceiptRemovalTest, AppOnAnotherVolumeHasOnlyItsPackageForgottenOnThatVolume)
{
    Sandbox sandbox;
    const std::string app = "/Volumes/Backup/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app";

    const RunResult result = sandbox.run({"x", app});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(packageToolJournal(sandbox), packageToolRuns("/Volumes/Backup"));
    EXPECT_EQ(result.standardOutput,
              linesBeforeReceiptsForMissingApp(app) +
                  linesAfterReceiptsForMissingApp("/Volumes/Backup/Applications/Corvane Lumidoc X Pro"));
}

TEST(ReceiptRemovalTest, AppDirectlyInAVolumesRootHasItsPackageForgottenOnThatVolume)
{
    Sandbox sandbox;
    const std::string app = "/Volumes/Backup/App.app";

    const RunResult result = sandbox.run({"x", app});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(packageToolJournal(sandbox), packageToolRuns("/Volumes/Backup"));
    EXPECT_EQ(result.standardOutput,
              linesBeforeReceiptsForMissingApp(app) + linesAfterReceiptsForMissingApp("/Volumes/Backup"));
}

TEST(ReceiptRemovalTest, VolumesInLowerCaseIsNotAnotherVolume)
{
    Sandbox sandbox;
    const std::string app = "/volumes/backup/App.app";

    const RunResult result = sandbox.run({"x", app});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(packageToolJournal(sandbox), packageToolRuns("/"));
    EXPECT_EQ(result.standardOutput,
              linesBeforeReceiptsForMissingApp(app) + linesAfterReceiptsForMissingApp("/volumes/backup"));
}

TEST(ReceiptRemovalTest, RelativePathStartingWithVolumesIsOnTheStartupVolume)
{
    Sandbox sandbox;

    const RunResult result = sandbox.run({"x", "Volumes/Backup/App.app"});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(packageToolJournal(sandbox), packageToolRuns("/"));
    // The agent is named after the path made absolute from the working
    // folder "/"; the list's relative entry stays relative to the folder as
    // given.
    EXPECT_EQ(result.standardOutput, linesBeforeReceiptsForMissingApp("/Volumes/Backup/App.app") +
                                         linesAfterReceiptsForMissingApp("Volumes/Backup"));
}

TEST(ReceiptRemovalTest, MissingReceiptsPrintNothingOfTheRemoversOwnAndEveryLaterRunAndStepFollows)
{
    Sandbox sandbox;
    testsupport::installApp(sandbox, kDefaultApp);

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(packageToolJournal(sandbox), packageToolRuns("/"));
    const testsupport::QuietRunTail tail = quietRunTail(kDefaultApp);
    EXPECT_EQ(result.standardOutput, tail.agent + tail.manager + tail.fileList + tail.components + tail.folder);
    // The tool's complaints go to the standard error it shares with the
    // remover, the first and the last alike.
    EXPECT_NE(result.standardError.find("No receipt for 'com.corvane.lumidoc.10.viewer.app.pkg*' found at '/'."),
              std::string::npos)
        << describe(result);
    EXPECT_NE(result.standardError.find("No receipt for 'com.corvane.lumidoc.a10.LumidocSecUpd1003*' found at '/'."),
              std::string::npos)
        << describe(result);
}

TEST(ReceiptRemovalTest, ReceiptsMatchingThePatternsAsRegularExpressionsAreForgottenAndOthersSurvive)
{
    Sandbox sandbox;
    testsupport::installApp(sandbox, kDefaultApp);
    // Forgotten: the trailing "*" repeats the last character any number of
    // times, none included, and every "." matches any character.
    const std::vector<std::string> forgotten{
        "com.corvane.lumidoc.10.viewer.app.pk",
        "com.corvane.lumidoc.10.viewer.app.pkg",
        "com.corvane.lumidoc.10.viewer.app.pkggg",
        "com.corvane.lumidoc.10.viewer.preinstall.pkg",
        "com.corvane.lumidoc.10.viewer.appsupport.pkg",
        "com-corvane-lumidoc-10-viewer-browser-pkg",
        "com.corvane.lumidoc.10.viewer.print_automator.pkg",
        "com.corvane.lumidoc.10.viewer.preferences.pkg",
        "com.corvane.lumidoc.a10.LumidocUpd1001",
        "com.corvane.lumidoc.a10.LumidocUpd10011",
        "com.corvane.lumidoc.a10.LumidocSecUpd1002",
        "com.corvane.lumidoc.a10.LumidocSecUpd1003",
    };
    // Kept: a pattern must match the whole identifier.
    const std::vector<std::string> unrelated{
        "com.corvane.lumidoc.10.viewer.app.pkg.extra",
        "com.corvane.lumidoc.10.viewer.app.pkgs",
        "com.corvane.lumidoc.11.viewer.app.pkg",
        "com.corvane.lumidoc.a10.LumidocSecUpd1004",
        "com.example.other.pkg",
    };
    for (const std::string& identifier : forgotten) {
        sandbox.addReceipt(identifier);
    }
    for (const std::string& identifier : unrelated) {
        sandbox.addReceipt(identifier);
    }

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(sandbox.receipts(), unrelated);
    // The tool's reports land between the remover's lines, run by run (no
    // receipt for the PDF Services package: that run reports nothing).
    const testsupport::QuietRunTail tail = quietRunTail(kDefaultApp);
    EXPECT_EQ(result.standardOutput,
              tail.agent + tail.manager +                                             //
                  forgot("com.corvane.lumidoc.10.viewer.app.pk", "/") +               //
                  forgot("com.corvane.lumidoc.10.viewer.app.pkg", "/") +              //
                  forgot("com.corvane.lumidoc.10.viewer.app.pkggg", "/") +            //
                  forgot("com.corvane.lumidoc.10.viewer.preinstall.pkg", "/") +       //
                  forgot("com.corvane.lumidoc.10.viewer.appsupport.pkg", "/") +       //
                  forgot("com-corvane-lumidoc-10-viewer-browser-pkg", "/") +          //
                  forgot("com.corvane.lumidoc.10.viewer.print_automator.pkg", "/") +  //
                  forgot("com.corvane.lumidoc.10.viewer.preferences.pkg", "/") +      //
                  forgot("com.corvane.lumidoc.a10.LumidocUpd1001", "/") +             //
                  forgot("com.corvane.lumidoc.a10.LumidocUpd10011", "/") +            //
                  forgot("com.corvane.lumidoc.a10.LumidocSecUpd1002", "/") +          //
                  forgot("com.corvane.lumidoc.a10.LumidocSecUpd1003", "/") +          //
                  tail.fileList + tail.components + tail.folder);
}

TEST(ReceiptRemovalTest, AppOnAnotherVolumeLeavesTheFurtherPackagesReceiptsOnThatVolume)
{
    Sandbox sandbox;
    const std::string app = "/Volumes/Backup/Applications/Corvane Lumidoc Pro.app";
    sandbox.addReceipt("com.corvane.lumidoc.10.viewer.app.pkg", "/Volumes/Backup");
    sandbox.addReceipt("com.corvane.lumidoc.10.viewer.preinstall.pkg", "/Volumes/Backup");
    sandbox.addReceipt("com.corvane.lumidoc.10.viewer.app.pkgg", "/");
    sandbox.addReceipt("com.corvane.lumidoc.10.viewer.browser.pkg", "/");

    const RunResult result = sandbox.run({"x", app});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(sandbox.receipts("/Volumes/Backup"),
              std::vector<std::string>{"com.corvane.lumidoc.10.viewer.preinstall.pkg"});
    EXPECT_EQ(sandbox.receipts("/"), std::vector<std::string>{"com.corvane.lumidoc.10.viewer.app.pkgg"});
    EXPECT_EQ(result.standardOutput, linesBeforeReceiptsForMissingApp(app) +
                                         forgot("com.corvane.lumidoc.10.viewer.app.pkg", "/Volumes/Backup") +
                                         forgot("com.corvane.lumidoc.10.viewer.browser.pkg", "/") +
                                         linesAfterReceiptsForMissingApp("/Volumes/Backup/Applications"));
}

TEST(ReceiptRemovalTest, AppPathWithoutASlashEndsTheRunAbnormallyAfterTheLinesBeforeTheReceipts)
{
    Sandbox sandbox;
    testsupport::installVersionedBundle(sandbox, testsupport::kAutomatorAction, "10.0.3");

    const RunResult result = sandbox.run({"x", "App.app"});

    EXPECT_TRUE(result.signaled) << describe(result);
    EXPECT_EQ(result.signalNumber, kSigabrt);
    EXPECT_EQ(result.exitStatus, 128 + kSigabrt);
    // Everything printed before is there; nothing of the later steps is.
    EXPECT_EQ(result.standardOutput, linesBeforeReceiptsForMissingApp("/App.app"));
    EXPECT_TRUE(packageToolJournal(sandbox).empty());
    EXPECT_TRUE(sandbox.exists(std::string(testsupport::kAutomatorAction) + "/Contents/Info.plist"));
}

TEST(ReceiptRemovalTest, AppPathEndingAtVolumesEndsTheRunAbnormallyAfterTheLinesBeforeTheReceipts)
{
    Sandbox sandbox;

    const RunResult result = sandbox.run({"x", "/Volumes"});

    EXPECT_TRUE(result.signaled) << describe(result);
    EXPECT_EQ(result.signalNumber, kSigabrt);
    EXPECT_EQ(result.standardOutput, linesBeforeReceiptsForMissingApp("/Volumes"));
    EXPECT_TRUE(packageToolJournal(sandbox).empty());
}

TEST(ReceiptRemovalTest, PackageToolThatCannotBeStartedEndsTheRunAbnormallyAfterTheLinesBeforeIt)
{
    Sandbox sandbox;
    testsupport::installApp(sandbox, kDefaultApp);
    // Executable, but its interpreter does not exist: starting it fails.
    testsupport::writeFile(sbinPath(sandbox, "pkgutil"), "#!/nonexistent/interpreter\n");
    ASSERT_EQ(::chmod(sbinPath(sandbox, "pkgutil").c_str(), 0755), 0);

    const RunResult result = sandbox.run({"x", kDefaultApp});

    EXPECT_TRUE(result.signaled) << describe(result);
    EXPECT_EQ(result.signalNumber, kSigabrt);
    EXPECT_EQ(result.exitStatus, 128 + kSigabrt);
    const testsupport::QuietRunTail tail = quietRunTail(kDefaultApp);
    EXPECT_EQ(result.standardOutput, tail.agent + tail.manager);
    // The bundle's own list never ran: the application is still there.
    EXPECT_TRUE(sandbox.exists(std::string(kDefaultApp) + "/Contents/Info.plist"));
}

}  // namespace
