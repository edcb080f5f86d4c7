#include "tests/support/RemoverFixture.h"

#include "tests/support/OpensslDigests.h"
#include "tests/support/PlistXml.h"

namespace testsupport {

std::string line(const std::string& word, const std::string& subject)
{
    return word + " " + subject + ".\n";
}

std::string agentPlistPath(const std::string& appPath)
{
    return "/root/Library/LaunchAgents/com.corvane.QEL." + opensslDigestOf("sha224", appPath) + ".plist";
}

void installApp(const testsupport::Sandbox& sandbox, const std::string& appPath, const std::string& identifier,
                const std::string& version)
{
    sandbox.writeFile(appPath + "/Contents/Info.plist",
                      plistDocument(plistStringEntry("CFBundleIdentifier", identifier) +
                                    plistStringEntry("CFBundleVersion", version) +
                                    plistStringEntry("CFBundleExecutable", "Lumidoc")));
    sandbox.writeFile(appPath + "/Contents/MacOS/Lumidoc", "#!/bin/sh\n", 0755);
}

void installVersionedBundle(const testsupport::Sandbox& sandbox, const std::string& path, const std::string& version)
{
    sandbox.writeFile(path + "/Contents/Info.plist", plistDocument(plistStringEntry("CFBundleVersion", version)));
}

void writePluginPreferences(const testsupport::Sandbox& sandbox, const std::string& value)
{
    sandbox.writeFile(kPluginPreferences, plistDocument(plistStringEntry("WebBrowserUsePath", value)));
}

void writeAgent(const testsupport::Sandbox& sandbox, const std::string& path, const std::string& label,
                const std::vector<std::string>& programArguments)
{
    sandbox.writeFile(path, plistDocument(plistStringEntry("Label", label) +
                                          plistStringArrayEntry("ProgramArguments", programArguments) +
                                          plistTrueEntry("RunAtLoad")));
}

QuietRunTail quietRunTail(const std::string& appPath)
{
    QuietRunTail tail;
    tail.agent = line(kRemoved, agentPlistPath(appPath));
    tail.manager = line(kCouldNotRemove, kJexRef) + kManagerFailed + std::string(" MISSING_CORVANEHOV:") +
                   kLibraryInBundle + ".\n";
    const std::string folder = appPath.substr(0, appPath.rfind('/'));
    const bool listedAppIsThisOne = appPath == folder + "/Corvane Lumidoc Pro.app";
    tail.fileList = line(listedAppIsThisOne ? kRemoved : kNotFound, folder + "/Corvane Lumidoc Pro.app");
    tail.components = line(kNotFound, kAutomatorAction) + line(kNotFound, kPdfServicesApp);
    tail.folder = line(kRemoved, kDefaultFolder);
    return tail;
}

std::string describe(const testsupport::RunResult& result)
{
    return "exit status " + std::to_string(result.exitStatus) + "\n--- stdout:\n" + result.standardOutput +
           "--- stderr:\n" + result.standardError;
}

namespace {

const std::string kHelperExecutable = std::string(kDefaultApp) +
                                      "/Contents/MacOS/Updater/Corvane Lumidoc Pro Updater Helper.app/Contents/MacOS/"
                                      "Corvane Lumidoc Pro Updater Helper";

}  // namespace

const std::vector<std::string> kSuiteReceipts = {
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
    sandbox.writeFile(kCompanionLog, std::string(kCompanionApp) + "\n/Library/Application Support/Corvane/Ravelin\n");

    const std::string agent = agentPlistPath(kDefaultApp);
    writeAgent(sandbox, agent, "com.corvane.QEL." + testsupport::opensslDigestOf("sha224", kDefaultApp),
               {kHelperExecutable});
    sandbox.addLoadedAgent(agent);

    sandbox.writeFile(kJexRef, "reference");
    sandbox.installLibraryDouble();

    for (const std::string& receipt : kSuiteReceipts) {
        sandbox.addReceipt(receipt);
    }
    sandbox.addReceipt("com.corvane.reader.9.app.pkg");

    installVersionedBundle(sandbox, kAutomatorAction, "10.0.1");
    installVersionedBundle(sandbox, kPdfServicesApp, "10.2");
}

}  // namespace testsupport
