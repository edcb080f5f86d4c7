// One whole run of the remover over a complete installation of the suite:
// every step in order, its output line by line, what it ran, and what is
// left afterwards.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/support/OpensslDigests.h"
#include "tests/support/RemoverFixture.h"

namespace {

using namespace testsupport;
using testsupport::JournalEntry;
using testsupport::RunResult;
using testsupport::Sandbox;

TEST(WholeRun, CompleteInstallationIsRemovedStepByStep)
{
    Sandbox sandbox;
    layDownCompleteInstallation(sandbox);
    const std::string agent = agentPlistPath(kDefaultApp);

    const RunResult result = sandbox.run({"x", kDefaultApp});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);

    std::string forgotten;
    for (const std::string& receipt : kSuiteReceipts) {
        forgotten += "Forgot package '" + receipt + "' on '/'.\n";
    }
    EXPECT_EQ(result.standardOutput,
              // The product's install log, then the log itself.
              line(kRemoved, "/Library/Fonts/LumidocSans.otf") +
                  line(kRemoved, "/Library/Application Support/Corvane/Lumidoc/Shared") + line(kRemoved, kPlugin) +
                  line(kRemoved, kPluginPreferences) + line(kRemoved, kProductLog) +
                  // The companion application's install log.
                  line(kRemoved, kCompanionApp) + line(kRemoved, "/Library/Application Support/Corvane/Ravelin") +
                  line(kRemoved, kCompanionLog) +
                  // The updater agent, the application manager, the receipts
                  // (the package tool's own lines).
                  line(kRemoved, agent) + line(kRemoved, kJexRef) + kManagerUninstalled + "\n" + forgotten +
                  // The bundle's own list: the application; the plug-in's
                  // entries are protected again now that its preferences
                  // are gone.
                  line(kRemoved, kDefaultApp) +
                  // Print components, then the emptied application folder.
                  line(kRemoved, kAutomatorAction) + line(kRemoved, kPdfServicesApp) + line(kRemoved, kDefaultFolder));

    const std::vector<JournalEntry> expectedJournal = [&] {
        std::vector<JournalEntry> calls = {
            {"launchctl", "unload", agent},
            {"CorvaneHOV", "load"},
            {"CorvaneHOV", "hov_uninstallCorvaneApplicationManager"},
            {"CorvaneHOV", "unload"},
            {"pkgutil", "--regexp", "--forget", "com.corvane.lumidoc.10.viewer.app.pkg*", "--volume", "/"},
        };
        for (std::size_t i = 1; i < kSuiteReceipts.size(); ++i) {
            calls.push_back({"pkgutil", "--regexp", "--forget", kSuiteReceipts[i] + "*"});
        }
        return calls;
    }();
    EXPECT_EQ(sandbox.journal(), expectedJournal);
    EXPECT_EQ(sandbox.receipts(), std::vector<std::string>{"com.corvane.reader.9.app.pkg"});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});

    EXPECT_EQ(sandbox.tree(), (std::vector<std::string>{
                                  "d /Library/Application Support",
                                  "d /Library/Application Support/Corvane",
                                  "d /Library/Application Support/Corvane/CorvaneApplicationManager",
                                  "d /Library/Application Support/Corvane/CorvaneApplicationManager/JEXRefs",
                                  "d /Library/Application Support/Corvane/Lumidoc",
                                  "d /Library/Application Support/Corvane/Lumidoc/com.corvane.lumidoc.pro",
                                  "d /Library/Application Support/Corvane/Lumidoc/com.corvane.ravelin",
                                  "d /Library/Automator",
                                  "d /Library/Fonts",
                                  "f /Library/Fonts/Unrelated.otf",
                                  "d /Library/Internet Plug-Ins",
                                  "d /Library/PDF Services",
                                  "d /Library/Preferences",
                                  "d /root/Library",
                                  "d /root/Library/LaunchAgents",
                              }));
}

TEST(WholeRun, SecondRunOverTheRemainsFindsNothingLeftToRemove)
{
    Sandbox sandbox;
    layDownCompleteInstallation(sandbox);
    ASSERT_EQ(sandbox.run({"x", kDefaultApp}).exitStatus, 0);
    sandbox.clearJournal();

    const RunResult again = sandbox.run({"x", kDefaultApp});
    ASSERT_EQ(again.exitStatus, 0) << describe(again);
    // Without the application bundle the agent step has no bundle to open.
    EXPECT_EQ(again.standardOutput, line(kCouldNotRemove, agentPlistPath(kDefaultApp)) +
                                        line(kCouldNotRemove, kJexRef) + kManagerUninstalled + "\n" +
                                        line(kNotFound, kDefaultApp) + line(kNotFound, kAutomatorAction) +
                                        line(kNotFound, kPdfServicesApp) + line(kNotFound, kDefaultFolder));
}

}  // namespace
