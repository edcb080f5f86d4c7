#include "tests/e2e/RemoverFixture.h"

#include <stdexcept>

namespace remover_e2e {

std::string line(const std::string& word, const std::string& subject)
{
    return word + " " + subject + ".\n";
}

std::string sha224Hex(const std::string& text)
{
    testsupport::TempDir dir;
    testsupport::writeFile(dir.at("input"), text);
    const testsupport::RunResult result =
        testsupport::runCommand({"openssl", "dgst", "-sha224", "-r", dir.at("input")});
    if (result.exitStatus != 0 || result.standardOutput.size() < 56) {
        throw std::runtime_error("openssl dgst failed: " + result.standardError);
    }
    return result.standardOutput.substr(0, 56);
}

std::string agentPlistPath(const std::string& appPath)
{
    return "/root/Library/LaunchAgents/com.corvane.QEL." + sha224Hex(appPath) + ".plist";
}

namespace {

std::string plistDocument(const std::string& body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n<dict>\n" +
           body + "</dict>\n</plist>\n";
}

std::string xmlEscaped(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        default: out += c;
        }
    }
    return out;
}

}  // namespace

void installApp(const testsupport::Sandbox& sandbox, const std::string& appPath, const std::string& identifier,
                const std::string& version)
{
    sandbox.writeFile(appPath + "/Contents/Info.plist",
                      plistDocument("\t<key>CFBundleIdentifier</key>\n\t<string>" + xmlEscaped(identifier) +
                                    "</string>\n\t<key>CFBundleVersion</key>\n\t<string>" + xmlEscaped(version) +
                                    "</string>\n\t<key>CFBundleExecutable</key>\n\t<string>Lumidoc</string>\n"));
    sandbox.writeFile(appPath + "/Contents/MacOS/Lumidoc", "#!/bin/sh\n", 0755);
}

void installVersionedBundle(const testsupport::Sandbox& sandbox, const std::string& path, const std::string& version)
{
    sandbox.writeFile(path + "/Contents/Info.plist",
                      plistDocument("\t<key>CFBundleVersion</key>\n\t<string>" + xmlEscaped(version) + "</string>\n"));
}

void writePluginPreferences(const testsupport::Sandbox& sandbox, const std::string& value)
{
    sandbox.writeFile(kPluginPreferences,
                      plistDocument("\t<key>WebBrowserUsePath</key>\n\t<string>" + xmlEscaped(value) + "</string>\n"));
}

void writeAgent(const testsupport::Sandbox& sandbox, const std::string& path, const std::string& label,
                const std::vector<std::string>& programArguments)
{
    std::string arguments;
    for (const std::string& argument : programArguments) {
        arguments += "\t\t<string>" + xmlEscaped(argument) + "</string>\n";
    }
    sandbox.writeFile(path, plistDocument("\t<key>Label</key>\n\t<string>" + xmlEscaped(label) +
                                          "</string>\n\t<key>ProgramArguments</key>\n\t<array>\n" + arguments +
                                          "\t</array>\n\t<key>RunAtLoad</key>\n\t<true/>\n"));
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

}  // namespace remover_e2e
