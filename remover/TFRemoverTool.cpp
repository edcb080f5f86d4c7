#include "remover/TFRemoverTool.h"

#include <cstddef>
#include <cstdio>
#include <dlfcn.h>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "fsutil/SetupQELAgent.h"
#include "identities/ExternalTools.h"
#include "platform/Bundle.h"
#include "platform/ConsoleLog.h"
#include "platform/DestroyFailures.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/Path.h"
#include "platform/PropertyList.h"
#include "platform/Task.h"
#include "platform/Text.h"
#include "platform/TrustedFile.h"
#include "platform/Workspace.h"
#include "remover/InstallLogList.h"

int32_t (*_hov_uninstallCorvaneApplicationManager)(int32_t*) = nullptr;  // NOLINT

namespace {

using platform::FileManager;
using platform::Workspace;
using platform::WorkspaceOperation;

constexpr char kDefaultAppParentPath[] = "/Applications/Corvane Lumidoc X Pro";
constexpr char kInstallLogFolder[] = "/Library/Application Support/Corvane/Lumidoc/";
constexpr char kInstallLogName[] = "uninstall.log";
constexpr char kCompanionIdentifier[] = "com.corvane.ravelin";
constexpr char kBrowserPluginPath[] = "/Library/Internet Plug-Ins/CorvanePDFViewer.plugin";
constexpr char kBrowserPluginPreferencesPath[] = "/Library/Preferences/com.corvane.lumidoc.pdfviewer.plist";
constexpr char kBrowserPluginAppKey[] = "WebBrowserUsePath";
constexpr char kFileURLPrefix[] = "file://localhost";
constexpr char kApplicationPackage[] = "com.corvane.lumidoc.10.viewer.app.pkg";
constexpr const char* kFurtherPackages[] = {
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
constexpr const char* kPrintComponents[] = {
    "/Library/Automator/Save as Corvane PDF.action",
    "/Library/PDF Services/Save as Corvane PDF.app",
};
constexpr char kApplicationManagerReference[] =
    "/Library/Application Support/Corvane/CorvaneApplicationManager/JEXRefs/com.corvane.Lumidoc_10.jexref";
constexpr int kCurrentMajorVersion = 10;

// Keys of the status words in the strings table; a key without a
// translation prints as itself.
constexpr char kStatusRemoved[] = "Removed";
constexpr char kStatusErrorRemovingFile[] = "ErrorRemovingFile";
constexpr char kStatusFileMissing[] = "FileMissing";
constexpr char kStatusMissingDirectory[] = "MissingDirectory";
constexpr char kStatusJEXUninstallSucceeded[] = "JEXUninstallSucceeded";
constexpr char kStatusJEXUninstallFailed[] = "JEXUninstallFailed";

// Appends text used as its own format template with no arguments: "%%"
// becomes "%", and any other conversion, lacking an argument, stays as
// written. A text without a percent sign is appended unchanged.
std::string appendingFormatWithoutArguments(const std::string& base, const std::string& formatText)
{
    std::string result = base;
    for (std::size_t i = 0; i < formatText.size(); ++i) {
        if (formatText[i] == '%' && i + 1 < formatText.size() && formatText[i + 1] == '%') {
            result += '%';
            ++i;
        } else {
            result += formatText[i];
        }
    }
    return result;
}

// True when the text can name one folder inside another: not empty, not "."
// or "..", and without a slash.
bool isFolderName(const std::string& text)
{
    return !text.empty() && text != "." && text != ".." && text.find('/') == std::string::npos;
}

// The name the library's status code is reported by, or none for success.
const char* failingStatusName(int32_t status)
{
    switch (status) {
    case -6: return "HOV_USTATUS_FATAL";
    case -5: return "HOV_USTATUS_FAILED_TO_MOVE_JEX_DIRECTORY";
    case -4: return "HOV_USTATUS_FAILED_TO_DEL_JEX_INVENTORY";
    case -3: return "HOV_USTATUS_FAILED_TO_DEL_JEX_DIRECTORY";
    case -2: return "HOV_USTATUS_DEPLOY_VALIDATION_FAILED";
    case -1: return "HOV_USTATUS_FAILURE";
    // "Ignore" is reported as a failure, and every code the table does not
    // know counts as success: both are long-standing behaviour.
    case 1: return "HOV_USTATUS_IGNORE";
    default: return nullptr;
    }
}

}  // namespace

TFRemoverTool::~TFRemoverTool() = default;

void TFRemoverTool::setAppPath(const std::string& path)
{
    if (theAppPath && &path == &*theAppPath) {
        return;
    }
    theAppPath = path;
    theAppParentPath = platform::deletingLastPathComponent(path);
}

void TFRemoverTool::run()
{
    const std::optional<platform::Bundle> mainBundle = platform::Bundle::mainBundle();
    const std::optional<std::string> fileListPath =
        mainBundle ? mainBundle->pathForResource("FileList", "txt") : std::nullopt;
    const std::optional<std::string> productLogPath = productInstallLogPath();
    const std::string companionLogPath =
        platform::appendingPathComponents(kInstallLogFolder, {kCompanionIdentifier, kInstallLogName});

    removeInstallLog(productLogPath);
    removeInstallLog(companionLogPath);
    removeQELLaunchdAgent();
    uninstallJEX();
    forgetReceipts();
    if (fileListPath) {
        listToDelete(*fileListPath);
    }
    deletePrintComponents();
    if (theAppParentPath == kDefaultAppParentPath) {
        removeIconForFolder(*theAppParentPath);
        deleteParentFolder(*theAppParentPath);
    }
}

std::optional<std::string> TFRemoverTool::productInstallLogPath() const
{
    if (!theAppPath) {
        return std::nullopt;
    }
    const std::optional<platform::Bundle> app = platform::Bundle::bundleWithPath(*theAppPath);
    const std::optional<std::string> identifier = app ? app->bundleIdentifier() : std::nullopt;
    if (!identifier) {
        return std::nullopt;
    }
    // The identifier is one folder name; anything else could lead the read
    // out of the log folder ("../../../Users/Shared/x").
    if (!isFolderName(*identifier)) {
        platform::ConsoleLog::log("no install log: the bundle identifier \"" + *identifier + "\" is not a folder name");
        return std::nullopt;
    }
    return platform::appendingPathComponents(kInstallLogFolder, {*identifier, kInstallLogName});
}

void TFRemoverTool::removeInstallLog(const std::optional<std::string>& logPath)
{
    bool isDirectory = false;
    if (!logPath || !FileManager::defaultManager().fileExistsAtPath(*logPath, &isDirectory)) {
        return;
    }
    listToDelete(*logPath);
    destroyAndReport(*logPath);
}

std::optional<std::string> TFRemoverTool::readList(const std::string& listPath)
{
    // The list is read whole first, so a list that names its own file still
    // runs to its end. Only a list nobody but root (or the running user)
    // could have written is read; every refusal is told on the console.
    std::optional<std::string> bytes = platform::TrustedFile::read(listPath);
    if (!bytes) {
        return std::nullopt;
    }
    std::optional<std::string> text = InstallLogList::text(std::move(*bytes));
    if (!text) {
        platform::ConsoleLog::log("not read: " + listPath + ": not text (UTF-8, or UTF-16 with a byte-order mark)");
    }
    return text;
}

void TFRemoverTool::listToDelete(const std::string& listPath)
{
    std::optional<std::string> text = readList(listPath);
    if (!text) {
        return;
    }

    const bool pluginMayGo = shouldDeleteBrowserPlugin();
    bool preferencesMet = false;
    bool pluginMet = false;

    const bool complete =
        InstallLogList::forEachEntry(std::move(*text), theAppParentPath.value_or(""), [&](const std::string& path) {
            try {
                // Only the first occurrence of each protected path is guarded:
                // once both have been met the comparisons stop for this list.
                const bool isProtected = path == kBrowserPluginPreferencesPath || path == kBrowserPluginPath;
                const bool skip = !pluginMayGo && !(preferencesMet && pluginMet) && isProtected;
                if (!skip) {
                    removeListedPath(path);
                }
                if (!pluginMayGo) {
                    if (!preferencesMet && path == kBrowserPluginPreferencesPath) {
                        preferencesMet = true;
                    }
                    if (!pluginMet && path == kBrowserPluginPath) {
                        pluginMet = true;
                    }
                }
            } catch (const platform::Exception& exception) {
                std::fprintf(theOutput, "Exception:  %s \n", exception.description().c_str());
            }
        });
    if (!complete) {
        platform::ConsoleLog::log("not read to its end: " + listPath + ": not enough memory");
    }
}

void TFRemoverTool::removeListedPath(const std::string& path) const
{
    // A path holding NUL names no file: the system would see only the text
    // before it. Nothing is touched, and the line, printed as C prints a
    // string, ends at the NUL.
    bool isDirectory = false;
    if (path.find('\0') == std::string::npos && FileManager::defaultManager().fileExistsAtPath(path, &isDirectory)) {
        destroyAndReport(path);
    } else {
        printStatus(kStatusFileMissing, path);
    }
}

bool TFRemoverTool::shouldDeleteBrowserPlugin()
{
    if (!FileManager::defaultManager().fileExistsAtPath(kBrowserPluginPreferencesPath)) {
        return false;
    }
    const std::optional<platform::PropertyList> preferences =
        platform::PropertyList::dictionaryWithContentsOfFile(kBrowserPluginPreferencesPath);
    const platform::PropertyList* value = preferences ? preferences->objectForKey(kBrowserPluginAppKey) : nullptr;
    if (value == nullptr) {
        return false;
    }
    const std::string* escaped = value->asString();
    if (escaped == nullptr) {
        platform::Exception::raise(platform::kInvalidArgumentException,
                                   std::string("value of ") + kBrowserPluginAppKey + " is not text");
    }
    const std::optional<std::string> url = platform::replacingPercentEscapes(*escaped);
    if (!url || !platform::containsString(*url, kFileURLPrefix)) {
        return false;
    }
    const std::vector<std::string> pieces = platform::componentsSeparatedByString(*url, kFileURLPrefix);
    return theAppPath && platform::objectAtIndex(pieces, 1) == *theAppPath + "/";
}

bool TFRemoverTool::bundleVersionIsCurrent(const std::string& bundlePath)
{
    const std::optional<platform::Bundle> bundle = platform::Bundle::bundleWithPath(bundlePath);
    const std::optional<platform::PropertyList> version =
        bundle ? bundle->objectForInfoDictionaryKey("CFBundleVersion") : std::nullopt;
    if (!version) {
        return false;
    }
    const std::string* text = version->asString();
    if (text == nullptr) {
        platform::Exception::raise(platform::kInvalidArgumentException,
                                   "CFBundleVersion of " + bundlePath + " is not text");
    }
    const std::vector<std::string> pieces = platform::componentsSeparatedByString(*text, ".");
    return platform::integerValue(pieces.front()) == kCurrentMajorVersion;
}

void TFRemoverTool::forgetPkgId(const std::string& pattern)
{
    platform::Task::launchedTaskWithLaunchPath(kPackageToolPath,
                                               {kPackageTool_Arg_regexp, kPackageTool_Arg_forget, pattern})
        .waitUntilExit();
}

std::string TFRemoverTool::obtainVolume()
{
    const std::vector<std::string> pieces = platform::componentsSeparatedByString(theAppPath.value_or(""), "/");
    if (platform::objectAtIndex(pieces, 1) != "Volumes") {
        return "/";
    }
    // Put together as "/" + name, then "Volumes" + that, then "/" + that;
    // the appended texts serve as their own format templates.
    const std::string name = appendingFormatWithoutArguments("/", platform::objectAtIndex(pieces, 2));
    const std::string volumes = platform::objectAtIndex(pieces, 1) + name;
    return appendingFormatWithoutArguments("/", volumes);
}

void TFRemoverTool::forgetReceipts()
{
    const std::string volume = obtainVolume();
    platform::Task::launchedTaskWithLaunchPath(kPackageToolPath, {kPackageTool_Arg_regexp, kPackageTool_Arg_forget,
                                                                  std::string(kApplicationPackage) + "*",
                                                                  kPackageTool_Arg_volume, volume})
        .waitUntilExit();
    // The further packages are forgotten on the tool's default volume, even
    // when the application lies on another one.
    for (const char* package : kFurtherPackages) {
        forgetPkgId(std::string(package) + "*");
    }
}

void TFRemoverTool::deletePrintComponents()
{
    for (const char* component : kPrintComponents) {
        if (!FileManager::defaultManager().fileExistsAtPath(component)) {
            printStatus(kStatusFileMissing, component);
            continue;
        }
        // A component of another version is not ours to delete; it stays
        // without a word.
        if (!bundleVersionIsCurrent(component)) {
            continue;
        }
        destroyAndReport(component);
    }
}

void TFRemoverTool::removeIconForFolder(const std::string& path)
{
    try {
        bool isDirectory = false;
        if (!FileManager::defaultManager().fileExistsAtPath(path, &isDirectory) || !isDirectory) {
            return;
        }
        if (Workspace::sharedWorkspace().setIcon(nullptr, path, 0)) {
            return;
        }
        std::fprintf(theOutput, "Cannot remove the image for %s.\n", path.c_str());
    } catch (const platform::Exception& exception) {
        std::fprintf(theOutput, "Exception caught: %s. Could not handle the image data.\n", exception.reason().c_str());
    }
}

void TFRemoverTool::deleteParentFolder(const std::string& path)
{
    const FileManager& fileManager = FileManager::defaultManager();
    bool isDirectory = false;
    if (!fileManager.fileExistsAtPath(path, &isDirectory)) {
        printStatus(kStatusFileMissing, path);
        return;
    }
    if (!isDirectory) {
        printStatus(kStatusMissingDirectory, path);
        return;
    }
    // Every entry counts, hidden or not: nothing is removed to make the
    // folder empty, nor anything that appears in it after it was found empty.
    const std::optional<std::vector<std::string>> contents = fileManager.contentsOfDirectoryAtPath(path);
    std::error_code reason;
    const bool removed = contents && contents->empty() && fileManager.removeEmptyFolderAtPath(path, &reason);
    if (reason) {
        platform::ConsoleLog::log(platform::DestroyFailures::line(path, reason.message()));
    }
    printStatus(removed ? kStatusRemoved : kStatusErrorRemovingFile, path);
}

void TFRemoverTool::uninstallJEX()
{
    // No existence test first: the destroy operation's own result decides.
    destroyAndReport(kApplicationManagerReference);

    const std::optional<platform::Bundle> mainBundle = platform::Bundle::mainBundle();
    if (!mainBundle) {
        printStatus(kStatusJEXUninstallFailed, "MISSING_BUNDLE");
        return;
    }
    const std::optional<std::string> frameworks = mainBundle->privateFrameworksPath();
    if (!frameworks) {
        printStatus(kStatusJEXUninstallFailed, "MISSING_FRAMEWORKS");
        return;
    }
    const std::string libraryPath = platform::appendingPathComponent(*frameworks, kInstallManagerLibrary);
    if (!FileManager::defaultManager().fileExistsAtPath(libraryPath)) {
        std::fprintf(theOutput, "%s %s:%s.\n", statusWord(kStatusJEXUninstallFailed).c_str(), "MISSING_CORVANEHOV",
                     libraryPath.c_str());
        return;
    }
    callInstallManager(libraryPath);
}

void TFRemoverTool::callInstallManager(const std::string& libraryPath) const
{
    void* library = dlopen(libraryPath.c_str(), RTLD_LAZY);
    if (library == nullptr) {
        printStatus(kStatusJEXUninstallFailed, "NULL_HANDLE_TO_CORVANEHOV");
        return;
    }
    // A library without the entry point is closed again without a word.
    _hov_uninstallCorvaneApplicationManager =
        reinterpret_cast<int32_t (*)(int32_t*)>(dlsym(library, kInstallManagerEntry));
    if (_hov_uninstallCorvaneApplicationManager == nullptr) {
        dlclose(library);
        return;
    }
    int32_t detail = 0;
    const int32_t status = _hov_uninstallCorvaneApplicationManager(&detail);
    if (const char* name = failingStatusName(status)) {
        printStatus(kStatusJEXUninstallFailed, name);
    } else {
        std::fprintf(theOutput, "%s\n", statusWord(kStatusJEXUninstallSucceeded).c_str());
    }
    dlclose(library);
}

void TFRemoverTool::removeQELLaunchdAgent()
{
    // The agent's path is worked out here only to be reported; the shared
    // code works out its own from the bundle. If that fails, the line shows
    // the path as absent.
    std::optional<std::string> plistPath;
    bool succeeded = false;
    try {
        const std::string bundlePath = platform::fileURLPath(theAppPath.value_or(""));
        plistPath = QELAgentPlistPath(bundlePath);
        if (const std::optional<platform::Bundle> bundle = platform::Bundle::bundleWithPath(bundlePath)) {
            SetupQELAgent(*bundle, std::nullopt, false);
            succeeded = true;
        }
    } catch (const platform::Exception&) {
        succeeded = false;
    }
    // "Removed" says the removal ran to its end, not that a file went.
    std::fprintf(theOutput, "%s %s.\n", statusWord(succeeded ? kStatusRemoved : kStatusErrorRemovingFile).c_str(),
                 platform::utf8StringOrNull(plistPath));
}

bool TFRemoverTool::destroyItem(const std::string& path)
{
    // The workspace writes 0 through the tag; nothing reads it.
    int32_t tag = 0;
    platform::DestroyFailures failures;
    const bool destroyed = Workspace::sharedWorkspace().performFileOperation(
        WorkspaceOperation::Destroy, platform::deletingLastPathComponent(path), std::nullopt,
        {platform::lastPathComponent(path)}, &tag, nullptr, failures.handler());
    if (!destroyed) {
        failures.log(path);
    }
    return destroyed;
}

std::string TFRemoverTool::statusWord(const char* key)
{
    const std::optional<platform::Bundle> mainBundle = platform::Bundle::mainBundle();
    return mainBundle ? mainBundle->localizedStringForKey(key) : std::string(key);
}

void TFRemoverTool::destroyAndReport(const std::string& path) const
{
    printStatus(destroyItem(path) ? kStatusRemoved : kStatusErrorRemovingFile, path);
}

void TFRemoverTool::printStatus(const char* key, const std::string& subject) const
{
    std::fprintf(theOutput, "%s %s.\n", statusWord(key).c_str(), subject.c_str());
}
