#include "platform/TreeRemover.h"

#include "platform/DirectoryEntries.h"
#include "platform/FolderCache.h"
#include "platform/MountPoint.h"
#include "platform/PathParts.h"
#include "platform/PosixIO.h"
#include "platform/ProtectedFolders.h"
#include "platform/RemovalRefusal.h"

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string_view>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace platform {

namespace {

namespace posix = platform::posix;

std::error_code reasonOf(std::errc value)
{
    return std::make_error_code(value);
}

// One folder on the way down. Its descriptor may be closed while the walk is
// far below it; climbing back reopens it through ".." and checks it is the
// same folder (device and inode).
struct Frame {
    posix::UniqueFd fd;
    dev_t device = 0;
    ino_t inode = 0;
    std::string name;                     // its name in the folder above
    std::vector<std::string> subfolders;  // still to be walked
    bool failedInside = false;            // something in it stayed
};

bool isSingleComponent(const std::string& name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

bool isRootFolder(const struct stat& item)
{
    struct stat root {};
    return ::stat("/", &root) == 0 && root.st_dev == item.st_dev && root.st_ino == item.st_ino;
}

// The path with every run of slashes made one, for reporting a refused text.
std::string withSingleSlashes(const std::string& path)
{
    std::string result;
    for (const char c : path) {
        if (c != '/' || result.empty() || result.back() != '/') {
            result.push_back(c);
        }
    }
    return result;
}

// The caller's path of the folder at the top of the stack.
std::string pathOf(const std::vector<Frame>& stack, const std::string& displayPath)
{
    std::string path = displayPath;
    for (std::size_t i = 1; i < stack.size(); ++i) {
        path = joiningPath(path, stack[i].name);
    }
    return path;
}

}  // namespace

// The failures of one request: the first reason for the caller's error, and
// each failure for the handler.
class TreeRemover::Walk {
public:
    Walk(const FailureHandler& handler, std::error_code* error) : theHandler(handler), theError(error)
    {
        if (theError != nullptr) {
            theError->clear();
        }
    }

    void fail(const std::string& path, std::error_code reason)
    {
        if (!theFailed && theError != nullptr) {
            *theError = reason;
        }
        theFailed = true;
        if (theHandler) {
            theHandler(path, reason);
        }
    }

    bool failed() const noexcept { return theFailed; }

private:
    const FailureHandler& theHandler;
    std::error_code* theError;
    bool theFailed = false;
};

namespace {

// Reads the folder open at `fd` once: unlinks every entry that is not a
// folder at once and keeps the names of its subfolders, which are judged when
// they are opened. What cannot be removed stays and is reported. False when
// something stayed.
template <typename Walk, typename FolderPath>
bool readFolder(int fd, std::vector<std::string>& subfolders, const FolderPath& folderPath, Walk& walk)
{
    bool complete = true;
    const auto fail = [&](std::string_view name, std::error_code reason) {
        complete = false;
        walk.fail(name.empty() ? folderPath() : joiningPath(folderPath(), name), reason);
    };
    DirectoryEntries entries(fd);
    while (const auto entry = entries.next()) {
        const std::string name(entry->name);
        if (entry->type == DirectoryEntries::Type::Folder) {
            subfolders.push_back(name);
            continue;
        }
        if (::unlinkat(fd, name.c_str(), 0) != 0 && errno != ENOENT) {
            if (errno == EISDIR) {
                // Became a folder since it was read; it is judged when opened.
                subfolders.push_back(name);
            } else {
                fail(name, posix::lastError());
            }
        }
    }
    if (entries.error()) {
        fail({}, entries.error());
    }
    return complete;
}

}  // namespace

bool TreeRemover::removeEntry(int directoryFd, const std::string& name, std::error_code* error) const
{
    Walk walk(theFailureHandler, error);
    return removeEntry(directoryFd, name, name, walk, nullptr);
}

bool TreeRemover::removeEntry(int directoryFd, const std::string& name, const std::string& displayPath, Walk& walk,
                              FolderCache::Resolved* cache) const
{
    if (!isSingleComponent(name)) {
        walk.fail(displayPath, reasonOf(std::errc::invalid_argument));
        return false;
    }
    // The item as it is in the folder already resolved: this descriptor and
    // this name are what is judged and what is acted on, nothing else.
    std::optional<struct stat> remembered = cache != nullptr ? cache->takeStatus(name) : std::nullopt;
    struct stat item {};
    if (remembered) {
        item = *remembered;
    } else if (::fstatat(directoryFd, name.c_str(), &item, AT_SYMLINK_NOFOLLOW) != 0) {
        walk.fail(displayPath, posix::lastError());
        return false;
    }
    const ProtectedFolders& guard = protectedFolders();
    if (const std::error_code refusal = guard.refusal(item.st_dev, item.st_ino)) {
        walk.fail(displayPath, refusal);
        return false;
    }
    // Where the folder really lies: once per folder when it is kept.
    std::optional<std::error_code> place = cache != nullptr ? cache->place : std::nullopt;
    if (!place) {
        place = guard.placeRefusal(directoryFd);
        if (cache != nullptr) {
            cache->place = place;
        }
    }
    if (*place) {
        walk.fail(displayPath, *place);
        return false;
    }
    if (theEmptyFoldersOnly && !S_ISDIR(item.st_mode) && !S_ISLNK(item.st_mode)) {
        walk.fail(displayPath, reasonOf(std::errc::not_a_directory));
        return false;
    }
    if (!S_ISDIR(item.st_mode)) {
        // unlinkat without AT_REMOVEDIR never removes a folder, so acting on
        // a status seen a moment ago is safe: a folder put in its place
        // answers EISDIR and is looked at afresh below.
        if (::unlinkat(directoryFd, name.c_str(), 0) == 0) {
            if (S_ISLNK(item.st_mode)) {
                // A link gone may change what a folder text leads to.
                FolderCache::invalidateAll();
            }
            return true;
        }
        if (errno != EISDIR) {
            walk.fail(displayPath, posix::lastError());
            return false;
        }
        if (::fstatat(directoryFd, name.c_str(), &item, AT_SYMLINK_NOFOLLOW) != 0) {
            walk.fail(displayPath, posix::lastError());
            return false;
        }
        if (const std::error_code refusal = guard.refusal(item.st_dev, item.st_ino)) {
            walk.fail(displayPath, refusal);
            return false;
        }
        if (!S_ISDIR(item.st_mode)) {
            walk.fail(displayPath, reasonOf(std::errc::operation_canceled));
            return false;
        }
    }
    if (isRootFolder(item)) {
        walk.fail(displayPath, reasonOf(std::errc::invalid_argument));
        return false;
    }
    // A mount root stays, also a bind mount of the same disk.
    const std::optional<bool> mountRoot = MountPoint::isMountRoot(directoryFd, name.c_str());
    if (!mountRoot || *mountRoot) {
        walk.fail(displayPath, mountRoot ? RemovalRefusal::MountPoint : RemovalRefusal::UnknownMount);
        return false;
    }
    if (theEmptyFoldersOnly) {
        // rmdir removes nothing but an empty folder.
        const bool removed = ::unlinkat(directoryFd, name.c_str(), AT_REMOVEDIR) == 0;
        if (!removed) {
            walk.fail(displayPath, posix::lastError());
        }
        FolderCache::invalidateAll();
        return removed;
    }
    // Whatever way the walk ends (a callback may throw), folders may have
    // gone, which may change what a folder text leads to.
    struct Invalidation {
        Invalidation() = default;
        Invalidation(const Invalidation&) = delete;
        Invalidation& operator=(const Invalidation&) = delete;
        ~Invalidation() { FolderCache::invalidateAll(); }
    } const invalidation;
    removeFolder(directoryFd, name, displayPath, item.st_dev, item.st_ino, walk);
    return !walk.failed();
}

const ProtectedFolders& TreeRemover::protectedFolders() const
{
    return theProtectedFolders != nullptr ? *theProtectedFolders : ProtectedFolders::shared();
}

void TreeRemover::removeFolder(int parentFd, const std::string& name, const std::string& displayPath, dev_t device,
                               ino_t inode, Walk& walk) const
{
    std::error_code error;
    posix::UniqueFd topFd = posix::openAt(parentFd, name, posix::kFolderFlags, 0, &error);
    if (!topFd.valid()) {
        walk.fail(displayPath, error);
        return;
    }
    struct stat top {};
    if (const std::error_code statError = posix::statDescriptor(topFd.get(), top)) {
        walk.fail(displayPath, statError);
        return;
    }
    if (top.st_dev != device || top.st_ino != inode) {
        // Replaced by another folder since it was looked at.
        walk.fail(displayPath, reasonOf(std::errc::operation_canceled));
        return;
    }
    // The walk stays on this one mount: a folder whose mount differs is a
    // mount point, even of the same disk (the device number is the same then).
    const std::optional<uint64_t> mount = MountPoint::mountIdOf(topFd.get());
    if (!mount) {
        walk.fail(displayPath, RemovalRefusal::UnknownMount);
        return;
    }

    std::vector<Frame> stack;
    const auto currentPath = [&stack, &displayPath] { return pathOf(stack, displayPath); };
    const auto failInCurrent = [&](const std::string& child, std::error_code reason) {
        stack.back().failedInside = true;
        walk.fail(joiningPath(currentPath(), child), reason);
    };
    const ProtectedFolders& guard = protectedFolders();
    stack.push_back(Frame{std::move(topFd), device, inode, name, {}, false});
    stack.back().failedInside = !readFolder(stack.back().fd.get(), stack.back().subfolders, currentPath, walk);

    while (!stack.empty()) {
        if (!stack.back().subfolders.empty()) {
            const int folderFd = stack.back().fd.get();
            std::string child = std::move(stack.back().subfolders.back());
            stack.back().subfolders.pop_back();
            if (theBeforeOpeningFolder) {
                theBeforeOpeningFolder(folderFd, child);
            }
            posix::UniqueFd childFd = posix::openAt(folderFd, child, posix::kFolderFlags, 0, &error);
            if (!childFd.valid()) {
                if (error == std::errc::too_many_symbolic_link_levels || error == std::errc::not_a_directory) {
                    // Replaced by a link or a file since it was read: that
                    // entry itself goes, whatever it points to stays.
                    if (::unlinkat(folderFd, child.c_str(), 0) != 0 && errno != ENOENT) {
                        failInCurrent(child, posix::lastError());
                    }
                } else if (error != std::errc::no_such_file_or_directory) {
                    failInCurrent(child, error);
                }
                continue;
            }
            struct stat st {};
            if (const std::error_code statError = posix::statDescriptor(childFd.get(), st)) {
                failInCurrent(child, statError);
                continue;
            }
            // The guard at every level: a protected folder met inside stays
            // with all it holds, and so do the folders above it.
            if (const std::error_code refusal = guard.refusal(st.st_dev, st.st_ino)) {
                failInCurrent(child, refusal);
                continue;
            }
            if (st.st_dev != device || MountPoint::mountIdOf(childFd.get()) != mount) {
                failInCurrent(child, RemovalRefusal::MountPoint);
                continue;
            }
            stack.push_back(Frame{std::move(childFd), st.st_dev, st.st_ino, std::move(child), {}, false});
            // Keep the current folder and a few above it open; the rest are
            // reopened through ".." on the way back up.
            if (stack.size() > theOpenAncestors + 1) {
                stack[stack.size() - theOpenAncestors - 2].fd.reset();
            }
            stack.back().failedInside = !readFolder(stack.back().fd.get(), stack.back().subfolders, currentPath, walk);
            continue;
        }

        // Every entry has been dealt with: remove the folder from its parent.
        Frame done = std::move(stack.back());
        stack.pop_back();
        int doneParentFd = parentFd;
        if (!stack.empty()) {
            Frame& parent = stack.back();
            if (!parent.fd.valid()) {
                posix::UniqueFd up = posix::openAt(done.fd.get(), "..", posix::kFolderFlags);
                struct stat upStat {};
                if (!up.valid() || posix::statDescriptor(up.get(), upStat) || upStat.st_dev != parent.device ||
                    upStat.st_ino != parent.inode) {
                    // The folder has been moved away from where the walk came
                    // down: climbing further could lead anywhere. Stop here.
                    walk.fail(currentPath(), reasonOf(std::errc::operation_canceled));
                    return;
                }
                parent.fd = std::move(up);
            }
            doneParentFd = parent.fd.get();
            if (done.failedInside) {
                parent.failedInside = true;
            }
        }
        done.fd.reset();
        if (::unlinkat(doneParentFd, done.name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
            const std::error_code reason = posix::lastError();
            if (!stack.empty()) {
                stack.back().failedInside = true;
            }
            // A folder that stays because something in it stayed is not a
            // failure of its own.
            if (!done.failedInside) {
                walk.fail(stack.empty() ? displayPath : joiningPath(currentPath(), done.name), reason);
            }
        }
    }
}

bool TreeRemover::removePath(const std::string& path, std::error_code* error) const
{
    Walk walk(theFailureHandler, error);
    const std::string trimmed(trimmingTrailingSlashes(path));
    const FolderAndName parts = splitFolderAndName(trimmed);
    if (trimmed.empty() || trimmed == "/") {
        walk.fail(path, reasonOf(std::errc::invalid_argument));
        return false;
    }
    if (!isSingleComponent(parts.name)) {
        walk.fail(trimmed, reasonOf(std::errc::invalid_argument));
        return false;
    }
    // The set is built before a folder is taken from the cache: building it
    // looks at paths of its own.
    static_cast<void>(protectedFolders());
    bool opened = false;
    std::error_code reason;
    const FolderCache::Folder folder = FolderCache::ofThisThread().folder(parts.folder, opened, &reason);
    if (!folder) {
        walk.fail(trimmed, reason);
        return false;
    }
    return removeEntry(folder->fd.get(), parts.name, trimmed, walk, folder.get());
}

bool TreeRemover::removeRelative(const std::string& folder, const std::string& relative, std::error_code* error) const
{
    Walk walk(theFailureHandler, error);
    std::vector<std::string> components;
    std::string::size_type start = 0;
    bool refused = false;
    while (start <= relative.size()) {
        std::string::size_type end = relative.find('/', start);
        if (end == std::string::npos) {
            end = relative.size();
        }
        if (end > start) {
            components.push_back(relative.substr(start, end - start));
            refused = refused || components.back() == "." || components.back() == "..";
        }
        start = end + 1;
    }
    if (refused || components.empty()) {
        // Nothing but slashes names the folder itself: say so when it is a
        // protected one ("/").
        std::error_code reason = reasonOf(std::errc::invalid_argument);
        const posix::UniqueFd named = refused ? posix::UniqueFd() : posix::openFolderPath(folder);
        struct stat status {};
        if (named.valid() && !posix::statDescriptor(named.get(), status)) {
            if (const std::error_code refusal = protectedFolders().refusal(status.st_dev, status.st_ino)) {
                reason = refusal;
            }
        }
        walk.fail(withSingleSlashes(joiningPath(folder, relative)), reason);
        return false;
    }
    std::string displayPath = folder;
    for (const std::string& component : components) {
        displayPath = joiningPath(displayPath, component);
    }
    static_cast<void>(protectedFolders());
    bool opened = false;
    std::error_code reason;
    const FolderCache::Folder resolved = FolderCache::ofThisThread().folder(folder, opened, &reason);
    if (!resolved) {
        walk.fail(displayPath, reason);
        return false;
    }
    const int top = resolved->fd.get();
    if (components.size() == 1) {
        return removeEntry(top, components.back(), displayPath, walk, resolved.get());
    }
    // Further down without following a link.
    posix::UniqueFd current;
    for (std::size_t i = 0; i + 1 < components.size(); ++i) {
        posix::UniqueFd next =
            posix::openAt(current.valid() ? current.get() : top, components[i], posix::kFolderFlags, 0, &reason);
        if (!next.valid()) {
            walk.fail(displayPath, reason);
            return false;
        }
        current = std::move(next);
    }
    return removeEntry(current.get(), components.back(), displayPath, walk, nullptr);
}

}  // namespace platform
