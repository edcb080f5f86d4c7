#include "platform/FileHandle.h"

#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "platform/Exception.h"

namespace platform {

std::optional<FileHandle> FileHandle::fileHandleForUpdatingAtPath(const std::string& path)
{
    if (path.empty()) {
        return std::nullopt;
    }
    posix::UniqueFd fd = posix::openFile(path, O_RDWR);
    if (!fd.valid()) {
        return std::nullopt;
    }
    return FileHandle(std::move(fd));
}

void FileHandle::raiseFailure(const char* operation)
{
    const std::error_code error = posix::lastError();
    Exception::raise(kFileHandleOperationException, std::string(operation) + " failed: " + error.message());
}

uint64_t FileHandle::seekToEndOfFile()
{
    const off_t offset = ::lseek(theFd.get(), 0, SEEK_END);
    if (offset < 0) {
        raiseFailure("seekToEndOfFile");
    }
    return static_cast<uint64_t>(offset);
}

void FileHandle::writeData(std::string_view data)
{
    while (!data.empty()) {
        const ssize_t written = posix::retryOnEintr([&] { return ::write(theFd.get(), data.data(), data.size()); });
        if (written < 0) {
            raiseFailure("writeData");
        }
        if (written == 0) {
            Exception::raise(kFileHandleOperationException, "writeData failed: nothing was written");
        }
        data.remove_prefix(static_cast<std::size_t>(written));
    }
}

void FileHandle::synchronizeFile()
{
    if (posix::retryOnEintr([&] { return ::fsync(theFd.get()); }) != 0) {
        raiseFailure("synchronizeFile");
    }
}

void FileHandle::closeFile() noexcept
{
    theFd.reset();
}

}  // namespace platform
