#include "platform/DirectoryEntries.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace platform {

namespace {

using Type = DirectoryEntries::Type;

Type typeOfDirectoryEntry(unsigned char type)
{
    switch (type) {
    case DT_DIR: return Type::Folder;
    case DT_LNK: return Type::Link;
    case DT_REG: return Type::File;
    case DT_UNKNOWN: return Type::Unknown;
    default: return Type::Other;
    }
}

Type typeOfMode(mode_t mode)
{
    if (S_ISDIR(mode)) {
        return Type::Folder;
    }
    if (S_ISLNK(mode)) {
        return Type::Link;
    }
    return S_ISREG(mode) ? Type::File : Type::Other;
}

bool isDotOrDotDot(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

}  // namespace

std::optional<DirectoryEntries::Type> DirectoryEntries::typeOf(int folderFd, const char* name,
                                                               unsigned char directoryEntryType)
{
    const Type type = typeOfDirectoryEntry(directoryEntryType);
    if (type != Type::Unknown) {
        return type;
    }
    struct stat status {};
    if (::fstatat(folderFd, name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return typeOfMode(status.st_mode);
    }
    if (errno == ENOENT) {
        return std::nullopt;
    }
    return Type::Unknown;
}

DirectoryEntries::DirectoryEntries(int folderFd)
    : theFolderFd(folderFd),
      theStream(posix::UniqueDir::reading(folderFd, &theError))
{
}

std::optional<DirectoryEntries::Entry> DirectoryEntries::next()
{
    if (!theStream.valid()) {
        return std::nullopt;
    }
    for (;;) {
        const dirent* const entry = theStream.next(theError);
        if (entry == nullptr) {
            return std::nullopt;
        }
        if (isDotOrDotDot(entry->d_name)) {
            continue;
        }
        const std::optional<Type> type = typeOf(theFolderFd, entry->d_name, entry->d_type);
        if (!type) {
            continue;  // gone since the folder was read
        }
        return Entry{entry->d_name, *type, entry->d_ino};
    }
}

}  // namespace platform
