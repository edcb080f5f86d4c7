// The folders that removing a folder with its contents must never remove:
// "/" and the system's top-level folders with their standard sub-folders (both
// the macOS-style and the Linux layout), everything below /System, every
// account's home folder and the standard folders in it, and the running
// program's own bundle with the folders it is made of (Contents, MacOS,
// Resources, English.lproj, Frameworks). Only these folders themselves are
// protected, not
// what else is inside them; a walk that removes a folder keeps each of them
// it meets inside (TreeRemover.h).
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
        std::vector<std::string> bundles;              // "the running program's bundle" and its folders
    };

    // The set of this process: built on first use from this system's lists,
    // the password database, the running user's home and the main bundle.
    static const ProtectedFolders& shared();

    // The lists of this system with every system path placed under root ("" for
    // the real root; a test gives a temporary folder), for the given homes of
    // all accounts, the running user's home and the running program's bundle.
    // The standard folders of every home are listed where they exist (each
    // home is opened once and its standard names looked up relative to it).
    static Lists standardLists(const std::string& root, const std::vector<std::string>& allHomes,
                               const std::string& runningUserHome, const std::optional<std::string>& bundle);

    // Records the identities of the listed folders that exist now.
    explicit ProtectedFolders(const Lists& lists);

    // Why the item with this device and inode must not be removed or
    // changed (a RemovalRefusal); empty when it is none of the protected
    // folders themselves. One hash lookup: what a walk asks of every folder
    // it meets, and the permission repair of every folder it would change.
    std::error_code refusal(dev_t device, ino_t inode) const;

    // Why nothing in the folder open at `folderFd` (or AT_FDCWD) may be
    // removed: it is a protected tree or lies below one (SystemFolder). The
    // folder's place is found by climbing through ".." from the descriptor
    // (FolderAncestors.h), never from text, so a link, a ".." or a path
    // longer than PATH_MAX on the caller's way makes no difference. When the
    // climb cannot go on, its reason: the caller refuses then (fail closed).
    // Empty, without a climb, when no protected tree exists.
    std::error_code placeRefusal(int folderFd) const;

    // Whether a protected tree exists, so placeRefusal has to climb.
    bool hasTrees() const noexcept { return !theTrees.empty(); }

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
    std::vector<Identity> theTrees;
};

}  // namespace platform
