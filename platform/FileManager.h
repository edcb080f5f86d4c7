// File-system services: existence, attributes, permissions, removal, moves,
// creation, listings. Paths are UTF-8 byte strings.
//
// The operations that change something or read a file take an optional
// trailing `error` that receives why they failed (a std::errc value, what the
// system call answered; cleared on success). An empty path fails with
// no_such_file_or_directory, as the system calls answer for one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/FileAttributeDictionary.h"

namespace platform {

class ItemHandle;

enum class FileType { Regular, Directory, SymbolicLink, CharacterSpecial, BlockSpecial, Socket, Fifo, Unknown };

struct FileAttributes {
    FileType type = FileType::Unknown;
    uint64_t size = 0;
    // Permission bits with the set-id and sticky bits (mode & 07777).
    uint32_t posixPermissions = 0;
    uint32_t ownerAccountID = 0;
    // None when the owner has no entry in the password database.
    std::optional<std::string> ownerAccountName;
    // The file system's immutable flag.
    bool immutable = false;
    // The last modification, in seconds since 1970-01-01 00:00:00 UTC.
    double modificationTime = 0;
};

class FileManager {
public:
    static FileManager& defaultManager();

    // Existence follows a final symbolic link: a dangling link does not exist.
    bool fileExistsAtPath(const std::string& path) const;
    bool fileExistsAtPath(const std::string& path, bool* isDirectory) const;
    // The item's own attributes; a final link is not followed.
    std::optional<FileAttributes> attributesOfItemAtPath(const std::string& path) const;
    // The same of an item already open (read from its descriptor now).
    std::optional<FileAttributes> attributesOfItem(const ItemHandle& item) const;
    // Sets the permission bits (mode & 07777) of the item itself, judged and
    // changed on one descriptor (ItemHandle.h): a final link is never
    // followed (a link's own permissions cannot be changed), and the
    // permissions of a protected folder or of anything in the system's trees
    // are never changed (operation_not_permitted).
    bool setPosixPermissions(const std::string& path, uint32_t mode, std::error_code* error = nullptr) const;
    // Removes the path and everything in it (a link itself, never its
    // target). The walk and what makes it fail are described in
    // TreeRemover.h; `error` receives the reason of the first failure.
    bool removeItemAtPath(const std::string& path, std::error_code* error = nullptr) const;
    // Removes the path only when it is an empty folder or a link (the link
    // itself), with the checks of removeItemAtPath: a folder that is not
    // empty (something appeared in it since it was found empty) stays with
    // directory_not_empty, and any other item stays with not_a_directory.
    bool removeEmptyFolderAtPath(const std::string& path, std::error_code* error = nullptr) const;
    bool moveItemAtPath(const std::string& source, const std::string& destination,
                        std::error_code* error = nullptr) const;
    // One directory; its parent must exist. Mode defaults to 0777 & ~umask;
    // a mode given is set exactly, on the folder just made (reached from the
    // same descriptor of its parent, never through a link).
    bool createDirectoryAtPath(const std::string& path, std::optional<uint32_t> mode = std::nullopt,
                               std::error_code* error = nullptr) const;
    // Creates or replaces a file with the contents, writing into the file in
    // place. Mode defaults to 0666 & ~umask.
    bool createFileAtPath(const std::string& path, const std::string& contents,
                          std::optional<uint32_t> mode = std::nullopt, std::error_code* error = nullptr) const;
    // Creates or replaces a file with the contents all at once: they go to a
    // new file beside it ("<path>.tmp.<pid>.<n>", mode 0666 & ~umask), are
    // flushed to disk, and that file is renamed over the path. A reader sees
    // the old contents or the new, never a part; on failure the path is as
    // it was and the new file is gone.
    bool writeFileAtomically(const std::string& path, std::string_view contents,
                             std::error_code* error = nullptr) const;
    // Names inside the folder (no "." or ".."), sorted; none for a non-folder.
    std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(const std::string& path) const;
    // Every path below the folder, relative to it, each folder before its
    // contents, names sorted within a folder; descends into subfolders but not
    // into links. None when the path is not a folder.
    std::optional<std::vector<std::string>> enumeratorAtPath(const std::string& path) const;
    // The whole file as bytes; none when it cannot be read. Only a regular
    // file (after the final link) is read, opened without blocking, and only
    // up to RegularFile::kSizeLimit bytes (see RegularFile.h).
    std::optional<std::string> contentsAtPath(const std::string& path, std::error_code* error = nullptr) const;

    // Attributes as values ------------------------------------------------------

    // The item's own attributes (a final link is not followed) under the keys
    // of FileAttributeDictionary.h: type, size, permissions with the set-id and
    // sticky bits, owner id, owner name (absent when the owner has no account),
    // the immutable flag and the modification date. None when the path cannot
    // be examined.
    std::optional<FileAttributeDictionary> fileAttributesAtPath(const std::string& path) const;
    std::optional<FileAttributeDictionary> fileAttributesOfItem(const ItemHandle& item) const;
    // Applies the attributes. Only kFilePosixPermissions can be changed, and
    // only with a number of at most 07777; any other key or kind fails
    // without changing anything. The change is that of setPosixPermissions:
    // on the item itself (a link's own permissions cannot be changed, so
    // changing them fails), never on a protected folder or in the system's
    // trees. The form with an item changes that very item, whatever its path
    // leads to by now.
    bool changeFileAttributes(const FileAttributeDictionary& attributes, const std::string& path) const;
    bool changeFileAttributes(const FileAttributeDictionary& attributes, const ItemHandle& item) const;
    // One directory (its parent must exist) or one new file with the
    // attributes. The permissions are set after the item is made, so they
    // are exactly those asked for whatever the umask. Attributes that cannot
    // be set fail before anything is made.
    bool createDirectoryWithAttributes(const std::string& path, const FileAttributeDictionary& attributes) const;
    bool createFileWithAttributes(const std::string& path, const std::string& contents,
                                  const FileAttributeDictionary& attributes) const;

private:
    FileManager() = default;
};

}  // namespace platform
