#include "platform/PosixIO.h"

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

void UniqueFd::reset(int fd) noexcept
{
    if (theFd >= 0) {
        ::close(theFd);
    }
    theFd = fd;
}

std::error_code UniqueFd::close() noexcept
{
    const int fd = release();
    if (fd >= 0 && ::close(fd) != 0) {
        return lastError();
    }
    return {};
}

void UniqueDir::reset(DIR* dir) noexcept
{
    if (theDir != nullptr) {
        ::closedir(theDir);
    }
    theDir = dir;
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
    const dirent* const entry = ::readdir(theDir);
    error = entry == nullptr && errno != 0 ? lastError() : std::error_code();
    return entry;
}

UniqueMapping UniqueMapping::mapReadOnly(int fd, std::size_t length, std::error_code* error)
{
    void* const address = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
    UniqueMapping mapping;
    if (address == MAP_FAILED || address == nullptr) {
        setError(error, lastError());
        return mapping;
    }
    mapping.theAddress = address;
    mapping.theLength = length;
    setError(error, {});
    return mapping;
}

void UniqueMapping::reset() noexcept
{
    if (theAddress != nullptr) {
        ::munmap(theAddress, theLength);
    }
    theAddress = nullptr;
    theLength = 0;
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
