#include "platform/FileManager.h"

#include "platform/DirectoryEntries.h"
#include "platform/FolderCache.h"
#include "platform/ItemHandle.h"
#include "platform/PathParts.h"
#include "platform/PosixIO.h"
#include "platform/RegularFile.h"
#include "platform/TreeRemover.h"
#include "platform/User.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <linux/fs.h>
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

// Sets *error (when asked for) and gives the result of the operation.
bool report(std::error_code* error, std::error_code reason)
{
    if (error != nullptr) {
        *error = reason;
    }
    return !reason;
}

std::error_code emptyPathError()
{
    return std::make_error_code(std::errc::no_such_file_or_directory);
}

// The result of a system call that answers 0 on success.
std::error_code resultOf(int status)
{
    return status == 0 ? std::error_code() : posix::lastError();
}

// The file system's immutable flag. Asked of files and folders only, so
// opening never has a device's side effects; false where the file system has
// no such flags (a link, tmpfs on older kernels) or the item cannot be opened.
bool isImmutable(const ItemHandle& item)
{
    const struct stat& status = item.statusWhenOpened();
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        return false;
    }
    const posix::UniqueFd fd = item.openForReading();
    if (!fd.valid()) {
        return false;
    }
    int flags = 0;
    return ::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_IMMUTABLE_FL) != 0;
}

// Changes the permissions of the item the path names, judged and changed on
// one descriptor (ItemHandle.h): never those of a protected folder or of
// anything in the system's trees (operation_not_permitted then).
std::error_code changeModeOfItem(const std::string& path, mode_t mode)
{
    std::error_code reason;
    const std::optional<ItemHandle> item = ItemHandle::open(path, &reason);
    if (!item) {
        return reason;
    }
    if (item->reasonToLeaveModeAlone()) {
        return std::make_error_code(std::errc::operation_not_permitted);
    }
    return item->changeMode(mode);
}

// The names in the folder open at `folderFd`, sorted.
std::optional<std::vector<std::string>> sortedNames(int folderFd)
{
    std::vector<std::string> names;
    DirectoryEntries entries(folderFd);
    while (const auto entry = entries.next()) {
        names.emplace_back(entry->name);
    }
    if (entries.error()) {
        return std::nullopt;
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Writes the contents to a file just opened, sets the mode asked for exactly
// (the umask narrowed it at creation) and closes the file: the first failure.
std::error_code writeContentsAndMode(posix::UniqueFd& fd, std::string_view contents, std::optional<uint32_t> mode)
{
    std::error_code reason = posix::writeAll(fd.get(), contents);
    if (!reason && mode) {
        reason = resultOf(::fchmod(fd.get(), static_cast<mode_t>(*mode & 07777)));
    }
    const std::error_code closeError = fd.close();
    return reason ? reason : closeError;
}

// The folder a path names its last component in, opened once, and that
// name: the later steps of one operation act relative to the folder, never
// resolving its text again. A path that names no entry of a folder ("",
// "/", or one ending in "." or "..") has none: invalid_argument.
struct FolderEntry {
    posix::UniqueFd folder;
    std::string name;
};

std::optional<FolderEntry> openFolderEntry(const std::string& path, std::error_code& error)
{
    FolderAndName parts = splitFolderAndName(path);
    if (parts.name.empty() || parts.name == "." || parts.name == "..") {
        error = std::make_error_code(std::errc::invalid_argument);
        return std::nullopt;
    }
    posix::UniqueFd folder = posix::openFolderPath(parts.folder, &error);
    if (!folder.valid()) {
        return std::nullopt;
    }
    return FolderEntry{std::move(folder), std::move(parts.name)};
}

// Creates a new file beside `entry` in its folder for an atomic write,
// named "<name>.tmp.<pid>.<n>".
posix::UniqueFd createTemporarySibling(const FolderEntry& entry, std::string& temporaryName, std::error_code& error)
{
    static std::atomic<unsigned> counter{0};
    for (int attempt = 0; attempt < 100; ++attempt) {
        temporaryName = entry.name + ".tmp." + std::to_string(::getpid()) + "." + std::to_string(counter++);
        posix::UniqueFd fd = posix::openAt(entry.folder.get(), temporaryName,
                                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY, 0666, &error);
        if (fd.valid() || error != std::errc::file_exists) {
            return fd;
        }
    }
    return {};
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
    bool exists = false;
    const FolderAndName parts = splitFolderAndName(path);
    if (path.empty()) {
        exists = false;
    } else if (path.back() == '/' || parts.name.empty() || parts.name == "." || parts.name == "..") {
        // A trailing slash asks for a folder, and "." or ".." is a folder
        // itself rather than an entry of one: the kernel answers those.
        exists = ::stat(path.c_str(), &st) == 0;
    } else {
        // The item relative to its folder, which stays open for the next
        // item of the same folder and for the destroy that usually follows
        // (FolderCache.h), with what was seen of the item itself.
        FolderCache& cache = FolderCache::ofThisThread();
        for (int attempt = 0; attempt < 2 && !exists; ++attempt) {
            bool opened = false;
            const FolderCache::Folder folder = cache.folder(parts.folder, opened);
            if (!folder) {
                break;
            }
            const int fd = folder->fd.get();
            exists = ::fstatat(fd, parts.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
            if (exists) {
                folder->rememberStatus(parts.name, st);
                // Existence follows a final link: a dangling one does not exist.
                exists = !S_ISLNK(st.st_mode) || ::fstatat(fd, parts.name.c_str(), &st, 0) == 0;
                break;
            }
            if (opened || errno != ENOENT) {
                break;
            }
            // Not there in the folder kept from before, which may have gone
            // since: once more from the text.
            cache.forget();
        }
    }
    if (isDirectory != nullptr) {
        *isDirectory = exists && S_ISDIR(st.st_mode);
    }
    return exists;
}

std::optional<FileAttributes> FileManager::attributesOfItemAtPath(const std::string& path) const
{
    const std::optional<ItemHandle> item = ItemHandle::open(path);
    if (!item) {
        return std::nullopt;
    }
    return attributesOfItem(*item);
}

std::optional<FileAttributes> FileManager::attributesOfItem(const ItemHandle& item) const
{
    struct stat st {};
    if (item.status(st)) {
        return std::nullopt;
    }
    FileAttributes attributes;
    attributes.type = fileTypeOf(st.st_mode);
    attributes.size = static_cast<uint64_t>(st.st_size);
    attributes.posixPermissions = static_cast<uint32_t>(st.st_mode & 07777);
    attributes.ownerAccountID = st.st_uid;
    attributes.ownerAccountName = accountNameForUserID(st.st_uid);
    attributes.immutable = isImmutable(item);
    attributes.modificationTime =
        static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) / 1'000'000'000.0;
    return attributes;
}

bool FileManager::setPosixPermissions(const std::string& path, uint32_t mode, std::error_code* error) const
{
    return report(error, changeModeOfItem(path, static_cast<mode_t>(mode & 07777)));
}

bool FileManager::removeItemAtPath(const std::string& path, std::error_code* error) const
{
    return TreeRemover().removePath(path, error);
}

bool FileManager::removeEmptyFolderAtPath(const std::string& path, std::error_code* error) const
{
    TreeRemover remover;
    remover.setEmptyFoldersOnly(true);
    return remover.removePath(path, error);
}

bool FileManager::moveItemAtPath(const std::string& source, const std::string& destination,
                                 std::error_code* error) const
{
    if (source.empty() || destination.empty()) {
        return report(error, emptyPathError());
    }
    std::error_code reason;
    const std::optional<FolderEntry> from = openFolderEntry(source, reason);
    const std::optional<FolderEntry> to = from ? openFolderEntry(destination, reason) : std::nullopt;
    if (!to) {
        return report(error, reason);
    }
    reason = resultOf(::renameat(from->folder.get(), from->name.c_str(), to->folder.get(), to->name.c_str()));
    // A move may change what a folder text leads to.
    FolderCache::invalidateAll();
    return report(error, reason);
}

bool FileManager::createDirectoryAtPath(const std::string& path, std::optional<uint32_t> mode,
                                        std::error_code* error) const
{
    if (path.empty()) {
        return report(error, emptyPathError());
    }
    const FolderAndName parts = splitFolderAndName(path);
    if (parts.name.empty() || parts.name == "." || parts.name == "..") {
        // The folder the path leads to exists already, as mkdir answers.
        return report(error, std::make_error_code(std::errc::file_exists));
    }
    std::error_code reason;
    const posix::UniqueFd folder = posix::openFolderPath(parts.folder, &reason);
    if (!folder.valid()) {
        return report(error, reason);
    }
    const mode_t requested = mode ? static_cast<mode_t>(*mode & 07777) : 0777;
    if (::mkdirat(folder.get(), parts.name.c_str(), requested) != 0) {
        return report(error, posix::lastError());
    }
    if (!mode) {
        return report(error, {});
    }
    // The umask has narrowed the mode given to mkdir; a mode asked for is set
    // exactly, on the folder just made, reached from the same folder and
    // never through a link. One that is not this process's own is not the
    // one made here (replaced meanwhile) and is left alone.
    const posix::UniqueFd made = posix::openAt(folder.get(), parts.name, posix::kFolderFlags, 0, &reason);
    struct stat status {};
    if (!made.valid() || (reason = posix::statDescriptor(made.get(), status))) {
        return report(error, reason);
    }
    if (status.st_uid != ::geteuid()) {
        return report(error, std::make_error_code(std::errc::operation_not_permitted));
    }
    return report(error, resultOf(::fchmod(made.get(), requested)));
}

bool FileManager::createFileAtPath(const std::string& path, const std::string& contents, std::optional<uint32_t> mode,
                                   std::error_code* error) const
{
    if (path.empty()) {
        return report(error, emptyPathError());
    }
    std::error_code reason;
    posix::UniqueFd fd = posix::openFile(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOCTTY,
                                         mode ? static_cast<mode_t>(*mode & 07777) : 0666, &reason);
    if (!fd.valid()) {
        return report(error, reason);
    }
    return report(error, writeContentsAndMode(fd, contents, mode));
}

bool FileManager::writeFileAtomically(const std::string& path, std::string_view contents, std::error_code* error) const
{
    if (path.empty()) {
        return report(error, emptyPathError());
    }
    std::error_code reason;
    const std::optional<FolderEntry> entry = openFolderEntry(path, reason);
    if (!entry) {
        return report(error, reason);
    }
    std::string temporaryName;
    posix::UniqueFd fd = createTemporarySibling(*entry, temporaryName, reason);
    if (!fd.valid()) {
        return report(error, reason);
    }
    reason = posix::writeAll(fd.get(), contents);
    if (!reason) {
        reason = resultOf(::fsync(fd.get()));
    }
    const std::error_code closeError = fd.close();
    if (!reason) {
        reason = closeError;
    }
    const int folder = entry->folder.get();
    if (!reason) {
        reason = resultOf(::renameat(folder, temporaryName.c_str(), folder, entry->name.c_str()));
    }
    if (reason) {
        ::unlinkat(folder, temporaryName.c_str(), 0);
    }
    return report(error, reason);
}

std::optional<std::vector<std::string>> FileManager::contentsOfDirectoryAtPath(const std::string& path) const
{
    if (path.empty()) {
        return std::nullopt;
    }
    const posix::UniqueFd folder = posix::openFile(path, O_RDONLY | O_DIRECTORY | O_NOCTTY);
    if (!folder.valid()) {
        return std::nullopt;
    }
    return sortedNames(folder.get());
}

std::optional<std::vector<std::string>> FileManager::enumeratorAtPath(const std::string& path) const
{
    if (path.empty()) {
        return std::nullopt;
    }
    posix::UniqueFd rootFd = posix::openFile(path, O_RDONLY | O_DIRECTORY | O_NOCTTY);
    if (!rootFd.valid()) {
        return std::nullopt;
    }
    // One level per folder on the way down: its descriptor, its path relative
    // to the root, its sorted names and how far they have been listed.
    struct Level {
        posix::UniqueFd fd;
        std::string prefix;
        std::vector<std::string> names;
        std::size_t next = 0;
    };
    std::vector<std::string> paths;
    std::vector<Level> levels;
    auto rootNames = sortedNames(rootFd.get());
    if (!rootNames) {
        return std::nullopt;
    }
    levels.push_back(Level{std::move(rootFd), std::string(), std::move(*rootNames)});
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.names.size()) {
            levels.pop_back();
            continue;
        }
        const std::string& name = level.names[level.next++];
        std::string relative = level.prefix + name;
        paths.push_back(relative);
        // Opening it as a folder without following a link says whether it is
        // one to descend into.
        posix::UniqueFd childFd = posix::openAt(level.fd.get(), name, posix::kFolderFlags);
        if (!childFd.valid()) {
            continue;
        }
        auto childNames = sortedNames(childFd.get());
        if (!childNames) {
            continue;
        }
        levels.push_back(Level{std::move(childFd), relative + "/", std::move(*childNames)});
    }
    return paths;
}

std::optional<std::string> FileManager::contentsAtPath(const std::string& path, std::error_code* error) const
{
    // Bounded and regular files only: see RegularFile.h.
    return RegularFile::read(path, RegularFile::kSizeLimit, error);
}

namespace {

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

}  // namespace

std::optional<FileAttributeDictionary> FileManager::fileAttributesAtPath(const std::string& path) const
{
    const std::optional<ItemHandle> handle = ItemHandle::open(path);
    if (!handle) {
        return std::nullopt;
    }
    return fileAttributesOfItem(*handle);
}

std::optional<FileAttributeDictionary> FileManager::fileAttributesOfItem(const ItemHandle& handle) const
{
    const std::optional<FileAttributes> item = attributesOfItem(handle);
    if (!item) {
        return std::nullopt;
    }
    FileAttributeDictionary attributes;
    attributes.emplace(kFileType, std::string(fileTypeName(item->type)));
    attributes.emplace(kFileSize, item->size);
    attributes.emplace(kFilePosixPermissions, static_cast<uint64_t>(item->posixPermissions));
    attributes.emplace(kFileOwnerAccountID, static_cast<uint64_t>(item->ownerAccountID));
    if (item->ownerAccountName) {
        attributes.emplace(kFileOwnerAccountName, *item->ownerAccountName);
    }
    attributes.emplace(kFileImmutable, item->immutable);
    attributes.emplace(kFileModificationDate, Date(item->modificationTime));
    return attributes;
}

bool FileManager::changeFileAttributes(const FileAttributeDictionary& attributes, const std::string& path) const
{
    bool valid = false;
    const std::optional<mode_t> mode = requestedMode(attributes, valid);
    if (!valid || path.empty()) {
        return false;
    }
    return !mode || !changeModeOfItem(path, *mode);
}

bool FileManager::changeFileAttributes(const FileAttributeDictionary& attributes, const ItemHandle& item) const
{
    bool valid = false;
    const std::optional<mode_t> mode = requestedMode(attributes, valid);
    if (!valid) {
        return false;
    }
    return !mode || (!item.reasonToLeaveModeAlone() && !item.changeMode(*mode));
}

bool FileManager::createDirectoryWithAttributes(const std::string& path,
                                                const FileAttributeDictionary& attributes) const
{
    bool valid = false;
    const std::optional<mode_t> mode = requestedMode(attributes, valid);
    return valid && createDirectoryAtPath(path, mode);
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
    posix::UniqueFd fd =
        posix::openFile(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY, mode.value_or(0666));
    return fd.valid() && !writeContentsAndMode(fd, contents, mode);
}

}  // namespace platform
