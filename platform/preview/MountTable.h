// The mounts of this process's mount namespace, as the kernel lists them in
// /proc/self/mountinfo: what is mounted where, with which options. Used to
// lay a copy-on-write view over every file system (OverlayRoot).
//
//   for (const MountEntry& mount : MountTable::ofThisProcess()) {
//       if (mount.isReadOnly()) ...  // mount.mountPoint, mount.fileSystemType
//   }
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace platform {

struct MountEntry {
    uint64_t mountId = 0;
    uint64_t parentId = 0;
    // The file system's device, "major:minor": mounts that share it show
    // the same files.
    std::string device;
    // The folder of its file system that is mounted ("/" for the whole).
    std::string root;
    // Where it is mounted, with the kernel's octal escapes ("\040") decoded.
    std::string mountPoint;
    // The options of this mount ("rw,nosuid,relatime") and of its file
    // system ("rw,size=4k"), as listed.
    std::string mountOptions;
    std::string superOptions;
    std::string fileSystemType;
    std::string source;

    // Whether writing is refused, by the mount or by its file system.
    bool isReadOnly() const;
    // Whether the mount's own options hold `option` ("nosuid", "noexec"...).
    bool hasMountOption(std::string_view option) const;
};

class MountTable {
public:
    MountTable() = delete;

    // The entries of a mountinfo text, in its order (a parent is listed
    // before what is mounted on it). A line that does not read as an entry
    // is passed over, so damaged text gives fewer entries, never a failure.
    static std::vector<MountEntry> parse(std::string_view text);

    // The entries of /proc/self/mountinfo; empty, with the reason in `error`
    // (when given), when it cannot be read.
    static std::vector<MountEntry> ofThisProcess(std::error_code* error = nullptr);

    // The mount point text with the kernel's escapes decoded: "\040" (blank),
    // "\011" (tab), "\012" (line feed), "\134" (backslash); any other
    // backslash stays as it is.
    static std::string unescape(std::string_view field);
};

}  // namespace platform
