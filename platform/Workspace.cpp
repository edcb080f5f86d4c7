#include "platform/Workspace.h"

#include "platform/TreeRemover.h"

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

// Each name is a path relative to the source folder: its components are
// reached without following links, and a name that is empty, "." or "..", or
// has such a component, is refused, so nothing outside the source folder and
// never "/" itself is destroyed. An empty list destroys nothing and is false.
bool Workspace::performFileOperation(WorkspaceOperation operation, const std::string& source,
                                     const std::optional<std::string>& /*destination*/,
                                     const std::vector<std::string>& files, int32_t* tag)
{
    if (tag != nullptr) {
        *tag = 0;
    }
    if (operation != WorkspaceOperation::Destroy || files.empty()) {
        return false;
    }
    const TreeRemover remover;
    bool allDestroyed = true;
    for (const std::string& name : files) {
        if (!remover.removeRelative(source, name)) {
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
    const int folder = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY);
    if (folder < 0) {
        return false;
    }
    bool cleared = false;
    struct stat icon {};
    if (::fstatat(folder, kCustomIconName, &icon, AT_SYMLINK_NOFOLLOW) != 0) {
        cleared = errno == ENOENT;
    } else {
        const int flags = S_ISDIR(icon.st_mode) ? AT_REMOVEDIR : 0;
        cleared = ::unlinkat(folder, kCustomIconName, flags) == 0 || errno == ENOENT;
    }
    ::close(folder);
    return cleared;
}

}  // namespace platform
