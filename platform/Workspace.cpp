#include "platform/Workspace.h"

#include "platform/FolderCache.h"
#include "platform/PathParts.h"
#include "platform/PosixIO.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

namespace {

std::atomic<Workspace*> theWorkspaceForTesting{nullptr};

// The file that holds a folder's custom icon.
constexpr const char* kCustomIconName = "Icon\r";

}  // namespace

Workspace& Workspace::sharedWorkspace()
{
    if (Workspace* replacement = theWorkspaceForTesting.load()) {
        return *replacement;
    }
    static Workspace shared;
    return shared;
}

void Workspace::setSharedWorkspaceForTesting(Workspace* workspace)
{
    theWorkspaceForTesting.store(workspace);
}

bool Workspace::performFileOperation(WorkspaceOperation operation, const std::string& source,
                                     const std::optional<std::string>& destination,
                                     const std::vector<std::string>& files, int32_t* tag)
{
    return performFileOperation(operation, source, destination, files, tag, nullptr, nullptr);
}

bool Workspace::performFileOperation(WorkspaceOperation operation, const std::string& source,
                                     const std::optional<std::string>& /*destination*/,
                                     const std::vector<std::string>& files, int32_t* tag, std::error_code* error,
                                     const TreeRemover::FailureHandler& onFailure)
{
    if (tag != nullptr) {
        *tag = 0;
    }
    if (error != nullptr) {
        error->clear();
    }
    if (operation != WorkspaceOperation::Destroy || files.empty()) {
        if (error != nullptr) {
            *error = std::make_error_code(std::errc::invalid_argument);
        }
        return false;
    }
    TreeRemover remover;
    remover.setFailureHandler(onFailure);
    bool allDestroyed = true;
    for (const std::string& name : files) {
        std::error_code reason;
        if (!remover.removeRelative(source, name, &reason)) {
            if (allDestroyed && error != nullptr) {
                *error = reason;
            }
            allDestroyed = false;
        }
    }
    return allDestroyed;
}

// The item the path names is examined in its folder without following it:
// a folder is opened as that folder (no link), and its "Icon\r" entry is
// removed relative to it (the entry itself, never what a link there points
// to; an empty folder of that name goes too). A link in the folder's place
// is not a folder: nothing is cleared through it.
bool Workspace::setIcon(std::nullptr_t /*image*/, const std::string& path, unsigned /*options*/)
{
    if (path.empty()) {
        return false;
    }
    const FolderAndName parts = splitFolderAndName(path);
    posix::UniqueFd folder;
    if (parts.name.empty() || parts.name == "." || parts.name == "..") {
        // Not an entry of a folder but a folder itself ("/", "x/.."): the
        // kernel's answer is the folder, and no link is left in it.
        folder = posix::openFolderPath(path);
        if (!folder.valid()) {
            return false;
        }
    } else {
        const posix::UniqueFd parent = posix::openFolderPath(parts.folder);
        struct stat item {};
        if (!parent.valid() || ::fstatat(parent.get(), parts.name.c_str(), &item, AT_SYMLINK_NOFOLLOW) != 0) {
            return false;
        }
        if (S_ISREG(item.st_mode) || S_ISLNK(item.st_mode)) {
            return true;  // no folder, so no custom icon to clear
        }
        if (!S_ISDIR(item.st_mode)) {
            return false;
        }
        folder = posix::openAt(parent.get(), parts.name, posix::kFolderFlags);
        struct stat opened {};
        if (!folder.valid() || posix::statDescriptor(folder.get(), opened) || opened.st_dev != item.st_dev ||
            opened.st_ino != item.st_ino) {
            return false;
        }
    }
    struct stat icon {};
    if (::fstatat(folder.get(), kCustomIconName, &icon, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT;
    }
    const int flags = S_ISDIR(icon.st_mode) ? AT_REMOVEDIR : 0;
    if (S_ISDIR(icon.st_mode) || S_ISLNK(icon.st_mode)) {
        FolderCache::invalidateAll();
    }
    return ::unlinkat(folder.get(), kCustomIconName, flags) == 0 || errno == ENOENT;
}

}  // namespace platform
