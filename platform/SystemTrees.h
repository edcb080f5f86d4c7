// The system's own trees: /usr, /bin, /sbin, /lib, /lib32, /lib64, /libx32,
// /etc, /boot and /System, each with everything below it. Programs and
// libraries lie there, owned by root and set up by the system's installer;
// nothing of this program's repairs may change them.
//
// The test is on identity, not text: each tree that exists is recorded by
// device and inode (of what the path leads to: "/bin" that is a link to
// "usr/bin" records /usr/bin), and an item is placed by climbing through
// ".." from the folder it really lies in (FolderAncestors), so neither a
// link, nor "..", nor a bind mount on the way hides where it is.
//
// @code
//   std::error_code error;
//   const auto tree = platform::SystemTrees::shared().treeHolding("/usr/local/bin/tool", &error);
//   if (error) { /* where it lies cannot be told: leave it alone */ }
//   else if (tree) { /* *tree is "/usr": leave it alone */ }
// @endcode
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace platform {

class SystemTrees {
public:
    // The trees of this system with each path placed under root ("" for the
    // real root; a test gives a temporary folder).
    static std::vector<std::string> standardTrees(const std::string& root);

    // The trees of the real root, recorded on first use.
    static const SystemTrees& shared();

    // Records the identities of the listed trees that exist now.
    explicit SystemTrees(const std::vector<std::string>& trees);

    // The listed tree (as it was given) that is the item at path or holds it
    // at any depth; none when no tree does. The item itself is taken as it
    // is (a link is not followed); for anything but a folder, the folder it
    // lies in is found through its path. When the item or a folder above it
    // cannot be opened or examined, error (which must not be null) says why
    // and the result is none: a caller must then treat the item as if it lay
    // in a tree.
    std::optional<std::string> treeHolding(const std::string& path, std::error_code* error) const;
    // The same for the folder open at `folderFd` (any descriptor of a
    // folder, O_PATH included): the tree that is this folder or holds it.
    std::optional<std::string> treeHoldingFolder(int folderFd, std::error_code* error) const;

    // How many of the listed trees exist.
    std::size_t size() const noexcept { return theTrees.size(); }

private:
    struct Tree {
        dev_t device;
        ino_t inode;
        std::string path;
    };

    const Tree* treeWithIdentity(dev_t device, ino_t inode) const noexcept;

    std::vector<Tree> theTrees;
};

}  // namespace platform
