#include "fsutil/SetupQELAgent.h"

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fsutil/QELUHash.h"
#include "identities/ExternalTools.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/Path.h"
#include "platform/PropertyList.h"
#include "platform/Task.h"
#include "platform/Text.h"
#include "platform/User.h"

namespace {

using platform::FileManager;
using platform::PropertyList;

constexpr char kAgentLabelPrefix[] = "com.corvane.QEL.";
constexpr char kAgentsFolderName[] = "LaunchAgents";
constexpr char kOtherVolumesPrefix[] = "/Volumes/";
constexpr char kHelperFolder[] = "Contents/MacOS/Updater";
constexpr char kHelperSuffix[] = " Updater Helper.app";
constexpr int64_t kUpdateIntervalSeconds = 12600;

std::string userLibraryFolder()
{
    const std::vector<std::string> folders = platform::searchPathForDirectoriesInDomains(
        platform::SearchPathDirectory::Library, platform::SearchPathDomainMask::User, true);
    return platform::objectAtIndex(folders, 0);
}

// The text of a property-list value that must be text.
const std::string& requireString(const PropertyList& value, const char* what)
{
    const std::string* text = value.asString();
    if (text == nullptr) {
        platform::Exception::raise(platform::kInvalidArgumentException, std::string(what) + " is not text");
    }
    return *text;
}

void runLaunchctl(const char* verb, const std::string& plistPath)
{
    platform::Task::launchedTaskWithLaunchPath(kLaunchctl_ToolPath, {verb, plistPath}).waitUntilExit();
}

}  // namespace

// An agent counts as stale when it is of the family and its program is gone.
// Programs on other volumes are never judged: the volume may just be absent.
bool QELAgentIsStale(std::string_view plistBytes)
{
    const std::optional<PropertyList> agent = PropertyList::fromBytes(plistBytes);
    if (!agent || agent->type() != PropertyList::Type::Dictionary) {
        return false;
    }
    const PropertyList* label = agent->objectForKey("Label");
    if (label == nullptr || !platform::hasPrefix(requireString(*label, "Label"), kAgentLabelPrefix)) {
        return false;
    }
    const PropertyList* arguments = agent->objectForKey("ProgramArguments");
    if (arguments == nullptr) {
        return false;
    }
    const PropertyList::Array* list = arguments->asArray();
    if (list == nullptr) {
        platform::Exception::raise(platform::kInvalidArgumentException, "ProgramArguments is not an array");
    }
    const std::string& program = requireString(platform::objectAtIndex(*list, 0), "the first program argument");
    if (platform::hasPrefix(program, kOtherVolumesPrefix)) {
        return false;
    }
    return !FileManager::defaultManager().fileExistsAtPath(program);
}

namespace {

bool isStaleAgent(const std::string& plistPath)
{
    const std::optional<std::string> bytes = FileManager::defaultManager().contentsAtPath(plistPath);
    return bytes && QELAgentIsStale(*bytes);
}

void installAgent(const std::string& bundlePath, const std::optional<std::string>& appName, const std::string& label,
                  const std::string& plistPath)
{
    if (!appName) {
        platform::Exception::raise(platform::kInvalidArgumentException, "no application name to find the helper");
    }
    const std::string helperPath =
        platform::appendingPathComponents(bundlePath, {kHelperFolder, *appName + kHelperSuffix});
    const std::optional<platform::Bundle> helper = platform::Bundle::bundleWithPath(helperPath);
    const std::optional<std::string> executable = helper ? helper->executablePath() : std::nullopt;
    if (!executable) {
        platform::Exception::raise(platform::kInvalidArgumentException,
                                   "the updater helper has no executable: " + helperPath);
    }
    const PropertyList agent = PropertyList::dictionary({
        {"Label", PropertyList::string(label)},
        {"ProgramArguments", PropertyList::array({PropertyList::string(*executable)})},
        {"RunAtLoad", PropertyList::boolean(true)},
        {"StartInterval", PropertyList::integer(kUpdateIntervalSeconds)},
    });
    agent.writeToFile(plistPath, false);
    runLaunchctl(kLaunchctl_Arg_load, plistPath);
}

bool isLink(const std::string& path)
{
    const std::optional<platform::FileAttributes> attributes =
        FileManager::defaultManager().attributesOfItemAtPath(path);
    return attributes && attributes->type == platform::FileType::SymbolicLink;
}

// Whether agents/relative is reached without passing a link: the sweep stays
// in the user's own agents folder, also when a sub-folder has been replaced
// by a link since it was listed. The item itself may be a link (removing it
// removes only the link).
bool reachedWithoutLink(const std::string& agents, const std::string& relative)
{
    std::string folder = agents;
    const std::vector<std::string> components = platform::componentsSeparatedByString(relative, "/");
    for (std::size_t i = 0; i + 1 < components.size(); ++i) {
        folder = platform::appendingPathComponent(folder, components[i]);
        if (isLink(folder)) {
            return false;
        }
    }
    return true;
}

// Where a bundle's agent lives: the user's Library folder, its LaunchAgents
// folder, the label and the property-list path, worked out in that order.
struct AgentLocation {
    explicit AgentLocation(const std::string& bundlePath)
        : library(userLibraryFolder()),
          agents(platform::appendingPathComponent(library, kAgentsFolderName)),
          label(kAgentLabelPrefix + QELUHashOfAppPath(bundlePath)),
          plistPath(platform::appendingPathComponent(agents, platform::appendingPathExtension(label, "plist")))
    {
    }
    std::string library;
    std::string agents;
    std::string label;
    std::string plistPath;
};

}  // namespace

std::string QELAgentPlistPath(const std::string& bundlePath)
{
    return AgentLocation(bundlePath).plistPath;
}

void SetupQELAgent(const platform::Bundle& bundle, const std::optional<std::string>& appName, bool install)
{
    const FileManager& fileManager = FileManager::defaultManager();
    const std::string& bundlePath = bundle.bundlePath();
    const AgentLocation location(bundlePath);
    const std::string& library = location.library;
    const std::string& agents = location.agents;
    const std::string& label = location.label;
    const std::string& plistPath = location.plistPath;

    bool isDirectory = false;
    if (!fileManager.fileExistsAtPath(library, &isDirectory) || !isDirectory) {
        return;
    }
    // Only the user's own agents folder: a Library or LaunchAgents folder
    // that is a link to elsewhere (the system-wide agents, say) is left alone.
    if (isLink(library) || isLink(agents)) {
        return;
    }
    if (fileManager.fileExistsAtPath(agents, &isDirectory)) {
        if (!isDirectory) {
            return;
        }
    } else if (!fileManager.createDirectoryAtPath(agents)) {
        return;
    }

    // Gather first, remove afterwards: nothing changes under the walk. The
    // listing never enters a linked sub-folder.
    std::vector<std::pair<std::string, std::string>> stale;
    for (const std::string& entry : fileManager.enumeratorAtPath(agents).value_or(std::vector<std::string>{})) {
        const std::string candidate = platform::appendingPathComponent(agents, entry);
        if (isStaleAgent(candidate)) {
            stale.emplace_back(entry, candidate);
        }
    }
    for (const auto& [entry, agent] : stale) {
        if (!reachedWithoutLink(agents, entry)) {
            continue;
        }
        runLaunchctl(kLaunchctl_Arg_unload, agent);
        fileManager.removeItemAtPath(agent);
    }

    if (install) {
        if (!fileManager.fileExistsAtPath(plistPath)) {
            installAgent(bundlePath, appName, label, plistPath);
        }
    } else if (fileManager.fileExistsAtPath(plistPath)) {
        runLaunchctl(kLaunchctl_Arg_unload, plistPath);
        fileManager.removeItemAtPath(plistPath);
    }
}
