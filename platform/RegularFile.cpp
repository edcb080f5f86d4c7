#include "platform/RegularFile.h"

#include <algorithm>
#include <fcntl.h>
#include <new>
#include <unistd.h>
#include <utility>

#include "platform/ConsoleLog.h"

namespace platform {

namespace {

class ReadRefusalCategory : public std::error_category {
public:
    const char* name() const noexcept override { return "read refusal"; }
    std::string message(int value) const override
    {
        switch (static_cast<ReadRefusal>(value)) {
        case ReadRefusal::NotARegularFile: return "not a regular file";
        case ReadRefusal::TooLarge: return "larger than a file read whole may be";
        case ReadRefusal::Untrusted: return "writable by a user other than root or the running user";
        }
        return "not read";
    }
};

void setError(std::error_code* error, std::error_code reason)
{
    if (error != nullptr) {
        *error = reason;
    }
}

// Keeps the descriptor only when it is open on a regular file.
posix::UniqueFd keepRegular(posix::UniqueFd fd, struct stat& info, std::error_code reason, std::error_code* error)
{
    if (!fd.valid()) {
        setError(error, reason);
        return {};
    }
    if (const std::error_code statError = posix::statDescriptor(fd.get(), info)) {
        setError(error, statError);
        return {};
    }
    if (S_ISDIR(info.st_mode)) {
        // What reading a folder answers.
        setError(error, std::make_error_code(std::errc::is_a_directory));
        return {};
    }
    if (!S_ISREG(info.st_mode)) {
        setError(error, ReadRefusal::NotARegularFile);
        return {};
    }
    setError(error, {});
    return fd;
}

// O_NONBLOCK: opening a FIFO without a writer returns at once instead of
// waiting; O_NOCTTY: a terminal never becomes the controlling one.
constexpr int kReadFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY;

}  // namespace

const std::error_category& readRefusalCategory() noexcept
{
    static const ReadRefusalCategory category;
    return category;
}

std::error_code make_error_code(ReadRefusal refusal) noexcept
{
    return {static_cast<int>(refusal), readRefusalCategory()};
}

posix::UniqueFd RegularFile::open(const std::string& path, struct stat& info, std::error_code* error)
{
    if (path.empty()) {
        // What the system calls answer for an empty path.
        setError(error, std::make_error_code(std::errc::no_such_file_or_directory));
        return {};
    }
    std::error_code reason;
    posix::UniqueFd fd = posix::openFile(path, kReadFlags, 0, &reason);
    return keepRegular(std::move(fd), info, reason, error);
}

posix::UniqueFd RegularFile::openInFolder(int folderFd, const std::string& name, struct stat& info,
                                          std::error_code* error)
{
    std::error_code reason;
    posix::UniqueFd fd = posix::openAt(folderFd, name, kReadFlags | O_NOFOLLOW, 0, &reason);
    return keepRegular(std::move(fd), info, reason, error);
}

std::optional<std::string> RegularFile::readOpen(int fd, const struct stat& info, std::size_t limit,
                                                 std::error_code* error)
{
    if (info.st_size < 0 || static_cast<unsigned long long>(info.st_size) > limit) {
        setError(error, ReadRefusal::TooLarge);
        return std::nullopt;
    }
    try {
        // One buffer of the size the file says, so the bytes are held once;
        // one byte more is asked for, so a file that grew is noticed.
        std::string contents;
        contents.resize(static_cast<std::size_t>(info.st_size) + 1);
        std::size_t used = 0;
        for (;;) {
            if (used == contents.size()) {
                if (used > limit) {
                    setError(error, ReadRefusal::TooLarge);
                    return std::nullopt;
                }
                contents.resize(std::min(limit + 1, 2 * used));
            }
            const ssize_t got =
                posix::retryOnEintr([&] { return ::read(fd, contents.data() + used, contents.size() - used); });
            if (got < 0) {
                setError(error, posix::lastError());
                return std::nullopt;
            }
            if (got == 0) {
                break;
            }
            used += static_cast<std::size_t>(got);
        }
        if (used > limit) {
            setError(error, ReadRefusal::TooLarge);
            return std::nullopt;
        }
        contents.resize(used);
        setError(error, {});
        return contents;
    } catch (const std::bad_alloc&) {
        setError(error, std::make_error_code(std::errc::not_enough_memory));
        return std::nullopt;
    }
}

std::optional<std::string> RegularFile::read(const std::string& path, std::size_t limit, std::error_code* error)
{
    std::error_code reason;
    struct stat info {};
    std::optional<std::string> contents;
    const posix::UniqueFd fd = open(path, info, &reason);
    if (fd.valid()) {
        contents = readOpen(fd.get(), info, limit, &reason);
    }
    if (reason.category() == readRefusalCategory()) {
        logNotRead(path, reason.message());
    }
    setError(error, reason);
    return contents;
}

void RegularFile::logNotRead(const std::string& path, const std::string& reason)
{
    ConsoleLog::log("not read: " + path + ": " + reason);
}

}  // namespace platform
