// Recognises a mount by its mount, not by its device number: a bind mount of
// a folder of the same disk has the same device as its surroundings, yet it
// is a mount of its own. Works relative to open directory descriptors, so a
// walk that holds descriptors can ask about each entry it meets.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace platform {

class MountPoint {
public:
    // The identifier of the mount that holds the open file fd (statx
    // STATX_MNT_ID); none when the kernel cannot tell.
    static std::optional<uint64_t> mountIdOf(int fd);

    // The identifier of the mount that holds name inside the folder dirfd
    // (AT_FDCWD for the current folder), a final link not followed; none when
    // name cannot be examined or the kernel cannot tell.
    static std::optional<uint64_t> mountIdAt(int dirfd, const char* name);

    // Whether name inside the folder dirfd is the root of a mount: the
    // kernel's mount-root attribute where it reports one, and in any case a
    // mount other than dirfd's. A final link is not followed (a link is never
    // a mount root). None when it cannot be told: a caller about to remove
    // something must then leave it alone.
    static std::optional<bool> isMountRoot(int dirfd, const char* name);

    // The same for a path ("/" is always a mount root).
    static std::optional<bool> isMountRoot(const std::string& path);
};

}  // namespace platform
