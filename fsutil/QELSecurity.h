// Whether a file or directory may be trusted by the current user, the
// attributes the shared services create their own files and directories
// with, and the file hash check. Class operations only: there are no
// instances and no state.
//
// A path is safe for a user when it is not a symbolic link, is owned by that
// user (by account name), and, after any group and others write permission
// has been removed from it, grants neither. Whatever cannot be established
// counts as unsafe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/FileAttributeDictionary.h"

namespace platform {
class ItemHandle;
}

class QELSecurity {
public:
    QELSecurity() = delete;

    // File hash check --------------------------------------------------------

    // Statuses of hashForFile, also returned by hashMatchesFile.
    static constexpr int32_t kHashOK = 0;
    static constexpr int32_t kHashMismatch = 1;  // hashMatchesFile only
    static constexpr int32_t kHashCannotOpen = 2;
    static constexpr int32_t kHashCannotStat = 3;
    static constexpr int32_t kHashCannotMap = 4;  // also for an empty file

    // The SHA-256 digest of the file as 64 lower-case hex digits, computed
    // over one read-only private mapping of the file (open, fstat, mmap,
    // munmap, close; the descriptor is close-on-exec). The length is the file
    // size taken as an unsigned 32-bit value. The file is opened without
    // blocking and hashed only when it is a regular file (after the final
    // link): a FIFO, socket, device or folder gives kHashCannotMap, at once.
    // status (when given) is set to
    // kHashOK, or to 2, 3 or 4 on failure; the text is then 64 zeros. Never
    // raises for I/O failures.
    static std::string hashForFile(const std::string& path, int32_t* status);

    // kHashOK when the file's digest equals expected exactly (case matters:
    // upper-case digits never match), kHashMismatch when it differs, or the
    // failure status of hashForFile unchanged.
    static int32_t hashMatchesFile(const std::string& expected, const std::string& path);

    // Ownership and permission checks -----------------------------------------

    // Mode 0700: owner read, write and search; nothing for group or others.
    static constexpr unsigned long kDesiredMode = 0700;
    // Group and others write.
    static constexpr unsigned long kWriteBits = 0022;
    // What a repair keeps: the sticky bit, the owner's bits, and group and
    // others read and search. It clears group and others write and, on
    // purpose, the set-user-ID and set-group-ID bits as well.
    static constexpr unsigned long kRepairMask = 01755;

    // True when the path is a symbolic link (the path itself, not what it
    // points to) or its type cannot be read, e.g. it does not exist.
    static bool fileIsSymbolicLink(const std::string& path);
    // The attributes a new directory or file of the shared services gets:
    // {kFilePosixPermissions: 0700}. The directory's are the file's.
    static platform::FileAttributeDictionary desiredDirectoryAttributes();
    static platform::FileAttributeDictionary desiredFileAttributes();
    // True when the path is now safe for the user (an account name): it may
    // clear the path's group and others write bits and its set-id bits on
    // the way. Never raises; every failure is a false. The mode of a
    // protected folder (/tmp, /var/tmp, a home folder, ...) and of anything
    // in the system's trees (/usr, /bin, /sbin, /lib*, /etc, /boot, /System)
    // is never changed: where a repair would be needed the answer is false
    // and the error log (with the console) says why, e.g.
    //   Lumidoc Updater encountered error "the permissions of /tmp are left
    //   as they are: a protected system folder"
    // and where none is needed the mode as it is decides.
    static bool makePathOK(const std::string& path, const std::string& user);

private:
    // False only when the path is proven safe for the user after the repair
    // (mode & kRepairMask written back, then read again); true otherwise. A
    // link, or a path another user owns, is left untouched. The item is
    // opened once (platform/ItemHandle.h) and every check, the repair and
    // the read after it are of that one item. The mode of a protected folder
    // or of anything in the system's trees is never changed
    // (ItemHandle::reasonToLeaveModeAlone).
    static bool othersHaveWriteAccessToThisFile(const std::string& path, const std::string& user);
    // True when the item is a link itself, or its type cannot be read.
    static bool isSymbolicLink(const platform::ItemHandle& item);
    // True when the owner's account name equals user.
    static bool ownerOfItem(const platform::ItemHandle& item, const std::string& user);
};
