// What the remover's end-to-end tests share: the fixed paths of the suite's
// installation, the status words of the bundle's strings table, sample
// installation pieces, and the launch-agent path worked out independently of
// the remover (with openssl).
#pragma once

#include <string>
#include <vector>

#include "tests/support/Sandbox.h"

namespace testsupport {

inline constexpr char kDefaultApp[] = "/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app";
inline constexpr char kDefaultFolder[] = "/Applications/Corvane Lumidoc X Pro";
inline constexpr char kLogFolder[] = "/Library/Application Support/Corvane/Lumidoc";
inline constexpr char kAppIdentifier[] = "com.corvane.lumidoc.pro";
inline constexpr char kProductLog[] =
    "/Library/Application Support/Corvane/Lumidoc/com.corvane.lumidoc.pro/uninstall.log";
inline constexpr char kCompanionLog[] =
    "/Library/Application Support/Corvane/Lumidoc/com.corvane.ravelin/uninstall.log";
inline constexpr char kPlugin[] = "/Library/Internet Plug-Ins/CorvanePDFViewer.plugin";
inline constexpr char kPluginPreferences[] = "/Library/Preferences/com.corvane.lumidoc.pdfviewer.plist";
inline constexpr char kAutomatorAction[] = "/Library/Automator/Save as Corvane PDF.action";
inline constexpr char kPdfServicesApp[] = "/Library/PDF Services/Save as Corvane PDF.app";
inline constexpr char kJexRef[] =
    "/Library/Application Support/Corvane/CorvaneApplicationManager/JEXRefs/com.corvane.Lumidoc_10.jexref";
inline constexpr char kLibraryInBundle[] = "/opt/RemoverTool.app/Contents/Frameworks/CorvaneHOV.dylib";

// The words of the bundle's English strings table.
inline constexpr char kRemoved[] = "Removed";
inline constexpr char kCouldNotRemove[] = "Could not remove";
inline constexpr char kNotFound[] = "Not found";
inline constexpr char kNotAFolder[] = "Not a folder";
inline constexpr char kManagerUninstalled[] = "Application manager uninstalled";
inline constexpr char kManagerFailed[] = "Application manager uninstall failed";

// "<word> <subject>.\n"
std::string line(const std::string& word, const std::string& subject);

// "/root/Library/LaunchAgents/com.corvane.QEL.<sha224 of appPath>.plist",
// the digest taken from openssl.
std::string agentPlistPath(const std::string& appPath);

// An application bundle at appPath with the identifier and version.
void installApp(const testsupport::Sandbox& sandbox, const std::string& appPath,
                const std::string& identifier = kAppIdentifier, const std::string& version = "10.0.3");
// A bundle folder with only an Info.plist naming the version.
void installVersionedBundle(const testsupport::Sandbox& sandbox, const std::string& path, const std::string& version);
// The plug-in's preference file with "WebBrowserUsePath" set to value.
void writePluginPreferences(const testsupport::Sandbox& sandbox, const std::string& value);
// A launch agent property list (XML) with the label and program arguments.
void writeAgent(const testsupport::Sandbox& sandbox, const std::string& path, const std::string& label,
                const std::vector<std::string>& programArguments);

// The companion application inside the default folder.
inline constexpr char kCompanionApp[] = "/Applications/Corvane Lumidoc X Pro/Corvane Ravelin.app";
// The suite's package receipts, in the order the remover forgets them.
extern const std::vector<std::string> kSuiteReceipts;

// A complete installation of the suite: the application with its updater
// helper and folder icon, the companion application, both install logs
// naming files in standard folders (next to an unrelated font that stays),
// the browser plug-in with preferences naming this application, the loaded
// updater agent, the application-manager reference and the library double,
// the ten receipts and an unrelated one, and both print components.
void layDownCompleteInstallation(Sandbox& sandbox);

// The lines of a run over a fixture that holds the application at appPath
// and nothing else of the suite, from the agent step on, with the bundle's
// own list naming the application relative to its folder.
struct QuietRunTail {
    std::string agent;       // the agent line
    std::string manager;     // reference file and library lines
    std::string fileList;    // the bundle's own list
    std::string components;  // the two print components
    std::string folder;      // the application folder, when it is the default one
};
QuietRunTail quietRunTail(const std::string& appPath);

std::string describe(const testsupport::RunResult& result);

}  // namespace testsupport
