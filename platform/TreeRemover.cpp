#include "platform/TreeRemover.h"

#include "platform/MountPoint.h"
#include "platform/PosixIO.h"
#include "platform/ProtectedFolders.h"
#include "platform/RemovalRefusal.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace platform {

namespace {

namespace posix = platform::posix;

// A folder is opened only as a folder and never through a link.
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NOCTTY;

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

bool isDotOrDotDot(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

bool isSingleComponent(const std::string& name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

bool isRootFolder(const struct stat& item)
{
    struct stat root {};
    return ::stat("/", &root) == 0 && root.st_dev == item.st_dev && root.st_ino == item.st_ino;
}

std::string joinPath(const std::string& folder, const std::string& name)
{
    if (folder.empty()) {
        return name;
    }
    return folder.back() == '/' ? folder + name : folder + "/" + name;
}

// Where the folder open at directoryFd really is (links and ".." resolved);
// "" when it cannot be told.
std::string resolvedFolderPath(int directoryFd)
{
    if (directoryFd == AT_FDCWD) {
        std::array<char, PATH_MAX> buffer{};
        return ::getcwd(buffer.data(), buffer.size()) != nullptr ? std::string(buffer.data()) : std::string();
    }
    std::array<char, PATH_MAX> buffer{};
    const std::string link = "/proc/self/fd/" + std::to_string(directoryFd);
    const ssize_t length = ::readlink(link.c_str(), buffer.data(), buffer.size() - 1);
    return length > 0 ? std::string(buffer.data(), static_cast<std::size_t>(length)) : std::string();
}

// The same for a path's folder ("" when it cannot be resolved).
std::string resolvedPathOf(const std::string& path)
{
    struct FreeDeleter {
        void operator()(char* text) const noexcept { std::free(text); }
    };
    const std::unique_ptr<char, FreeDeleter> real(::realpath(path.c_str(), nullptr));
    return real ? std::string(real.get()) : std::string();
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
        path = joinPath(path, stack[i].name);
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
// folder at once and keeps the names of its subfolders on the same device.
// A mount point (a subfolder on another device) stays, as does every entry
// that cannot be removed; each is reported. False when something stayed.
template <typename Walk, typename FolderPath>
bool readFolder(int fd, dev_t device, std::vector<std::string>& subfolders, const FolderPath& folderPath, Walk& walk)
{
    bool complete = true;
    const auto fail = [&](const char* name, std::error_code reason) {
        complete = false;
        walk.fail(name == nullptr ? folderPath() : joinPath(folderPath(), name), reason);
    };
    std::error_code error;
    posix::UniqueDir dir = posix::UniqueDir::reading(fd, &error);
    if (!dir.valid()) {
        fail(nullptr, error);
        return false;
    }
    for (;;) {
        const dirent* entry = dir.next(error);
        if (entry == nullptr) {
            if (error) {
                fail(nullptr, error);
            }
            break;
        }
        const char* name = entry->d_name;
        if (isDotOrDotDot(name)) {
            continue;
        }
        if (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) {
            struct stat st {};
            if (::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno != ENOENT) {
                    fail(name, posix::lastError());
                }
                continue;
            }
            if (S_ISDIR(st.st_mode)) {
                if (st.st_dev == device) {
                    // A mount of the same disk is caught when it is opened.
                    subfolders.emplace_back(name);
                } else {
                    fail(name, RemovalRefusal::MountPoint);
                }
                continue;
            }
        }
        if (::unlinkat(fd, name, 0) != 0 && errno != ENOENT) {
            if (errno == EISDIR) {
                // Became a folder since it was read; it is checked when opened.
                subfolders.emplace_back(name);
            } else {
                fail(name, posix::lastError());
            }
        }
    }
    return complete;
}

// A folder reached as usual (a link on the way is followed); "" is the
// current folder, which must never be closed.
class FolderHandle {
public:
    explicit FolderHandle(const std::string& path) : theCurrent(path.empty())
    {
        if (!theCurrent) {
            theFd = posix::openFile(path, O_RDONLY | O_DIRECTORY | O_NOCTTY, 0, &theError);
        }
    }
    int get() const noexcept { return theCurrent ? AT_FDCWD : theFd.get(); }
    bool valid() const noexcept { return theCurrent || theFd.valid(); }
    // Why the folder could not be reached.
    std::error_code error() const noexcept { return theError; }
    // Steps into the entry `name` without following a link.
    void descend(const std::string& name)
    {
        posix::UniqueFd next = posix::openAt(get(), name, kFolderFlags, 0, &theError);
        theCurrent = false;
        theFd = std::move(next);
    }

private:
    bool theCurrent;
    posix::UniqueFd theFd;
    std::error_code theError;
};

}  // namespace

bool TreeRemover::removeEntry(int directoryFd, const std::string& name, std::error_code* error) const
{
    Walk walk(theFailureHandler, error);
    return removeEntry(directoryFd, name, name, walk);
}

bool TreeRemover::removeEntry(int directoryFd, const std::string& name, const std::string& displayPath,
                              Walk& walk) const
{
    if (!isSingleComponent(name)) {
        walk.fail(displayPath, reasonOf(std::errc::invalid_argument));
        return false;
    }
    struct stat item {};
    if (::fstatat(directoryFd, name.c_str(), &item, AT_SYMLINK_NOFOLLOW) != 0) {
        walk.fail(displayPath, posix::lastError());
        return false;
    }
    // The item as it really is, whatever way the caller's path took to it.
    const ProtectedFolders& guard = protectedFolders();
    const std::error_code refusal =
        guard.refusal(item.st_dev, item.st_ino,
                      guard.needsResolvedPath() ? joinPath(resolvedFolderPath(directoryFd), name) : std::string());
    if (refusal) {
        walk.fail(displayPath, refusal);
        return false;
    }
    if (!S_ISDIR(item.st_mode)) {
        if (::unlinkat(directoryFd, name.c_str(), 0) != 0) {
            walk.fail(displayPath, posix::lastError());
            return false;
        }
        return true;
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
    posix::UniqueFd topFd = posix::openAt(parentFd, name, kFolderFlags, 0, &error);
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
        walk.fail(joinPath(currentPath(), child), reason);
    };
    stack.push_back(Frame{std::move(topFd), device, inode, name, {}, false});
    stack.back().failedInside = !readFolder(stack.back().fd.get(), device, stack.back().subfolders, currentPath, walk);

    while (!stack.empty()) {
        if (!stack.back().subfolders.empty()) {
            const int folderFd = stack.back().fd.get();
            std::string child = std::move(stack.back().subfolders.back());
            stack.back().subfolders.pop_back();
            if (theBeforeOpeningFolder) {
                theBeforeOpeningFolder(folderFd, child);
            }
            posix::UniqueFd childFd = posix::openAt(folderFd, child, kFolderFlags, 0, &error);
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
            stack.back().failedInside =
                !readFolder(stack.back().fd.get(), device, stack.back().subfolders, currentPath, walk);
            continue;
        }

        // Every entry has been dealt with: remove the folder from its parent.
        Frame done = std::move(stack.back());
        stack.pop_back();
        int doneParentFd = parentFd;
        if (!stack.empty()) {
            Frame& parent = stack.back();
            if (!parent.fd.valid()) {
                posix::UniqueFd up = posix::openAt(done.fd.get(), "..", kFolderFlags);
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
                walk.fail(stack.empty() ? displayPath : joinPath(currentPath(), done.name), reason);
            }
        }
    }
}

bool TreeRemover::removePath(const std::string& path, std::error_code* error) const
{
    Walk walk(theFailureHandler, error);
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') {
        trimmed.pop_back();
    }
    if (trimmed.empty() || trimmed == "/") {
        walk.fail(path, reasonOf(std::errc::invalid_argument));
        return false;
    }
    const std::string::size_type slash = trimmed.rfind('/');
    const std::string name = slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
    const std::string folder =
        slash == std::string::npos ? std::string() : (slash == 0 ? std::string("/") : trimmed.substr(0, slash));
    if (!isSingleComponent(name)) {
        walk.fail(trimmed, reasonOf(std::errc::invalid_argument));
        return false;
    }
    const FolderHandle parent(folder);
    if (!parent.valid()) {
        walk.fail(trimmed, parent.error());
        return false;
    }
    return removeEntry(parent.get(), name, trimmed, walk);
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
        struct stat named {};
        if (!refused && ::stat(folder.empty() ? "." : folder.c_str(), &named) == 0) {
            if (const std::error_code refusal =
                    protectedFolders().refusal(named.st_dev, named.st_ino, resolvedPathOf(folder))) {
                reason = refusal;
            }
        }
        walk.fail(withSingleSlashes(joinPath(folder, relative)), reason);
        return false;
    }
    std::string displayPath = folder;
    for (const std::string& component : components) {
        displayPath = joinPath(displayPath, component);
    }
    if (components.size() == 1) {
        // Anything but a folder goes with one unlink of its full path (the
        // last component is never followed), once the guard has seen its
        // identity: a protected link ("/lib") would go with that unlink.
        // Only folders need the walk below.
        struct stat item {};
        if (::fstatat(AT_FDCWD, displayPath.c_str(), &item, AT_SYMLINK_NOFOLLOW) != 0) {
            walk.fail(displayPath, posix::lastError());
            return false;
        }
        if (!S_ISDIR(item.st_mode)) {
            const ProtectedFolders& guard = protectedFolders();
            const std::error_code refusal = guard.refusal(
                item.st_dev, item.st_ino,
                guard.needsResolvedPath() ? joinPath(resolvedPathOf(folder.empty() ? "." : folder), components[0])
                                          : std::string());
            if (refusal) {
                walk.fail(displayPath, refusal);
                return false;
            }
            if (::unlinkat(AT_FDCWD, displayPath.c_str(), 0) == 0) {
                return true;
            }
            if (errno != EISDIR) {
                // EISDIR: became a folder since it was looked at.
                walk.fail(displayPath, posix::lastError());
                return false;
            }
        }
    }
    FolderHandle current(folder);
    for (std::size_t i = 0; current.valid() && i + 1 < components.size(); ++i) {
        current.descend(components[i]);
    }
    if (!current.valid()) {
        walk.fail(displayPath, current.error());
        return false;
    }
    return removeEntry(current.get(), components.back(), displayPath, walk);
}

}  // namespace platform
