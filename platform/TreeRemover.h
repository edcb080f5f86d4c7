// Removal of a file-system item with everything in it, as safe as `rm -r`:
//
// - a symbolic link is unlinked itself, never followed;
// - the walk works relative to open directory descriptors (openat with
//   O_NOFOLLOW | O_DIRECTORY, fstatat without following, unlinkat), so a
//   folder swapped for a link while the walk runs cannot redirect it;
// - it never descends into another file system: a mount point inside the
//   item stays, and the result is false;
// - it refuses "/" itself and the names "", "." and "..";
// - it has no depth limit: the walk is iterative, keeps only a small window
//   of descriptors open and climbs back up through "..", checking that each
//   folder it climbs into is the one it came down from;
// - what it cannot remove leaves the result false, and the walk goes on
//   with the rest.
//
// Memory stays small: a folder's files are unlinked while it is read, and
// only the names of its subfolders are kept until they are walked.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <sys/types.h>
#include <utility>

namespace platform {

class TreeRemover {
public:
    // How many folders above the current one keep their descriptors open.
    static constexpr std::size_t kDefaultOpenAncestors = 16;

    TreeRemover() = default;
    explicit TreeRemover(std::size_t openAncestors) : theOpenAncestors(openAncestors) {}

    // Removes the entry `name` (one path component) of the folder open at
    // `directoryFd` (or AT_FDCWD), with everything in it. True when the entry
    // existed and is gone completely.
    bool removeEntry(int directoryFd, const std::string& name) const;

    // Removes the item at `path` with everything in it. The folders leading
    // to it are reached as usual; its final component is never followed.
    // Refuses "", "/" and a path whose last component is "." or "..".
    bool removePath(const std::string& path) const;

    // Removes `relative` below the folder `folder` ("" for the current
    // folder). Every component of `relative` is reached without following a
    // link, and a component "." or ".." refuses the whole request, so it can
    // never lead outside `folder`. Empty components (repeated or leading
    // slashes) are ignored; a path with no component left is refused.
    bool removeRelative(const std::string& folder, const std::string& relative) const;

    // Called with the folder's descriptor and a subfolder's name just before
    // the walk opens that subfolder. Lets tests change the tree at the moment
    // a real concurrent change would hurt most.
    void setBeforeOpeningFolder(std::function<void(int directoryFd, const std::string& name)> hook)
    {
        theBeforeOpeningFolder = std::move(hook);
    }

private:
    bool removeFolder(int parentFd, const std::string& name, dev_t device, ino_t inode) const;

    std::size_t theOpenAncestors = kDefaultOpenAncestors;
    std::function<void(int, const std::string&)> theBeforeOpeningFolder;
};

}  // namespace platform
