// An open file for reading and writing at a position, in the manner of the
// platform's file handle: opened for updating, moved to the end, written,
// synchronized to disk, closed. A failed write, synchronization or move
// raises kFileHandleOperationException; closing never raises, and the
// descriptor is released when the handle goes whatever happened.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/PosixIO.h"

namespace platform {

inline constexpr const char* kFileHandleOperationException = "NSFileHandleOperationException";

class FileHandle {
public:
    // The existing file at path opened for reading and writing (a final link
    // is followed, nothing is created); none when it cannot be opened.
    static std::optional<FileHandle> fileHandleForUpdatingAtPath(const std::string& path);

    // The new offset.
    uint64_t seekToEndOfFile();
    // Writes all of data at the current offset.
    void writeData(std::string_view data);
    // Waits until what was written is on the disk.
    void synchronizeFile();
    // Closes now; later operations raise.
    void closeFile() noexcept;

private:
    explicit FileHandle(posix::UniqueFd fd) : theFd(std::move(fd)) {}
    [[noreturn]] static void raiseFailure(const char* operation);

    posix::UniqueFd theFd;
};

}  // namespace platform
