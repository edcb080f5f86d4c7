#include "platform/ProtectedFolders.h"

#include <sys/stat.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <functional>
#include <memory>

#include "platform/Bundle.h"
#include "platform/User.h"

namespace platform {

namespace {

constexpr RemovalRefusal kSystemReason = RemovalRefusal::SystemFolder;
constexpr RemovalRefusal kHomeReason = RemovalRefusal::HomeFolder;
constexpr RemovalRefusal kHomeStandardReason = RemovalRefusal::HomeStandardFolder;
constexpr RemovalRefusal kBundleReason = RemovalRefusal::RunningBundle;

// The standard sub-folders of a Library folder, system-wide or in a home.
constexpr std::array kLibraryFolders = {
    "Application Support",
    "Audio",
    "Automator",
    "Caches",
    "ColorSync",
    "Components",
    "Documentation",
    "Extensions",
    "Filesystems",
    "Fonts",
    "Frameworks",
    "Graphics",
    "Image Capture",
    "Input Methods",
    "Internet Plug-Ins",
    "Java",
    "Keychains",
    "LaunchAgents",
    "LaunchDaemons",
    "Logs",
    "Modem Scripts",
    "PDF Services",
    "Perl",
    "PreferencePanes",
    "Preferences",
    "Printers",
    "PrivilegedHelperTools",
    "Python",
    "QuickLook",
    "QuickTime",
    "Receipts",
    "Ruby",
    "Sandbox",
    "Screen Savers",
    "ScriptingAdditions",
    "Scripts",
    "Security",
    "Services",
    "Sounds",
    "Speech",
    "Spotlight",
    "StartupItems",
    "SystemConfiguration",
    "Updates",
    "User Pictures",
    "Video",
    "WebServer",
    "Widgets",
};

// Only in a home's Library.
constexpr std::array kHomeLibraryOnlyFolders = {
    "Accounts", "Calendars",        "Containers",
    "Cookies",  "Group Containers", "HTTPStorages",
    "Mail",     "Safari",           "Saved Application State",
    "WebKit",
};

// Folders of a home.
constexpr std::array kHomeFolders = {
    "Applications", "Desktop", "Documents", "Downloads", "Library", "Movies", "Music", "Pictures", "Public",
};

// The top-level folders of both layouts and their standard sub-folders, each
// protected itself (not what it holds). /Library's sub-folders are added
// from kLibraryFolders.
constexpr std::array kSystemFolders = {
    "/",
    // macOS-style
    "/Applications",
    "/Applications/Utilities",
    "/Library",
    "/Network",
    "/System",
    "/Users",
    "/Users/Shared",
    "/Volumes",
    "/private",
    "/private/etc",
    "/private/tmp",
    "/private/var",
    "/cores",
    // Linux
    "/bin",
    "/boot",
    "/dev",
    "/etc",
    "/home",
    "/lib",
    "/lib32",
    "/lib64",
    "/libx32",
    "/lost+found",
    "/media",
    "/mnt",
    "/opt",
    "/proc",
    "/root",
    "/run",
    "/sbin",
    "/srv",
    "/sys",
    "/tmp",
    "/usr",
    "/usr/bin",
    "/usr/include",
    "/usr/lib",
    "/usr/lib32",
    "/usr/lib64",
    "/usr/libexec",
    "/usr/libx32",
    "/usr/local",
    "/usr/local/bin",
    "/usr/local/etc",
    "/usr/local/include",
    "/usr/local/lib",
    "/usr/local/libexec",
    "/usr/local/sbin",
    "/usr/local/share",
    "/usr/local/src",
    "/usr/sbin",
    "/usr/share",
    "/usr/src",
    "/var",
    "/var/backups",
    "/var/cache",
    "/var/db",
    "/var/empty",
    "/var/lib",
    "/var/local",
    "/var/lock",
    "/var/log",
    "/var/mail",
    "/var/opt",
    "/var/run",
    "/var/spool",
    "/var/tmp",
};

// Protected with everything below them.
constexpr std::array kSystemTrees = {"/System"};

std::string under(const std::string& root, const std::string& path)
{
    if (root.empty()) {
        return path;
    }
    return path == "/" ? root : root + path;
}

std::string withoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

std::optional<std::string> resolved(const std::string& path)
{
    struct FreeDeleter {
        void operator()(char* text) const noexcept { std::free(text); }
    };
    const std::unique_ptr<char, FreeDeleter> real(::realpath(path.c_str(), nullptr));
    if (!real) {
        return std::nullopt;
    }
    return std::string(real.get());
}

}  // namespace

std::size_t ProtectedFolders::IdentityHash::operator()(const Identity& identity) const noexcept
{
    const std::size_t device = std::hash<unsigned long long>{}(static_cast<unsigned long long>(identity.device));
    const std::size_t inode = std::hash<unsigned long long>{}(static_cast<unsigned long long>(identity.inode));
    return inode ^ (device + 0x9e3779b97f4a7c15ULL + (inode << 6) + (inode >> 2));
}

ProtectedFolders::Lists ProtectedFolders::standardLists(const std::string& root,
                                                        const std::vector<std::string>& allHomes,
                                                        const std::string& runningUserHome,
                                                        const std::optional<std::string>& bundle)
{
    Lists lists;
    for (const char* folder : kSystemFolders) {
        lists.systemFolders.push_back(under(root, folder));
    }
    for (const char* folder : kLibraryFolders) {
        lists.systemFolders.push_back(under(root, std::string("/Library/") + folder));
    }
    for (const char* tree : kSystemTrees) {
        lists.systemTrees.push_back(under(root, tree));
    }
    lists.homeFolders = allHomes;
    if (!runningUserHome.empty()) {
        lists.homeFolders.push_back(runningUserHome);
        const std::string home = withoutTrailingSlashes(runningUserHome);
        const std::string prefix = home == "/" ? std::string() : home;
        for (const char* folder : kHomeFolders) {
            lists.homeStandardFolders.push_back(prefix + "/" + folder);
        }
        for (const char* folder : kLibraryFolders) {
            lists.homeStandardFolders.push_back(prefix + "/Library/" + folder);
        }
        for (const char* folder : kHomeLibraryOnlyFolders) {
            lists.homeStandardFolders.push_back(prefix + "/Library/" + folder);
        }
    }
    if (bundle) {
        lists.bundles.push_back(*bundle);
    }
    return lists;
}

const ProtectedFolders& ProtectedFolders::shared()
{
    static const ProtectedFolders folders([] {
        const auto bundle = Bundle::mainBundle();
        return standardLists("", homeDirectoriesOfAllUsers(), homeDirectory(),
                             bundle ? std::optional<std::string>(bundle->bundlePath()) : std::nullopt);
    }());
    return folders;
}

ProtectedFolders::ProtectedFolders(const Lists& lists)
{
    // The strongest reason first: a later list never replaces an earlier one.
    for (const auto& path : lists.systemFolders) {
        add(path, kSystemReason);
    }
    for (const auto& path : lists.systemTrees) {
        add(path, kSystemReason);
        if (auto tree = resolved(path)) {
            theTrees.push_back(withoutTrailingSlashes(std::move(*tree)));
        }
    }
    for (const auto& path : lists.bundles) {
        add(path, kBundleReason);
    }
    for (const auto& path : lists.homeFolders) {
        add(path, kHomeReason);
    }
    for (const auto& path : lists.homeStandardFolders) {
        add(path, kHomeStandardReason);
    }
}

void ProtectedFolders::add(const std::string& path, RemovalRefusal reason)
{
    struct stat status {};
    // What the path leads to, and the link itself when it is one: destroying
    // "/lib" removes the link, which breaks the system as much.
    if (::stat(path.c_str(), &status) == 0) {
        theReasons.try_emplace(Identity{status.st_dev, status.st_ino}, reason);
    }
    if (::lstat(path.c_str(), &status) == 0) {
        theReasons.try_emplace(Identity{status.st_dev, status.st_ino}, reason);
    }
}

std::error_code ProtectedFolders::refusal(dev_t device, ino_t inode, const std::string& resolvedPath) const
{
    const auto found = theReasons.find(Identity{device, inode});
    if (found != theReasons.end()) {
        return found->second;
    }
    for (const auto& tree : theTrees) {
        if (resolvedPath.size() > tree.size() && resolvedPath.compare(0, tree.size(), tree) == 0 &&
            (resolvedPath[tree.size()] == '/' || tree == "/")) {
            return kSystemReason;
        }
    }
    return {};
}

std::optional<std::string> ProtectedFolders::reasonToRefuse(dev_t device, ino_t inode,
                                                            const std::string& resolvedPath) const
{
    if (const std::error_code reason = refusal(device, inode, resolvedPath)) {
        return reason.message();
    }
    return std::nullopt;
}

std::optional<std::string> ProtectedFolders::reasonToRefusePath(const std::string& path) const
{
    std::string trimmed = withoutTrailingSlashes(path);
    if (trimmed.empty()) {
        return std::nullopt;
    }
    std::string resolvedPath(1, '/');
    if (trimmed != "/") {
        const auto slash = trimmed.rfind('/');
        const std::string folder =
            slash == std::string::npos ? std::string(".") : (slash == 0 ? std::string("/") : trimmed.substr(0, slash));
        const std::string name = slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
        auto resolvedFolder = resolved(folder);
        if (!resolvedFolder) {
            return std::nullopt;
        }
        if (name == "." || name == "..") {
            // Not a name of its own: the folder it stands for is the item.
            auto item = resolved(trimmed);
            if (!item) {
                return std::nullopt;
            }
            resolvedPath = std::move(*item);
        } else {
            resolvedPath = *resolvedFolder == "/" ? "/" + name : *resolvedFolder + "/" + name;
        }
    }
    struct stat status {};
    if (::lstat(resolvedPath.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return reasonToRefuse(status.st_dev, status.st_ino, resolvedPath);
}

}  // namespace platform
