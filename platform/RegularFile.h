// Reading a file whole, safely for a program that runs as root over files
// others may control: the file is opened without blocking (a FIFO cannot hang
// the reader), read only when it is a regular file once the final link is
// followed (a FIFO, socket or device reads as "cannot be read"), and only up
// to a size limit (a link to /dev/zero or a sparse file of gigabytes cannot
// exhaust memory).
//
// @code
//   std::error_code why;
//   if (auto bytes = RegularFile::read("/Library/Preferences/x.plist", RegularFile::kSizeLimit, &why)) {
//       use(*bytes);
//   } else if (why == ReadRefusal::NotARegularFile) { ... }
// @endcode
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <type_traits>

#include "platform/PosixIO.h"

namespace platform {

// Why a file that could be opened was still not read. Compare an error code
// with these values: `error == ReadRefusal::TooLarge`.
enum class ReadRefusal {
    // A FIFO, socket or device. (A folder fails as reading one does, with
    // std::errc::is_a_directory.)
    NotARegularFile = 1,
    // Larger than the limit the reader was given.
    TooLarge,
    // Someone other than root or the running user could have written it
    // (see TrustedFile.h).
    Untrusted,
};
const std::error_category& readRefusalCategory() noexcept;
std::error_code make_error_code(ReadRefusal refusal) noexcept;

class RegularFile {
public:
    RegularFile() = delete;

    // The largest file read whole: lists of paths, property lists, strings
    // tables, settings and agent files. The largest real install log names
    // tens of thousands of paths in a few MiB; 64 MiB leaves room for ten
    // times that while bounding what one read can ask of memory.
    static constexpr std::size_t kSizeLimit = std::size_t{64} << 20;

    // Opens the file at path for reading (following links, O_NONBLOCK so that
    // opening a FIFO never waits for a writer) and gives its status in
    // `info`. Only a regular file is opened: a folder fails with
    // std::errc::is_a_directory, anything else with
    // ReadRefusal::NotARegularFile. `error` receives why (cleared on success).
    static posix::UniqueFd open(const std::string& path, struct stat& info, std::error_code* error = nullptr);
    // As open, relative to the folder open at folderFd, never following a
    // final link (`name` is one name in that folder).
    static posix::UniqueFd openInFolder(int folderFd, const std::string& name, struct stat& info,
                                        std::error_code* error = nullptr);

    // The whole file at path; none when it cannot be read, is not a regular
    // file or holds more than `limit` bytes (ReadRefusal::TooLarge, also for
    // a file that grows past the limit while it is read). A refusal (not a
    // regular file, too large) is also told on the console as
    // "not read: PATH: REASON"; a file that is missing or cannot be opened is
    // not.
    static std::optional<std::string> read(const std::string& path, std::size_t limit = kSizeLimit,
                                           std::error_code* error = nullptr);
    // The whole file open at fd, whose status is `info`, read from where its
    // offset stands, with the same limit. Nothing is told on the console.
    static std::optional<std::string> readOpen(int fd, const struct stat& info, std::size_t limit,
                                               std::error_code* error = nullptr);
    // "not read: PATH: REASON" on the console.
    static void logNotRead(const std::string& path, const std::string& reason);
};

}  // namespace platform

template <>
struct std::is_error_code_enum<platform::ReadRefusal> : std::true_type {
};
