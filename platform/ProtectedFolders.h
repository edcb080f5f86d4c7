// The folders that removing a folder with its contents must never remove:
// "/" and the system's top-level folders with their standard sub-folders (both
// the macOS-style and the Linux layout), everything below /System, every
// account's home folder, the standard folders in the running user's home, and
// the running program's own bundle. Only these folders themselves are
// protected, never what is inside them.
//
// The test is on identity, not text: each protected folder that exists is
// recorded by device and inode (both of the folder a link leads to and of the
// link itself, so that neither "/lib" nor what it points at is removed), and
// an item is compared by the identity of what would really be removed.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "platform/RemovalRefusal.h"

namespace platform {

class ProtectedFolders {
public:
    // The folders to protect, as absolute paths; each list has its reason.
    struct Lists {
        std::vector<std::string> systemFolders;        // "a protected system folder"
        std::vector<std::string> systemTrees;          // the folder and everything below it
        std::vector<std::string> homeFolders;          // "a home folder"
        std::vector<std::string> homeStandardFolders;  // "a standard folder of the home folder"
        std::vector<std::string> bundles;              // "the running program's bundle"
    };

    // The set of this process: built on first use from this system's lists,
    // the password database, the running user's home and the main bundle.
    static const ProtectedFolders& shared();

    // The lists of this system with every system path placed under root ("" for
    // the real root; a test gives a temporary folder), for the given homes of
    // all accounts, the running user's home and the running program's bundle.
    static Lists standardLists(const std::string& root, const std::vector<std::string>& allHomes,
                               const std::string& runningUserHome, const std::optional<std::string>& bundle);

    // Records the identities of the listed folders that exist now.
    explicit ProtectedFolders(const Lists& lists);

    // Why the item with this device and inode, found at resolvedPath (its
    // folder resolved: no link or "." or ".." left in it), must not be
    // removed; none when it may be. Costs one hash lookup and a text
    // comparison per protected tree.
    std::optional<std::string> reasonToRefuse(dev_t device, ino_t inode, const std::string& resolvedPath) const;

    // The same as an error of RemovalRefusal (empty when the item may go),
    // for a walk that already holds the identity. resolvedPath is only looked
    // at when a protected tree exists (needsResolvedPath()), so a caller may
    // leave it empty otherwise and spare the work of resolving it.
    std::error_code refusal(dev_t device, ino_t inode, const std::string& resolvedPath) const;

    // Whether refusal() needs the resolved path: only a protected tree (a
    // folder with everything below it) is judged by its path.
    bool needsResolvedPath() const noexcept { return !theTrees.empty(); }

    // The same for a path: its folder is resolved (links and ".." followed) and
    // its last component examined without following a link. None also when
    // the item does not exist (nothing to protect then).
    std::optional<std::string> reasonToRefusePath(const std::string& path) const;

    // How many distinct identities are recorded.
    std::size_t size() const noexcept { return theReasons.size(); }

private:
    struct Identity {
        dev_t device;
        ino_t inode;
        bool operator==(const Identity& other) const noexcept { return device == other.device && inode == other.inode; }
    };
    struct IdentityHash {
        std::size_t operator()(const Identity& identity) const noexcept;
    };

    void add(const std::string& path, RemovalRefusal reason);

    std::unordered_map<Identity, RemovalRefusal, IdentityHash> theReasons;
    std::vector<std::string> theTrees;  // resolved, without a trailing slash
};

}  // namespace platform
