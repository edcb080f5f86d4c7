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

}  // namespace testsupport
