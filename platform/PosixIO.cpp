#include "platform/PosixIO.h"

#include <climits>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <utility>

namespace platform::posix {

namespace {

void setError(std::error_code* error, std::error_code value) noexcept
{
    if (error != nullptr) {
        *error = value;
    }
}

}  // namespace

std::error_code DescriptorTraits::close(int fd) noexcept
{
    return ::close(fd) == 0 ? std::error_code() : lastError();
}

std::error_code DirectoryStreamTraits::close(DIR* dir) noexcept
{
    return ::closedir(dir) == 0 ? std::error_code() : lastError();
}

std::error_code MappingTraits::close(MappedRange range) noexcept
{
    return ::munmap(range.address, range.length) == 0 ? std::error_code() : lastError();
}

std::error_code LibraryTraits::close(void* library) noexcept
{
    // dlclose reports through dlerror, not errno.
    return ::dlclose(library) == 0 ? std::error_code() : std::make_error_code(std::errc::io_error);
}

UniqueDir UniqueDir::fromDescriptor(UniqueFd folder, std::error_code* error)
{
    DIR* const dir = ::fdopendir(folder.get());
    if (dir == nullptr) {
        setError(error, lastError());
        return UniqueDir();
    }
    folder.release();
    setError(error, {});
    return UniqueDir(dir);
}

UniqueDir UniqueDir::reading(int folderFd, std::error_code* error)
{
    UniqueFd own = openAt(folderFd, ".", O_RDONLY | O_DIRECTORY, 0, error);
    if (!own.valid()) {
        return UniqueDir();
    }
    return fromDescriptor(std::move(own), error);
}

const dirent* UniqueDir::next(std::error_code& error) noexcept
{
    errno = 0;
    const dirent* const entry = ::readdir(get());
    error = entry == nullptr && errno != 0 ? lastError() : std::error_code();
    return entry;
}

UniqueMapping UniqueMapping::mapReadOnly(int fd, std::size_t length, std::error_code* error)
{
    void* const address = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
    if (address == MAP_FAILED || address == nullptr) {
        setError(error, lastError());
        return UniqueMapping();
    }
    setError(error, {});
    return UniqueMapping(MappedRange{address, length});
}

UniqueFd openFile(const std::string& path, int flags, mode_t mode, std::error_code* error)
{
    const int fd = retryOnEintr([&] { return ::open(path.c_str(), flags | O_CLOEXEC, mode); });
    setError(error, fd < 0 ? lastError() : std::error_code());
    return UniqueFd(fd);
}

UniqueFd openAt(int directoryFd, const std::string& path, int flags, mode_t mode, std::error_code* error)
{
    const int fd = retryOnEintr([&] { return ::openat(directoryFd, path.c_str(), flags | O_CLOEXEC, mode); });
    setError(error, fd < 0 ? lastError() : std::error_code());
    return UniqueFd(fd);
}

UniqueFd openFolderPath(std::string_view path, std::error_code* error)
{
    constexpr int kResolveFlags = O_PATH | O_DIRECTORY;
    if (path.empty()) {
        return openAt(AT_FDCWD, ".", kResolveFlags, 0, error);
    }
    // Pieces shorter than PATH_MAX, cut at slashes; every piece after the
    // first is taken relative to where the one before led (its leading
    // slashes dropped, or it would start again from the root).
    UniqueFd folder;
    int base = AT_FDCWD;
    while (!path.empty()) {
        std::string_view piece = path;
        if (piece.size() >= PATH_MAX) {
            const std::string_view::size_type slash = path.rfind('/', PATH_MAX - 1);
            if (slash == std::string_view::npos || slash == 0) {
                setError(error, std::make_error_code(std::errc::filename_too_long));
                return UniqueFd();
            }
            piece = path.substr(0, slash);
        }
        path.remove_prefix(piece.size());
        while (!path.empty() && path.front() == '/') {
            path.remove_prefix(1);
        }
        UniqueFd next = openAt(base, std::string(piece), kResolveFlags, 0, error);
        if (!next.valid()) {
            return UniqueFd();
        }
        folder = std::move(next);
        base = folder.get();
    }
    return folder;
}

UniqueFd anonymousFile(const char* name, std::error_code* error)
{
    const int fd = ::memfd_create(name, MFD_CLOEXEC);
    setError(error, fd < 0 ? lastError() : std::error_code());
    return UniqueFd(fd);
}

std::error_code statDescriptor(int fd, struct stat& info) noexcept
{
    return ::fstat(fd, &info) == 0 ? std::error_code() : lastError();
}

std::error_code readAll(int fd, std::string& out)
{
    char buffer[65536];
    for (;;) {
        const ssize_t got = retryOnEintr([&] { return ::read(fd, buffer, sizeof buffer); });
        if (got < 0) {
            return lastError();
        }
        if (got == 0) {
            return {};
        }
        out.append(buffer, static_cast<std::size_t>(got));
    }
}

std::error_code readAllFromStart(int fd, std::string& out)
{
    char buffer[65536];
    for (off_t offset = 0;;) {
        const ssize_t got = retryOnEintr([&] { return ::pread(fd, buffer, sizeof buffer, offset); });
        if (got < 0) {
            return lastError();
        }
        if (got == 0) {
            return {};
        }
        out.append(buffer, static_cast<std::size_t>(got));
        offset += got;
    }
}

std::error_code writeAll(int fd, std::string_view bytes) noexcept
{
    while (!bytes.empty()) {
        const ssize_t written = retryOnEintr([&] { return ::write(fd, bytes.data(), bytes.size()); });
        if (written < 0) {
            return lastError();
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return {};
}

}  // namespace platform::posix
