#include "platform/MountPoint.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/PathParts.h"
#include "platform/PosixIO.h"

namespace platform {

namespace {

std::optional<struct statx> mountStatus(int dirfd, const char* name, int flags)
{
    struct statx status {};
    int result = 0;
    do {
        result = ::statx(dirfd, name, flags | AT_STATX_DONT_SYNC, STATX_TYPE | STATX_MNT_ID, &status);
    } while (result != 0 && errno == EINTR);
    if (result != 0 || (status.stx_mask & STATX_MNT_ID) == 0) {
        return std::nullopt;
    }
    return status;
}

}  // namespace

std::optional<uint64_t> MountPoint::mountIdOf(int fd)
{
    const auto status = mountStatus(fd, "", AT_EMPTY_PATH);
    if (!status) {
        return std::nullopt;
    }
    return status->stx_mnt_id;
}

std::optional<uint64_t> MountPoint::mountIdAt(int dirfd, const char* name)
{
    const auto status = mountStatus(dirfd, name, AT_SYMLINK_NOFOLLOW);
    if (!status) {
        return std::nullopt;
    }
    return status->stx_mnt_id;
}

std::optional<bool> MountPoint::isMountRoot(int dirfd, const char* name)
{
    const auto item = mountStatus(dirfd, name, AT_SYMLINK_NOFOLLOW);
    if (!item) {
        return std::nullopt;
    }
    if ((item->stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0 &&
        (item->stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
        return true;
    }
    const auto folder = mountStatus(dirfd, "", AT_EMPTY_PATH);
    if (!folder) {
        return std::nullopt;
    }
    return item->stx_mnt_id != folder->stx_mnt_id;
}

std::optional<bool> MountPoint::isMountRoot(const std::string& path)
{
    const FolderAndName parts = splitFolderAndName(path);
    if (path.empty()) {
        return std::nullopt;
    }
    if (parts.name.empty()) {
        return true;  // "/"
    }
    const posix::UniqueFd folder = posix::openFolderPath(parts.folder);
    if (!folder.valid()) {
        return std::nullopt;
    }
    return isMountRoot(folder.get(), parts.name.c_str());
}

}  // namespace platform
