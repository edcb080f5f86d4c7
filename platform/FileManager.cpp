#include "platform/FileManager.h"

#include "platform/TreeRemover.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <pwd.h>
#include <string_view>
#include <utility>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace platform {

namespace {

FileType fileTypeOf(mode_t mode)
{
    switch (mode & S_IFMT) {
    case S_IFREG: return FileType::Regular;
    case S_IFDIR: return FileType::Directory;
    case S_IFLNK: return FileType::SymbolicLink;
    case S_IFCHR: return FileType::CharacterSpecial;
    case S_IFBLK: return FileType::BlockSpecial;
    case S_IFSOCK: return FileType::Socket;
    case S_IFIFO: return FileType::Fifo;
    default: return FileType::Unknown;
    }
}

std::optional<std::string> accountNameOf(uid_t uid)
{
    long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::size_t size = suggested > 0 ? static_cast<std::size_t>(suggested) : 1024;
    for (;;) {
        std::vector<char> buffer(size);
        struct passwd entry {};
        struct passwd* found = nullptr;
        const int status = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
        if (status == ERANGE && size < (std::size_t{1} << 20)) {
            size *= 2;
            continue;
        }
        if (status != 0 || found == nullptr || found->pw_name == nullptr) {
            return std::nullopt;
        }
        return std::string(found->pw_name);
    }
}

// The file system's immutable flag. Asked for files and folders only, so
// opening never has a device's side effects; false where the file system has
// no such flags (a link, tmpfs on older kernels) or the item cannot be opened.
bool isImmutable(const std::string& path, mode_t mode)
{
    if (!S_ISREG(mode) && !S_ISDIR(mode)) {
        return false;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return false;
    }
    int flags = 0;
    const bool immutable = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_IMMUTABLE_FL) != 0;
    ::close(fd);
    return immutable;
}

// The names in the folder open at `fd` (which is taken over), sorted.
std::optional<std::vector<std::string>> sortedNames(int fd)
{
    if (fd < 0) {
        return std::nullopt;
    }
    DIR* dir = ::fdopendir(fd);
    if (dir == nullptr) {
        ::close(fd);
        return std::nullopt;
    }
    std::vector<std::string> names;
    bool failed = false;
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (entry == nullptr) {
            failed = errno != 0;
            break;
        }
        const std::string_view name(entry->d_name);
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    ::closedir(dir);
    if (failed) {
        return std::nullopt;
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool writeAll(int fd, const std::string& contents)
{
    const char* data = contents.data();
    std::size_t left = contents.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, data, left);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    return true;
}

}  // namespace

FileManager& FileManager::defaultManager()
{
    static FileManager manager;
    return manager;
}

bool FileManager::fileExistsAtPath(const std::string& path) const
{
    return fileExistsAtPath(path, nullptr);
}

bool FileManager::fileExistsAtPath(const std::string& path, bool* isDirectory) const
{
    struct stat st {};
    const bool exists = !path.empty() && ::stat(path.c_str(), &st) == 0;
    if (isDirectory != nullptr) {
        *isDirectory = exists && S_ISDIR(st.st_mode);
    }
    return exists;
}

std::optional<FileAttributes> FileManager::attributesOfItemAtPath(const std::string& path) const
{
    struct stat st {};
    if (path.empty() || ::lstat(path.c_str(), &st) != 0) {
        return std::nullopt;
    }
    FileAttributes attributes;
    attributes.type = fileTypeOf(st.st_mode);
    attributes.size = static_cast<uint64_t>(st.st_size);
    attributes.posixPermissions = static_cast<uint32_t>(st.st_mode & 07777);
    attributes.ownerAccountID = st.st_uid;
    attributes.ownerAccountName = accountNameOf(st.st_uid);
    attributes.immutable = isImmutable(path, st.st_mode);
    return attributes;
}

bool FileManager::setPosixPermissions(const std::string& path, uint32_t mode) const
{
    return !path.empty() && ::chmod(path.c_str(), static_cast<mode_t>(mode & 07777)) == 0;
}

bool FileManager::removeItemAtPath(const std::string& path) const
{
    return TreeRemover().removePath(path);
}

bool FileManager::moveItemAtPath(const std::string& source, const std::string& destination) const
{
    return !source.empty() && !destination.empty() && ::rename(source.c_str(), destination.c_str()) == 0;
}

bool FileManager::createDirectoryAtPath(const std::string& path, std::optional<uint32_t> mode) const
{
    if (path.empty() || ::mkdir(path.c_str(), mode ? static_cast<mode_t>(*mode & 07777) : 0777) != 0) {
        return false;
    }
    // The umask has narrowed the mode given to mkdir; a mode asked for is set exactly.
    return !mode || ::chmod(path.c_str(), static_cast<mode_t>(*mode & 07777)) == 0;
}

bool FileManager::createFileAtPath(const std::string& path, const std::string& contents,
                                   std::optional<uint32_t> mode) const
{
    if (path.empty()) {
        return false;
    }
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY,
                          mode ? static_cast<mode_t>(*mode & 07777) : 0666);
    if (fd < 0) {
        return false;
    }
    bool ok = writeAll(fd, contents);
    if (ok && mode) {
        ok = ::fchmod(fd, static_cast<mode_t>(*mode & 07777)) == 0;
    }
    return ::close(fd) == 0 && ok;
}

std::optional<std::vector<std::string>> FileManager::contentsOfDirectoryAtPath(const std::string& path) const
{
    if (path.empty()) {
        return std::nullopt;
    }
    return sortedNames(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY));
}

std::optional<std::vector<std::string>> FileManager::enumeratorAtPath(const std::string& path) const
{
    if (path.empty()) {
        return std::nullopt;
    }
    const int rootFd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY);
    if (rootFd < 0) {
        return std::nullopt;
    }
    // One level per folder on the way down: its descriptor, its path relative
    // to the root, its sorted names and how far they have been listed.
    struct Level {
        int fd;
        std::string prefix;
        std::vector<std::string> names;
        std::size_t next = 0;
    };
    std::vector<std::string> paths;
    std::vector<Level> levels;
    const int listFd = ::openat(rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    auto rootNames = sortedNames(listFd);
    if (!rootNames) {
        ::close(rootFd);
        return std::nullopt;
    }
    levels.push_back(Level{rootFd, std::string(), std::move(*rootNames)});
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.names.size()) {
            ::close(level.fd);
            levels.pop_back();
            continue;
        }
        const std::string& name = level.names[level.next++];
        std::string relative = level.prefix + name;
        paths.push_back(relative);
        struct stat st {};
        if (::fstatat(level.fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode)) {
            continue;
        }
        const int childFd = ::openat(level.fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (childFd < 0) {
            continue;
        }
        auto childNames = sortedNames(::openat(childFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!childNames) {
            ::close(childFd);
            continue;
        }
        levels.push_back(Level{childFd, relative + "/", std::move(*childNames)});
    }
    return paths;
}

std::optional<std::string> FileManager::contentsAtPath(const std::string& path) const
{
    if (path.empty()) {
        return std::nullopt;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return std::nullopt;
    }
    std::string contents;
    char buffer[65536];
    bool failed = false;
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            failed = true;
            break;
        }
        if (got == 0) {
            break;
        }
        contents.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fd);
    if (failed) {
        return std::nullopt;
    }
    return contents;
}

namespace {

// Closes the descriptor it owns when it goes.
class OwnedDescriptor {
public:
    explicit OwnedDescriptor(int fd) noexcept : theFd(fd) {}
    ~OwnedDescriptor()
    {
        if (theFd >= 0) {
            ::close(theFd);
        }
    }
    OwnedDescriptor(const OwnedDescriptor&) = delete;
    OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;
    int get() const noexcept { return theFd; }
    // Closes now and tells whether closing succeeded.
    bool close() noexcept
    {
        const int fd = std::exchange(theFd, -1);
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int theFd;
};

const char* fileTypeName(FileType type)
{
    switch (type) {
    case FileType::Regular: return kFileTypeRegular;
    case FileType::Directory: return kFileTypeDirectory;
    case FileType::SymbolicLink: return kFileTypeSymbolicLink;
    case FileType::CharacterSpecial: return kFileTypeCharacterSpecial;
    case FileType::BlockSpecial: return kFileTypeBlockSpecial;
    case FileType::Socket: return kFileTypeSocket;
    case FileType::Fifo:
    case FileType::Unknown: break;
    }
    return kFileTypeUnknown;
}

// The permission bits that the attributes ask for: none when they ask for
// nothing; false in `valid` when they hold something that cannot be set.
std::optional<mode_t> requestedMode(const FileAttributeDictionary& attributes, bool& valid)
{
    valid = true;
    std::optional<mode_t> mode;
    for (const auto& [key, value] : attributes) {
        const uint64_t* number = std::get_if<uint64_t>(&value);
        if (key != kFilePosixPermissions || number == nullptr || *number > 07777) {
            valid = false;
            return std::nullopt;
        }
        mode = static_cast<mode_t>(*number);
    }
    return mode;
}

// chmod that never follows a final link (a link itself cannot be changed).
bool changeModeNoFollow(const std::string& path, mode_t mode)
{
    return !path.empty() && ::fchmodat(AT_FDCWD, path.c_str(), mode, AT_SYMLINK_NOFOLLOW) == 0;
}

}  // namespace

std::optional<FileAttributeDictionary> FileManager::fileAttributesAtPath(const std::string& path) const
{
    struct stat st {};
    if (path.empty() || ::lstat(path.c_str(), &st) != 0) {
        return std::nullopt;
    }
    FileAttributeDictionary attributes;
    attributes.emplace(kFileType, std::string(fileTypeName(fileTypeOf(st.st_mode))));
    attributes.emplace(kFileSize, static_cast<uint64_t>(st.st_size));
    attributes.emplace(kFilePosixPermissions, static_cast<uint64_t>(st.st_mode & 07777));
    attributes.emplace(kFileOwnerAccountID, static_cast<uint64_t>(st.st_uid));
    if (auto owner = accountNameOf(st.st_uid)) {
        attributes.emplace(kFileOwnerAccountName, std::move(*owner));
    }
    attributes.emplace(kFileImmutable, isImmutable(path, st.st_mode));
    const double modified =
        static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) / 1'000'000'000.0;
    attributes.emplace(kFileModificationDate, Date(modified));
    return attributes;
}

bool FileManager::changeFileAttributes(const FileAttributeDictionary& attributes, const std::string& path) const
{
    bool valid = false;
    const std::optional<mode_t> mode = requestedMode(attributes, valid);
    if (!valid || path.empty()) {
        return false;
    }
    return !mode || changeModeNoFollow(path, *mode);
}

bool FileManager::createDirectoryWithAttributes(const std::string& path,
                                                const FileAttributeDictionary& attributes) const
{
    bool valid = false;
    const std::optional<mode_t> mode = requestedMode(attributes, valid);
    if (!valid || path.empty() || ::mkdir(path.c_str(), mode.value_or(0777)) != 0) {
        return false;
    }
    // mkdir applied the umask; the mode asked for is set as asked.
    return !mode || changeModeNoFollow(path, *mode);
}

bool FileManager::createFileWithAttributes(const std::string& path, const std::string& contents,
                                           const FileAttributeDictionary& attributes) const
{
    bool valid = false;
    const std::optional<mode_t> mode = requestedMode(attributes, valid);
    if (!valid || path.empty()) {
        return false;
    }
    // A new file only: nothing already at the path (a planted link included)
    // is opened.
    OwnedDescriptor fd(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, mode.value_or(0666)));
    if (fd.get() < 0) {
        return false;
    }
    bool ok = writeAll(fd.get(), contents);
    if (ok && mode) {
        ok = ::fchmod(fd.get(), *mode) == 0;
    }
    return fd.close() && ok;
}

}  // namespace platform
