#include "platform/MountPoint.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

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
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') {
        trimmed.pop_back();
    }
    if (trimmed.empty()) {
        return std::nullopt;
    }
    if (trimmed == "/") {
        return true;
    }
    const auto slash = trimmed.rfind('/');
    const std::string folder =
        slash == std::string::npos ? std::string(".") : (slash == 0 ? std::string("/") : trimmed.substr(0, slash));
    const std::string name = slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
    const int dirfd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirfd < 0) {
        return std::nullopt;
    }
    const auto answer = isMountRoot(dirfd, name.c_str());
    ::close(dirfd);
    return answer;
}

}  // namespace platform
