// The one place the platform layer opens, reads, writes, maps and closes
// through POSIX. Internal to platform/ (and the file hash, which must map a
// file); everything else goes through the platform services.
//
// - Every descriptor is owned: UniqueFd, UniqueDir, UniqueMapping and
//   UniqueLibrary are one owner template (UniqueHandle) and release what they
//   hold when they go, so no early return or exception leaks one.
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
#include <fcntl.h>
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

// Owns one handle of a kind that Traits describes, and releases it when it
// goes, so no early return or exception leaks one. Move-only. Traits gives
// the handle type (`Handle`), the value that holds nothing (`invalid()`) and
// how to release one (`close(Handle)`, answering how that ended).
//
// @code
//   posix::UniqueFd fd = posix::openAt(folderFd, name, posix::kFolderFlags);
//   if (!fd.valid()) { ... }
//   use(fd.get());  // closed when fd goes
// @endcode
template <typename Traits>
class UniqueHandle {
public:
    using Handle = typename Traits::Handle;

    UniqueHandle() = default;
    explicit UniqueHandle(Handle handle) noexcept : theHandle(handle) {}
    UniqueHandle(UniqueHandle&& other) noexcept : theHandle(other.release()) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept
    {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    ~UniqueHandle() { reset(); }

    Handle get() const noexcept { return theHandle; }
    bool valid() const noexcept { return theHandle != Traits::invalid(); }
    // Gives up ownership without releasing.
    Handle release() noexcept
    {
        const Handle handle = theHandle;
        theHandle = Traits::invalid();
        return handle;
    }
    // Releases what is held (ignoring how that ends) and takes `handle`.
    void reset(Handle handle = Traits::invalid()) noexcept
    {
        if (theHandle != Traits::invalid()) {
            static_cast<void>(Traits::close(theHandle));
        }
        theHandle = handle;
    }
    // Releases now and says how that ended: for a file just written, a late
    // write error can show only here.
    std::error_code close() noexcept
    {
        const Handle handle = release();
        return handle != Traits::invalid() ? Traits::close(handle) : std::error_code();
    }

private:
    Handle theHandle = Traits::invalid();
};

struct DescriptorTraits {
    using Handle = int;
    static constexpr int invalid() noexcept { return -1; }
    static std::error_code close(int fd) noexcept;
};

struct DirectoryStreamTraits {
    using Handle = DIR*;
    static constexpr DIR* invalid() noexcept { return nullptr; }
    static std::error_code close(DIR* dir) noexcept;
};

// A mapped range: where it begins and how long it is.
struct MappedRange {
    void* address = nullptr;
    std::size_t length = 0;
    bool operator==(const MappedRange&) const = default;
};

struct MappingTraits {
    using Handle = MappedRange;
    static constexpr MappedRange invalid() noexcept { return {}; }
    static std::error_code close(MappedRange range) noexcept;
};

struct LibraryTraits {
    using Handle = void*;
    static constexpr void* invalid() noexcept { return nullptr; }
    static std::error_code close(void* library) noexcept;
};

// Owns one file descriptor (-1 for none).
using UniqueFd = UniqueHandle<DescriptorTraits>;

// Owns one loaded library (a handle of dlopen; dlclose when it goes).
using UniqueLibrary = UniqueHandle<LibraryTraits>;

// Owns one directory stream.
class UniqueDir : public UniqueHandle<DirectoryStreamTraits> {
public:
    using UniqueHandle::UniqueHandle;

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
};

// Owns one memory mapping.
class UniqueMapping : public UniqueHandle<MappingTraits> {
public:
    using UniqueHandle::UniqueHandle;

    // A read-only private mapping of the first `length` bytes of the file
    // open at `fd` (mmap with PROT_READ, MAP_PRIVATE). A zero length fails
    // (EINVAL), as mmap does.
    static UniqueMapping mapReadOnly(int fd, std::size_t length, std::error_code* error = nullptr);

    const unsigned char* data() const noexcept { return static_cast<const unsigned char*>(get().address); }
    std::size_t size() const noexcept { return get().length; }
};

// How every walk opens a folder: only as a folder, never through a final
// link, never as a terminal (openAt adds O_CLOEXEC).
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NOCTTY;

// open(2) with O_CLOEXEC added to `flags`; on failure an invalid descriptor
// and the reason in `error` (when given; cleared on success).
UniqueFd openFile(const std::string& path, int flags, mode_t mode = 0, std::error_code* error = nullptr);
// openat(2) relative to the folder open at `directoryFd` (or AT_FDCWD), with
// O_CLOEXEC added.
UniqueFd openAt(int directoryFd, const std::string& path, int flags, mode_t mode = 0, std::error_code* error = nullptr);

// A new, empty file in memory with no name in any folder (memfd_create):
// gone with its last descriptor. `name` shows only in /proc.
UniqueFd anonymousFile(const char* name, std::error_code* error = nullptr);

// The folder that `path` leads to, resolved as the kernel resolves it (links
// and ".." on the way followed, a final link too), opened with O_PATH: good
// for the *at calls relative to it and for fstat, nothing else. "" is the
// current folder. A path of any length: one longer than PATH_MAX is opened
// piece by piece, each piece relative to the folder the one before led to,
// which is what the kernel would give for the whole path.
UniqueFd openFolderPath(std::string_view path, std::error_code* error = nullptr);

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
