// The one place the platform layer opens, reads, writes, maps and closes
// through POSIX. Internal to platform/ (and the file hash, which must map a
// file); everything else goes through the platform services.
//
// - Every descriptor is owned: UniqueFd, UniqueDir and UniqueMapping release
//   what they hold when they go, so no early return or exception leaks one.
// - Every descriptor opened here is close-on-exec (O_CLOEXEC is always
//   added), so a child process started by Task inherits none of them.
// - Interrupted calls (EINTR) are repeated; close is not (on Linux the
//   descriptor is gone even when close reports EINTR).
// - Failures are std::error_code values in the generic category, made from
//   errno: compare them with std::errc (error == std::errc::permission_denied).
#pragma once

#include <cerrno>
#include <cstddef>
#include <dirent.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <system_error>

namespace platform::posix {

// errno as an error code.
inline std::error_code lastError() noexcept
{
    return {errno, std::generic_category()};
}

// Calls `call` again for as long as it fails with EINTR; its last result.
template <typename Call>
auto retryOnEintr(Call&& call) -> decltype(call())
{
    for (;;) {
        auto result = call();
        if (result != -1 || errno != EINTR) {
            return result;
        }
    }
}

// Owns one file descriptor (-1 for none). Move-only.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) noexcept : theFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : theFd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const noexcept { return theFd; }
    bool valid() const noexcept { return theFd >= 0; }
    // Gives up ownership without closing.
    int release() noexcept
    {
        const int fd = theFd;
        theFd = -1;
        return fd;
    }
    // Closes the descriptor held (ignoring how close ends) and takes `fd`.
    void reset(int fd = -1) noexcept;
    // Closes now and says how close ended: for a file just written, a late
    // write error can show only here.
    std::error_code close() noexcept;

private:
    int theFd = -1;
};

// Owns one directory stream. Move-only.
class UniqueDir {
public:
    UniqueDir() = default;
    explicit UniqueDir(DIR* dir) noexcept : theDir(dir) {}
    UniqueDir(UniqueDir&& other) noexcept : theDir(other.release()) {}
    UniqueDir& operator=(UniqueDir&& other) noexcept
    {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    UniqueDir(const UniqueDir&) = delete;
    UniqueDir& operator=(const UniqueDir&) = delete;
    ~UniqueDir() { reset(); }

    DIR* get() const noexcept { return theDir; }
    bool valid() const noexcept { return theDir != nullptr; }
    DIR* release() noexcept
    {
        DIR* const dir = theDir;
        theDir = nullptr;
        return dir;
    }
    void reset(DIR* dir = nullptr) noexcept;

    // A stream over the folder open at `folder`, which it takes over (also on
    // failure, when the descriptor is closed).
    static UniqueDir fromDescriptor(UniqueFd folder, std::error_code* error = nullptr);
    // A stream over the folder open at `folderFd` through a descriptor of its
    // own, read from the start; `folderFd` stays the caller's, for openat and
    // unlinkat beside the listing.
    static UniqueDir reading(int folderFd, std::error_code* error = nullptr);
    // The next entry, "." and ".." included; nullptr at the end or on
    // failure, which `error` tells apart (cleared at the end).
    const dirent* next(std::error_code& error) noexcept;

private:
    DIR* theDir = nullptr;
};

// Owns one memory mapping. Move-only.
class UniqueMapping {
public:
    UniqueMapping() = default;
    UniqueMapping(UniqueMapping&& other) noexcept : theAddress(other.theAddress), theLength(other.theLength)
    {
        other.theAddress = nullptr;
        other.theLength = 0;
    }
    UniqueMapping& operator=(UniqueMapping&& other) noexcept
    {
        if (this != &other) {
            reset();
            theAddress = other.theAddress;
            theLength = other.theLength;
            other.theAddress = nullptr;
            other.theLength = 0;
        }
        return *this;
    }
    UniqueMapping(const UniqueMapping&) = delete;
    UniqueMapping& operator=(const UniqueMapping&) = delete;
    ~UniqueMapping() { reset(); }

    // A read-only private mapping of the first `length` bytes of the file
    // open at `fd` (mmap with PROT_READ, MAP_PRIVATE). A zero length fails
    // (EINVAL), as mmap does.
    static UniqueMapping mapReadOnly(int fd, std::size_t length, std::error_code* error = nullptr);

    const unsigned char* data() const noexcept { return static_cast<const unsigned char*>(theAddress); }
    std::size_t size() const noexcept { return theLength; }
    bool valid() const noexcept { return theAddress != nullptr; }
    // Unmaps (munmap) what is held.
    void reset() noexcept;

private:
    void* theAddress = nullptr;
    std::size_t theLength = 0;
};

// open(2) with O_CLOEXEC added to `flags`; on failure an invalid descriptor
// and the reason in `error` (when given; cleared on success).
UniqueFd openFile(const std::string& path, int flags, mode_t mode = 0, std::error_code* error = nullptr);
// openat(2) relative to the folder open at `directoryFd` (or AT_FDCWD), with
// O_CLOEXEC added.
UniqueFd openAt(int directoryFd, const std::string& path, int flags, mode_t mode = 0, std::error_code* error = nullptr);

// A new, empty file in memory with no name in any folder (memfd_create):
// gone with its last descriptor. `name` shows only in /proc.
UniqueFd anonymousFile(const char* name, std::error_code* error = nullptr);

// fstat(2) of an open descriptor.
std::error_code statDescriptor(int fd, struct stat& info) noexcept;

// Appends everything from `fd` to `out` up to the end of the file.
std::error_code readAll(int fd, std::string& out);
// Appends the whole file open at `fd` to `out`, read from its start with
// pread, so the descriptor's offset (shared with whoever else holds it) stays
// where it is.
std::error_code readAllFromStart(int fd, std::string& out);
// Writes all of `bytes`, going on after short writes.
std::error_code writeAll(int fd, std::string_view bytes) noexcept;

}  // namespace platform::posix
