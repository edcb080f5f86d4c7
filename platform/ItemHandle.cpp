#include "platform/ItemHandle.h"

#include "platform/PathParts.h"
#include "platform/ProtectedFolders.h"
#include "platform/SystemTrees.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

namespace platform {

namespace {

void setError(std::error_code* error, std::error_code reason)
{
    if (error != nullptr) {
        *error = reason;
    }
}

// A name that is no entry of its folder but the folder itself, or the one
// above: the path then names the folder it leads to.
bool namesAFolderItself(std::string_view path, std::string_view name)
{
    return name.empty() || name == "." || name == ".." || path.back() == '/';
}

}  // namespace

ItemHandle::ItemHandle(posix::UniqueFd folder, posix::UniqueFd item, std::string name, const struct stat& status)
    : theFolder(std::move(folder)),
      theItem(std::move(item)),
      theName(std::move(name)),
      theStatus(status)
{
}

std::optional<ItemHandle> ItemHandle::open(std::string_view path, std::error_code* error)
{
    if (path.empty()) {
        setError(error, std::make_error_code(std::errc::no_such_file_or_directory));
        return std::nullopt;
    }
    std::error_code reason;
    const FolderAndName parts = splitFolderAndName(path);
    posix::UniqueFd folder;
    posix::UniqueFd item;
    std::string name;
    if (namesAFolderItself(path, parts.name)) {
        item = posix::openFolderPath(path, &reason);
    } else {
        folder = posix::openFolderPath(parts.folder, &reason);
        if (folder.valid()) {
            item = posix::openAt(folder.get(), parts.name, O_PATH | O_NOFOLLOW, 0, &reason);
            name = parts.name;
        }
    }
    struct stat status {};
    if (item.valid()) {
        reason = posix::statDescriptor(item.get(), status);
    }
    setError(error, reason);
    if (reason) {
        return std::nullopt;
    }
    return ItemHandle(std::move(folder), std::move(item), std::move(name), status);
}

std::error_code ItemHandle::status(struct stat& status) const noexcept
{
    return posix::statDescriptor(theItem.get(), status);
}

posix::UniqueFd ItemHandle::openForReading(std::error_code* error) const
{
    constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY;
    if (S_ISDIR(theStatus.st_mode)) {
        // "." relative to the folder's own descriptor is that folder: no
        // name is looked up again.
        return posix::openAt(theItem.get(), ".", kReadFlags | O_DIRECTORY, 0, error);
    }
    if (!S_ISREG(theStatus.st_mode) && !S_ISFIFO(theStatus.st_mode)) {
        setError(error, std::make_error_code(std::errc::operation_not_supported));
        return {};
    }
    // A file has no descriptor of its own to reopen: its name in the folder
    // met first is, and what that name now leads to must be the same file.
    posix::UniqueFd file = posix::openAt(theFolder.get(), theName, kReadFlags, 0, error);
    struct stat status {};
    if (!file.valid()) {
        return {};
    }
    if (const std::error_code reason = posix::statDescriptor(file.get(), status)) {
        setError(error, reason);
        return {};
    }
    if (status.st_dev != theStatus.st_dev || status.st_ino != theStatus.st_ino) {
        setError(error, std::make_error_code(std::errc::no_such_file_or_directory));
        return {};
    }
    return file;
}

std::optional<std::string> ItemHandle::reasonToLeaveModeAlone() const
{
    if (const std::error_code refusal = ProtectedFolders::shared().refusal(theStatus.st_dev, theStatus.st_ino)) {
        return refusal.message();
    }
    // A folder is placed from itself; anything else from the folder it was
    // found in.
    const int folderFd = S_ISDIR(theStatus.st_mode) ? theItem.get() : theFolder.get();
    std::error_code error;
    const std::optional<std::string> tree = SystemTrees::shared().treeHoldingFolder(folderFd, &error);
    if (error) {
        return "where it lies cannot be told (" + error.message() + ")";
    }
    if (tree) {
        return "it lies in the system's tree " + *tree;
    }
    return std::nullopt;
}

std::error_code ItemHandle::changeMode(mode_t mode) const
{
    std::error_code reason;
    const posix::UniqueFd fd = openForReading(&reason);
    if (!fd.valid()) {
        return reason;
    }
    return ::fchmod(fd.get(), mode & 07777) == 0 ? std::error_code() : posix::lastError();
}

}  // namespace platform
