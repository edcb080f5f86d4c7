// Removal of a file-system item with everything in it, as safe as `rm -r`
// and safer where rm is racy. This is the one statement of the destroy
// contract; FileManager's removeItemAtPath and Workspace's destroy operation
// both remove through it.
//
// - One way from a path to an act: the item's folder is resolved once to a
//   descriptor (links and ".." on the way followed, as the kernel does; a
//   path of any length, opened piece by piece when it is longer than
//   PATH_MAX), the item is examined relative to that descriptor without
//   following it (fstatat AT_SYMLINK_NOFOLLOW), judged, and removed relative
//   to the same descriptor (unlinkat, or for a folder openat with
//   O_NOFOLLOW | O_DIRECTORY, checked to be the folder judged, then the
//   walk). No path is resolved a second time after it was judged, so a
//   folder on the way swapped for a link meanwhile cannot redirect the act;
// - a symbolic link is unlinked itself, never followed;
// - the walk works relative to open directory descriptors (openat with
//   O_NOFOLLOW | O_DIRECTORY, unlinkat), so a folder swapped for a link while
//   the walk runs cannot redirect it;
// - it never leaves the item's mount: a mount point inside the item (or the
//   item itself being one) stays, and the result is false. A mount is
//   recognised by its mount (MountPoint.h), not by its device number, so a
//   bind mount of the same disk stays too;
// - it refuses "/" itself and the names "", "." and "..";
// - it refuses the protected folders (ProtectedFolders.h: "/", the system's
//   folders, everything below a protected tree such as /System, every
//   account's home folder and the standard folders in it, the running
//   program's bundle). The item itself is compared by device and inode; its
//   folder's place (below a protected tree or not) is found by climbing
//   through ".." from the folder's descriptor, never from text. A link is
//   only the link, so it goes unless the link itself is protected ("/lib");
// - the guard works at every level: each folder the walk opens is compared
//   with the protected set (one hash lookup per folder). A protected folder
//   met inside stays with everything in it, and so do the folders above it
//   up to the item; it is reported with its own path and reason;
// - it fails closed: an item whose folder cannot be resolved, or whose place
//   cannot be told (a climb that cannot go on), is refused with the reason;
//   nothing unknown is taken as allowed;
// - it has no depth limit: the walk is iterative, keeps only a small window
//   of descriptors open and climbs back up through "..", checking that each
//   folder it climbs into is the one it came down from;
// - what it cannot remove leaves the result false, and the walk goes on
//   with the rest.
//
// Cost: an existing file named by its folder and name costs one fstatat and
// one unlinkat when its folder was resolved for the item before (the folder
// is kept open for the next item of the same folder text, and the existence
// check's look at the item is reused; FolderCache.h).
//
// Memory stays small: a folder's files are unlinked while it is read, and
// only the names of its subfolders are kept until they are walked.
//
// Why something stayed. Each operation takes an optional `error` that
// receives the reason of the first failure (cleared when everything went).
// A failure handler, when set, is called once for every item that could not
// be removed, in the order met, with its path and the reason:
//
//   path    the caller's path of the item (removePath: the path as given;
//           removeRelative: folder + "/" + relative; removeEntry: the name)
//           followed by the path inside it, e.g. "/opt/app/lib/locked";
//   reason  a std::errc value, compared as error == std::errc::...:
//           - what the system call answered (permission_denied,
//             no_such_file_or_directory for a missing item,
//             read_only_file_system, ...);
//           - invalid_argument for a refused name ("", ".", "..", a ".."
//             component, "/" itself);
//           - a RemovalRefusal (RemovalRefusal.h, its own error category) for
//             a protected folder: its message() is the reason as text ("a
//             protected system folder", "a home folder", "a standard folder
//             of the home folder", "the running program's bundle"), and it
//             compares equal to std::errc::operation_not_permitted;
//             A protected folder met inside the item is reported with its
//             own path ("/opt/Vendor/Support/Tool.app: the running
//             program's bundle");
//           - RemovalRefusal::MountPoint ("a mount point") for a mount point,
//             inside the item or the item itself: it stays as it is. It
//             compares equal to std::errc::device_or_resource_busy, as does
//             RemovalRefusal::UnknownMount when the kernel cannot tell a
//             folder's mount (then the folder is left alone);
//           - operation_canceled when the tree was moved under the walk so
//             that climbing back would leave the item: the walk stops there.
//
// Only first causes are reported: a folder that stays because something in
// it stayed is not reported again.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <sys/types.h>
#include <system_error>
#include <utility>

#include "platform/FolderCache.h"

namespace platform {

class ProtectedFolders;

class TreeRemover {
public:
    // Called with the path of an item that could not be removed and why.
    using FailureHandler = std::function<void(const std::string& path, std::error_code reason)>;

    // How many folders above the current one keep their descriptors open.
    static constexpr std::size_t kDefaultOpenAncestors = 16;

    TreeRemover() = default;
    explicit TreeRemover(std::size_t openAncestors) : theOpenAncestors(openAncestors) {}

    // Removes the entry `name` (one path component) of the folder open at
    // `directoryFd` (or AT_FDCWD), with everything in it. True when the entry
    // existed and is gone completely.
    bool removeEntry(int directoryFd, const std::string& name, std::error_code* error = nullptr) const;

    // Removes the item at `path` with everything in it. The folders leading
    // to it are reached as usual (once); its final component is never
    // followed. Refuses "", "/" and a path whose last component is "." or
    // "..". Trailing slashes do not count.
    bool removePath(const std::string& path, std::error_code* error = nullptr) const;

    // Removes `relative` below the folder `folder` ("" for the current
    // folder). Every component of `relative` is reached without following a
    // link, and a component "." or ".." refuses the whole request, so it can
    // never lead outside `folder`. Empty components (repeated or leading
    // slashes) are ignored; a path with no component left is refused.
    bool removeRelative(const std::string& folder, const std::string& relative, std::error_code* error = nullptr) const;

    // Called for every item that could not be removed (see above).
    void setFailureHandler(FailureHandler handler) { theFailureHandler = std::move(handler); }

    // Called with the folder's descriptor and a subfolder's name just before
    // the walk opens that subfolder. Lets tests change the tree at the moment
    // a real concurrent change would hurt most.
    void setBeforeOpeningFolder(std::function<void(int directoryFd, const std::string& name)> hook)
    {
        theBeforeOpeningFolder = std::move(hook);
    }

    // Removes only an empty folder, or a link itself: any other item stays
    // (not_a_directory), and a folder goes with one rmdir (unlinkat with
    // AT_REMOVEDIR) after the same checks as any item, so whatever appeared
    // in it after a caller found it empty keeps it (directory_not_empty).
    void setEmptyFoldersOnly(bool emptyOnly) { theEmptyFoldersOnly = emptyOnly; }

    // The protected folders this remover refuses (see ProtectedFolders.h);
    // by default the set of the process. Tests give a set of their own, which
    // must outlive the remover.
    void setProtectedFolders(const ProtectedFolders& folders) { theProtectedFolders = &folders; }

private:
    class Walk;

    const ProtectedFolders& protectedFolders() const;

    bool removeEntry(int directoryFd, const std::string& name, const std::string& displayPath, Walk& walk,
                     FolderCache::Resolved* cache) const;
    void removeFolder(int parentFd, const std::string& name, const std::string& displayPath, dev_t device, ino_t inode,
                      Walk& walk) const;

    std::size_t theOpenAncestors = kDefaultOpenAncestors;
    FailureHandler theFailureHandler;
    std::function<void(int, const std::string&)> theBeforeOpeningFolder;
    const ProtectedFolders* theProtectedFolders = nullptr;
    bool theEmptyFoldersOnly = false;
};

}  // namespace platform
