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
    bool setPosixPermissions(const std::string& path, uint32_t mode, std::error_code* error = nullptr) const;
    // Removes the path and everything in it (a link itself, never its
    // target). The walk and what makes it fail are described in
    // TreeRemover.h; `error` receives the reason of the first failure.
    bool removeItemAtPath(const std::string& path, std::error_code* error = nullptr) const;
    bool moveItemAtPath(const std::string& source, const std::string& destination,
                        std::error_code* error = nullptr) const;
    // One directory; its parent must exist. Mode defaults to 0777 & ~umask.
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
    // The whole file as bytes; none when it cannot be read.
    std::optional<std::string> contentsAtPath(const std::string& path, std::error_code* error = nullptr) const;

private:
    FileManager() = default;
};

}  // namespace platform
