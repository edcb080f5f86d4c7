// File-system services: existence, attributes, permissions, removal, moves,
// creation, listings. Paths are UTF-8 byte strings.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/FileAttributeDictionary.h"

namespace platform {

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
};

class FileManager {
public:
    static FileManager& defaultManager();

    // Existence follows a final symbolic link: a dangling link does not exist.
    bool fileExistsAtPath(const std::string& path) const;
    bool fileExistsAtPath(const std::string& path, bool* isDirectory) const;
    // The item's own attributes; a final link is not followed.
    std::optional<FileAttributes> attributesOfItemAtPath(const std::string& path) const;
    bool setPosixPermissions(const std::string& path, uint32_t mode) const;
    // Removes the path and everything in it (a link itself, never its target),
    // with the same safe walk as the workspace's destroy.
    bool removeItemAtPath(const std::string& path) const;
    bool moveItemAtPath(const std::string& source, const std::string& destination) const;
    // One directory; its parent must exist. Mode defaults to 0777 & ~umask.
    bool createDirectoryAtPath(const std::string& path, std::optional<uint32_t> mode = std::nullopt) const;
    // Creates or replaces a file with the contents. Mode defaults to 0666 & ~umask.
    bool createFileAtPath(const std::string& path, const std::string& contents,
                          std::optional<uint32_t> mode = std::nullopt) const;
    // Names inside the folder (no "." or ".."), sorted; none for a non-folder.
    std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(const std::string& path) const;
    // Every path below the folder, relative to it, each folder before its
    // contents, names sorted within a folder; descends into subfolders but not
    // into links. None when the path is not a folder.
    std::optional<std::vector<std::string>> enumeratorAtPath(const std::string& path) const;
    // The whole file as bytes; none when it cannot be read.
    std::optional<std::string> contentsAtPath(const std::string& path) const;

    // Attributes as values ------------------------------------------------------

    // The item's own attributes (a final link is not followed) under the keys
    // of FileAttributeDictionary.h: type, size, permissions with the set-id and
    // sticky bits, owner id, owner name (absent when the owner has no account),
    // the immutable flag and the modification date. None when the path cannot
    // be examined.
    std::optional<FileAttributeDictionary> fileAttributesAtPath(const std::string& path) const;
    // Applies the attributes. Only kFilePosixPermissions can be changed, and
    // only with a number of at most 07777; any other key or kind fails
    // without changing anything. A final link is never followed: a link's own
    // permissions cannot be changed, so changing them fails.
    bool changeFileAttributes(const FileAttributeDictionary& attributes, const std::string& path) const;
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
