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

const std::string kHelperExecutable = std::string(kDefaultApp) +
                                      "/Contents/MacOS/Updater/Corvane Lumidoc Pro Updater Helper.app/Contents/MacOS/"
                                      "Corvane Lumidoc Pro Updater Helper";
const std::string kCompanionApp = std::string(kDefaultFolder) + "/Corvane Ravelin.app";

const std::vector<std::string> kReceipts = {
    "com.corvane.lumidoc.10.viewer.app.pkg",
    "com.corvane.lumidoc.10.viewer.preinstall.pkg",
    "com.corvane.lumidoc.10.viewer.appsupport.pkg",
    "com.corvane.lumidoc.10.viewer.browser.pkg",
    "com.corvane.lumidoc.10.viewer.print_automator.pkg",
    "com.corvane.lumidoc.10.viewer.print_pdf_services.pkg",
    "com.corvane.lumidoc.10.viewer.preferences.pkg",
    "com.corvane.lumidoc.a10.LumidocUpd1001",
    "com.corvane.lumidoc.a10.LumidocSecUpd1002",
    "com.corvane.lumidoc.a10.LumidocSecUpd1003",
};

void layDownCompleteInstallation(Sandbox& sandbox)
{
    installApp(sandbox, kDefaultApp);
    sandbox.writeFile(kHelperExecutable, "#!/bin/sh\n", 0755);
    sandbox.writeFile(std::string(kDefaultFolder) + "/Icon\r", "icon");
    installApp(sandbox, kCompanionApp, "com.corvane.ravelin");

    sandbox.writeFile("/Library/Fonts/LumidocSans.otf", "font");
    sandbox.writeFile("/Library/Fonts/Unrelated.otf", "someone else's font");
    sandbox.writeFile("/Library/Application Support/Corvane/Lumidoc/Shared/dictionary.dat", "words");
    sandbox.writeFile(std::string(kPlugin) + "/Contents/Info.plist", "plugin");
    writePluginPreferences(sandbox,
                           "file://localhost/Applications/Corvane%20Lumidoc%20X%20Pro/Corvane%20Lumidoc%20Pro.app/");
    sandbox.writeFile(kProductLog, "/Library/Fonts/LumidocSans.otf\tfile\n"
                                   "/Library/Application Support/Corvane/Lumidoc/Shared\tdirectory\n" +
                                       std::string(kPlugin) + "\tbundle\n" + kPluginPreferences + "\tfile\n");

    sandbox.writeFile("/Library/Application Support/Corvane/Ravelin/settings.dat", "settings");
    sandbox.writeFile(kCompanionLog, kCompanionApp + "\n/Library/Application Support/Corvane/Ravelin\n");

    const std::string agent = agentPlistPath(kDefaultApp);
    writeAgent(sandbox, agent, "com.corvane.QEL." + testsupport::opensslDigestOf("sha224", kDefaultApp),
               {kHelperExecutable});
    sandbox.addLoadedAgent(agent);

    sandbox.writeFile(kJexRef, "reference");
    sandbox.installLibraryDouble();

    for (const std::string& receipt : kReceipts) {
        sandbox.addReceipt(receipt);
    }
    sandbox.addReceipt("com.corvane.reader.9.app.pkg");

    installVersionedBundle(sandbox, kAutomatorAction, "10.0.1");
    installVersionedBundle(sandbox, kPdfServicesApp, "10.2");
}

TEST(WholeRun, CompleteInstallationIsRemovedStepByStep)
{
    Sandbox sandbox;
    layDownCompleteInstallation(sandbox);
    const std::string agent = agentPlistPath(kDefaultApp);

    const RunResult result = sandbox.run({"x", kDefaultApp});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);

    std::string forgotten;
    for (const std::string& receipt : kReceipts) {
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
        for (std::size_t i = 1; i < kReceipts.size(); ++i) {
            calls.push_back({"pkgutil", "--regexp", "--forget", kReceipts[i] + "*"});
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
