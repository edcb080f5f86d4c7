// One item a path names, opened once: its folder resolved to a descriptor
// (links and ".." on the way followed, as the kernel resolves them, a path of
// any length), and the item itself opened relative to that descriptor
// without following a final link (O_PATH). Whatever is learnt of the item and
// whatever is changed on it afterwards is of this one item, even when the
// path leads somewhere else meanwhile (a folder on the way swapped for a
// link must not redirect a change judged safe for the item first met).
//
// A path ending in "/", ".", ".." or naming "/" names the folder it leads
// to; every other path names its last component itself, a link included.
//
// @code
//   std::error_code error;
//   const std::optional<platform::ItemHandle> item = platform::ItemHandle::open(path, &error);
//   if (!item) { /* error says why */ }
//   else if (const auto reason = item->reasonToLeaveModeAlone()) { /* never change it */ }
//   else if ((error = item->changeMode(0700))) { /* error says why */ }
// @endcode
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

#include "platform/PosixIO.h"

namespace platform {

class ItemHandle {
public:
    // The item `path` names, or none with the reason in `error` (when given;
    // cleared on success). An empty path fails with no_such_file_or_directory.
    static std::optional<ItemHandle> open(std::string_view path, std::error_code* error = nullptr);

    // The item's status now (fstat of its descriptor, never of the path).
    std::error_code status(struct stat& status) const noexcept;
    // The status it had when it was opened.
    const struct stat& statusWhenOpened() const noexcept { return theStatus; }

    // Opens this very item for reading, without blocking and never as a
    // terminal: a folder, a regular file or a FIFO. A link, a device or a
    // socket is not opened (operation_not_supported), since opening a device
    // can act on it; nor is an item that is no longer the one first met
    // (no_such_file_or_directory, for a file replaced under its name).
    posix::UniqueFd openForReading(std::error_code* error = nullptr) const;

    // Why the permissions of this item must never be changed, or none: it is
    // one of the protected folders (those the removal of a folder with its
    // contents refuses), or it is or lies below one of the system's trees
    // (/usr, /bin, /sbin, /lib*, /etc, /boot, /System), or where it lies
    // cannot be told. Decided by identity (device and inode), not by text.
    std::optional<std::string> reasonToLeaveModeAlone() const;

    // Sets the permission bits (mode & 07777) of this very item, through a
    // descriptor of it (openForReading): what cannot be opened that way
    // cannot be changed. A link's own permissions cannot be changed.
    std::error_code changeMode(mode_t mode) const;

private:
    ItemHandle(posix::UniqueFd folder, posix::UniqueFd item, std::string name, const struct stat& status);

    // The folder the item was found in (O_PATH); not held when the path
    // named a folder itself, which is then reopened through ".".
    posix::UniqueFd theFolder;
    // The item itself (O_PATH, O_NOFOLLOW).
    posix::UniqueFd theItem;
    // Its name in theFolder; "" when the path named a folder itself.
    std::string theName;
    struct stat theStatus {};
};

}  // namespace platform
