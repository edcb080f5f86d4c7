#include "platform/ProtectedFolders.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <functional>
#include <unordered_set>

#include "platform/Bundle.h"
#include "platform/FolderAncestors.h"
#include "platform/PathParts.h"
#include "platform/PosixIO.h"
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

// The folders a bundle is made of, below the bundle itself.
constexpr std::array kBundleFolders = {
    "Contents", "Contents/MacOS", "Contents/Resources", "Contents/Resources/English.lproj", "Contents/Frameworks",
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

// Adds home/name for each of the names that exists in the folder open at
// `folder` (the home or its Library), found relative to it.
template <typename Names>
void addExisting(int folder, const std::string& prefix, const Names& names, std::vector<std::string>& out)
{
    for (const char* name : names) {
        struct stat status {};
        if (::fstatat(folder, name, &status, 0) == 0 || ::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
            out.push_back(joiningPath(prefix, name));
        }
    }
}

// The standard folders of one home that exist.
void addStandardFolders(const std::string& home, std::vector<std::string>& out)
{
    const std::string prefix(trimmingTrailingSlashes(home));
    const posix::UniqueFd homeFd = posix::openFolderPath(prefix);
    if (!homeFd.valid()) {
        return;
    }
    addExisting(homeFd.get(), prefix, kHomeFolders, out);
    const posix::UniqueFd library = posix::openAt(homeFd.get(), "Library", O_PATH | O_DIRECTORY);
    if (!library.valid()) {
        return;
    }
    const std::string libraryPath = joiningPath(prefix, "Library");
    addExisting(library.get(), libraryPath, kLibraryFolders, out);
    addExisting(library.get(), libraryPath, kHomeLibraryOnlyFolders, out);
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
    }
    std::unordered_set<std::string> seen;
    for (const std::string& home : lists.homeFolders) {
        if (!home.empty() && seen.insert(std::string(trimmingTrailingSlashes(home))).second) {
            addStandardFolders(home, lists.homeStandardFolders);
        }
    }
    if (bundle) {
        // The bundle and the folders it is made of: a list naming its
        // Contents would otherwise take the running program's library,
        // strings and own file list away in the middle of the run.
        const std::string top(trimmingTrailingSlashes(*bundle));
        lists.bundles.push_back(top);
        for (const char* folder : kBundleFolders) {
            lists.bundles.push_back(joiningPath(top, folder));
        }
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
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
            theTrees.push_back(Identity{status.st_dev, status.st_ino});
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

std::error_code ProtectedFolders::refusal(dev_t device, ino_t inode) const
{
    const auto found = theReasons.find(Identity{device, inode});
    return found != theReasons.end() ? std::error_code(found->second) : std::error_code();
}

std::error_code ProtectedFolders::placeRefusal(int folderFd) const
{
    if (theTrees.empty()) {
        return {};
    }
    bool inside = false;
    const std::error_code climbError = FolderAncestors::climb(folderFd, [&](int, const struct stat& folder) {
        const Identity identity{folder.st_dev, folder.st_ino};
        inside = std::find(theTrees.begin(), theTrees.end(), identity) != theTrees.end();
        return !inside;
    });
    if (inside) {
        return kSystemReason;
    }
    return climbError;
}

}  // namespace platform
