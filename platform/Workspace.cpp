#include "platform/Workspace.h"

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
    return performFileOperation(operation, source, destination, files, tag, nullptr, theDestroyFailureHandler);
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

// The path is followed to what it names: a link to a folder counts as that
// folder, whose "Icon\r" entry is removed (the entry itself, never what a
// link there points to; an empty folder of that name goes too).
bool Workspace::setIcon(std::nullptr_t /*image*/, const std::string& path, unsigned /*options*/)
{
    struct stat st {};
    if (path.empty() || ::stat(path.c_str(), &st) != 0) {
        return false;
    }
    if (S_ISREG(st.st_mode)) {
        return true;
    }
    if (!S_ISDIR(st.st_mode)) {
        return false;
    }
    const posix::UniqueFd folder = posix::openFile(path, O_RDONLY | O_DIRECTORY | O_NOCTTY);
    if (!folder.valid()) {
        return false;
    }
    struct stat icon {};
    if (::fstatat(folder.get(), kCustomIconName, &icon, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT;
    }
    const int flags = S_ISDIR(icon.st_mode) ? AT_REMOVEDIR : 0;
    return ::unlinkat(folder.get(), kCustomIconName, flags) == 0 || errno == ENOENT;
}

}  // namespace platform
