#include "platform/TreeRemover.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace platform {

namespace {

// A folder is opened only as a folder and never through a link.
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY;

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : theFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : theFd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const noexcept { return theFd; }
    bool valid() const noexcept { return theFd >= 0; }
    int release() noexcept
    {
        const int fd = theFd;
        theFd = -1;
        return fd;
    }
    void reset(int fd = -1) noexcept
    {
        if (theFd >= 0) {
            ::close(theFd);
        }
        theFd = fd;
    }

private:
    int theFd = -1;
};

// One folder on the way down. Its descriptor may be closed while the walk is
// far below it; climbing back reopens it through ".." and checks it is the
// same folder (device and inode).
struct Frame {
    UniqueFd fd;
    dev_t device = 0;
    ino_t inode = 0;
    std::string name;                     // its name in the folder above
    std::vector<std::string> subfolders;  // still to be walked
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

// Reads the folder open at `fd` once: unlinks every entry that is not a
// folder at once and keeps the names of its subfolders on the same device.
// A mount point (a subfolder on another device) stays and makes the result
// false, as does every entry that cannot be removed.
void readFolder(int fd, dev_t device, std::vector<std::string>& subfolders, bool& complete)
{
    const int readFd = ::openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (readFd < 0) {
        complete = false;
        return;
    }
    DIR* dir = ::fdopendir(readFd);
    if (dir == nullptr) {
        ::close(readFd);
        complete = false;
        return;
    }
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (entry == nullptr) {
            if (errno != 0) {
                complete = false;
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
                    complete = false;
                }
                continue;
            }
            if (S_ISDIR(st.st_mode)) {
                if (st.st_dev == device) {
                    subfolders.emplace_back(name);
                } else {
                    complete = false;
                }
                continue;
            }
        }
        if (::unlinkat(fd, name, 0) != 0 && errno != ENOENT) {
            if (errno == EISDIR) {
                // Became a folder since it was read; it is checked when opened.
                subfolders.emplace_back(name);
            } else {
                complete = false;
            }
        }
    }
    ::closedir(dir);
}

// A folder reached as usual (a link on the way is followed); "" is the
// current folder, which must never be closed.
class FolderHandle {
public:
    explicit FolderHandle(const std::string& path) : theCurrent(path.empty())
    {
        if (!theCurrent) {
            theFd.reset(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY));
        }
    }
    int get() const noexcept { return theCurrent ? AT_FDCWD : theFd.get(); }
    bool valid() const noexcept { return theCurrent || theFd.valid(); }
    // Steps into the entry `name` without following a link.
    void descend(const std::string& name)
    {
        UniqueFd next(::openat(get(), name.c_str(), kFolderFlags));
        theCurrent = false;
        theFd = std::move(next);
    }

private:
    bool theCurrent;
    UniqueFd theFd;
};

}  // namespace

bool TreeRemover::removeEntry(int directoryFd, const std::string& name) const
{
    if (!isSingleComponent(name)) {
        return false;
    }
    struct stat item {};
    if (::fstatat(directoryFd, name.c_str(), &item, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    if (!S_ISDIR(item.st_mode)) {
        return ::unlinkat(directoryFd, name.c_str(), 0) == 0;
    }
    if (isRootFolder(item)) {
        return false;
    }
    struct stat parent {};
    const int parentStatus = directoryFd == AT_FDCWD ? ::stat(".", &parent) : ::fstat(directoryFd, &parent);
    if (parentStatus != 0 || parent.st_dev != item.st_dev) {
        // The item is itself a mount point: it stays.
        return false;
    }
    return removeFolder(directoryFd, name, item.st_dev, item.st_ino);
}

bool TreeRemover::removeFolder(int parentFd, const std::string& name, dev_t device, ino_t inode) const
{
    UniqueFd topFd(::openat(parentFd, name.c_str(), kFolderFlags));
    struct stat top {};
    if (!topFd.valid() || ::fstat(topFd.get(), &top) != 0 || top.st_dev != device || top.st_ino != inode) {
        return false;
    }

    bool complete = true;
    std::vector<Frame> stack;
    stack.push_back(Frame{std::move(topFd), device, inode, name, {}});
    readFolder(stack.back().fd.get(), device, stack.back().subfolders, complete);

    while (!stack.empty()) {
        if (!stack.back().subfolders.empty()) {
            const int folderFd = stack.back().fd.get();
            std::string child = std::move(stack.back().subfolders.back());
            stack.back().subfolders.pop_back();
            if (theBeforeOpeningFolder) {
                theBeforeOpeningFolder(folderFd, child);
            }
            UniqueFd childFd(::openat(folderFd, child.c_str(), kFolderFlags));
            if (!childFd.valid()) {
                if (errno == ELOOP || errno == ENOTDIR) {
                    // Replaced by a link or a file since it was read: that
                    // entry itself goes, whatever it points to stays.
                    if (::unlinkat(folderFd, child.c_str(), 0) != 0 && errno != ENOENT) {
                        complete = false;
                    }
                } else if (errno != ENOENT) {
                    complete = false;
                }
                continue;
            }
            struct stat st {};
            if (::fstat(childFd.get(), &st) != 0 || st.st_dev != device) {
                complete = false;
                continue;
            }
            stack.push_back(Frame{std::move(childFd), st.st_dev, st.st_ino, std::move(child), {}});
            // Keep the current folder and a few above it open; the rest are
            // reopened through ".." on the way back up.
            if (stack.size() > theOpenAncestors + 1) {
                stack[stack.size() - theOpenAncestors - 2].fd.reset();
            }
            readFolder(stack.back().fd.get(), device, stack.back().subfolders, complete);
            continue;
        }

        // Every entry has been dealt with: remove the folder from its parent.
        Frame done = std::move(stack.back());
        stack.pop_back();
        int doneParentFd = parentFd;
        if (!stack.empty()) {
            Frame& parent = stack.back();
            if (!parent.fd.valid()) {
                UniqueFd up(::openat(done.fd.get(), "..", kFolderFlags));
                struct stat upStat {};
                if (!up.valid() || ::fstat(up.get(), &upStat) != 0 || upStat.st_dev != parent.device ||
                    upStat.st_ino != parent.inode) {
                    // The folder has been moved away from where the walk came
                    // down: climbing further could lead anywhere. Stop here.
                    return false;
                }
                parent.fd = std::move(up);
            }
            doneParentFd = parent.fd.get();
        }
        done.fd.reset();
        if (::unlinkat(doneParentFd, done.name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
            complete = false;
        }
    }
    return complete;
}

bool TreeRemover::removePath(const std::string& path) const
{
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') {
        trimmed.pop_back();
    }
    if (trimmed.empty() || trimmed == "/") {
        return false;
    }
    const std::string::size_type slash = trimmed.rfind('/');
    const std::string name = slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
    const std::string folder =
        slash == std::string::npos ? std::string() : (slash == 0 ? std::string("/") : trimmed.substr(0, slash));
    if (!isSingleComponent(name)) {
        return false;
    }
    const FolderHandle parent(folder);
    return parent.valid() && removeEntry(parent.get(), name);
}

bool TreeRemover::removeRelative(const std::string& folder, const std::string& relative) const
{
    std::vector<std::string> components;
    std::string::size_type start = 0;
    while (start <= relative.size()) {
        std::string::size_type end = relative.find('/', start);
        if (end == std::string::npos) {
            end = relative.size();
        }
        if (end > start) {
            components.push_back(relative.substr(start, end - start));
            if (components.back() == "." || components.back() == "..") {
                return false;
            }
        }
        start = end + 1;
    }
    if (components.empty()) {
        return false;
    }
    if (components.size() == 1) {
        // Anything but a folder goes with one unlink of its full path: the
        // last component is never followed, a folder answers EISDIR and a
        // mount point EBUSY. Only folders need the walk below.
        const std::string path =
            folder.empty() ? components.front() : folder + (folder.back() == '/' ? "" : "/") + components.front();
        if (::unlinkat(AT_FDCWD, path.c_str(), 0) == 0) {
            return true;
        }
        if (errno != EISDIR) {
            return false;
        }
    }
    FolderHandle current(folder);
    for (std::size_t i = 0; current.valid() && i + 1 < components.size(); ++i) {
        current.descend(components[i]);
    }
    return current.valid() && removeEntry(current.get(), components.back());
}

}  // namespace platform
