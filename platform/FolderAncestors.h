// The folders above an open folder, found by the kernel rather than by text:
// each step opens ".." relative to the folder before it, so the climb needs
// no path, no /proc and no PATH_MAX, and it sees the folders as they really
// are (a link or ".." on the way the caller took makes no difference).
//
// Used wherever a decision depends on where an item really lies: whether it
// is inside a protected tree, and whether only root could have written a
// file (its owner and every folder above it).
//
// @code
//   // Is the folder open at fd /System or below it?
//   bool inside = false;
//   std::error_code error = FolderAncestors::climb(fd, [&](int, const struct stat& folder) {
//       inside = folder.st_dev == system.st_dev && folder.st_ino == system.st_ino;
//       return !inside;  // stop once found
//   });
//   if (error) { /* cannot tell: refuse */ }
// @endcode
#pragma once

#include <functional>
#include <sys/stat.h>
#include <system_error>

namespace platform {

class FolderAncestors {
public:
    FolderAncestors() = delete;

    // Called with a folder's descriptor (valid only during the call) and its
    // status; returning false ends the climb there.
    using Visitor = std::function<bool(int folderFd, const struct stat& folder)>;

    // Visits the folder open at `folderFd` (or AT_FDCWD for the current
    // folder) and then every folder above it, up to and including the root
    // of the process (the folder whose ".." is itself). Returns the reason
    // the climb could not go on (a folder above that cannot be opened or
    // examined); empty when it reached the root or the visitor ended it.
    // A caller deciding something for safety must treat an error as "cannot
    // tell", never as "no".
    static std::error_code climb(int folderFd, const Visitor& visit);
};

}  // namespace platform
