// The entries of a folder open at a descriptor, one at a time, without "."
// and "..": each walk and listing of the platform reads folders through it.
//
// The type comes from the directory entry itself where the file system gives
// it (d_type); where it does not (DT_UNKNOWN) the entry is examined with
// fstatat, a link not followed. An entry that is gone by then is skipped.
// The inode number comes from the entry too (d_ino): entries of one file
// system with the same number are links to one item.
//
// @code
//   DirectoryEntries entries(folderFd);
//   while (const auto entry = entries.next()) {
//       if (entry->type == DirectoryEntries::Type::Folder) { ... entry->name ... }
//   }
//   if (entries.error()) { /* the folder could not be read to its end */ }
// @endcode
#pragma once

#include <optional>
#include <string_view>
#include <system_error>
#include <sys/types.h>

#include "platform/PosixIO.h"

namespace platform {

class DirectoryEntries {
public:
    enum class Type { Folder, Link, File, Other, Unknown };

    struct Entry {
        std::string_view name;  // valid until the next call of next()
        Type type = Type::Unknown;
        ino_t inode = 0;  // the entry's d_ino
    };

    // Reads the folder open at `folderFd` from its start, through a stream
    // of its own: `folderFd` stays the caller's, for the *at calls beside the
    // listing.
    explicit DirectoryEntries(int folderFd);

    // The next entry; none at the end or on a failure, which error() tells.
    std::optional<Entry> next();

    // How next() tells an entry's type: from the entry's d_type, or, for
    // DT_UNKNOWN, from fstatat(folderFd, name, AT_SYMLINK_NOFOLLOW); none
    // when the entry is gone by then. Type::Unknown when it cannot be
    // examined otherwise.
    static std::optional<Type> typeOf(int folderFd, const char* name, unsigned char directoryEntryType);

    // Why the folder could not be opened or read to its end; empty when it was.
    std::error_code error() const noexcept { return theError; }

private:
    int theFolderFd;
    std::error_code theError;  // before theStream, whose making sets it
    posix::UniqueDir theStream;
};

}  // namespace platform
