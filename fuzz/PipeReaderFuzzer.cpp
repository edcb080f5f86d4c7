// libFuzzer target for the command-pipe reader: any byte stream a writer may
// send, read to its end.
//
// Each input goes into a pipe whose write end is then closed. First a read
// with a deadline already past must raise 1852 and leave every byte in the
// pipe. Then commands are read until the stream is used up. Every ordinary
// command must be well-formed UTF-8 without a line feed, and every exception
// that escapes must be the fatal one.
//
// The reader polls a drained pipe every 100 ms until its deadline. So that an
// input ends in microseconds, this target defines usleep for the process: a
// poll means the input is used up, and it records the pending error that a
// passed deadline would, which the reader raises at its next pass.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/QELBase.h"
#include "base/QELBaseConstants.h"
#include "platform/ConsoleLog.h"
#include "platform/Date.h"
#include "platform/Exception.h"
#include "platform/Text.h"
#include "platform/UserDefaults.h"

namespace {

constexpr int32_t kDeadlinePassedErrorCode = 1852;
// Below the 64 KiB a pipe holds by default, so the writes never block.
constexpr std::size_t kMaximumInput = 60000;

bool gInputUsedUp = false;

// The process's pending error, cleared between reads: a writer's "error"
// leaves one behind, which would otherwise end every later read at once.
void clearPendingError()
{
    QELBase::terminate();
}

void check(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

class OwnedFd {
public:
    explicit OwnedFd(int fd) : theFd(fd) {}
    ~OwnedFd() { close(); }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    int get() const { return theFd; }
    void close()
    {
        if (theFd >= 0) {
            ::close(theFd);
            theFd = -1;
        }
    }

private:
    int theFd;
};

int bytesInPipe(int fd)
{
    int count = 0;
    check(::ioctl(fd, FIONREAD, &count) == 0);
    return count;
}

void readToTheEnd(int fd)
{
    gInputUsedUp = false;
    // Every read takes at least one byte or ends the input.
    while (!gInputUsedUp) {
        try {
            const std::string command = QELBase::receiveCommandOnPipe(fd, platform::Date::distantFuture());
            check(command.find('\n') == std::string::npos);
            check(platform::isValidUTF8(command));
        } catch (const platform::Exception& exception) {
            check(exception.name() == QEL_FATAL_EXCEPTION_NAME);
            clearPendingError();
        }
    }
}

}  // namespace

// The reader's poll: the pipe is drained and its write end closed.
extern "C" int usleep(useconds_t /*microseconds*/)
{
    gInputUsedUp = true;
    clearPendingError();
    QELBase::setErrorCode(kDeadlinePassedErrorCode);
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    platform::UserDefaults::standardUserDefaults().setArgumentDomainFromArguments(
        {"-AppType", "Fuzz", "-LogLevel", "1"});
    // Log lines are made as usual and then dropped.
    platform::ConsoleLog::setSinkForTesting([](const std::string& /*message*/) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size > kMaximumInput) {
        return -1;
    }
    std::array<int, 2> ends{-1, -1};
    check(::pipe2(ends.data(), O_CLOEXEC) == 0);
    OwnedFd readEnd(ends[0]);
    OwnedFd writeEnd(ends[1]);
    if (size > 0) {
        check(::write(writeEnd.get(), data, size) == static_cast<ssize_t>(size));
    }
    writeEnd.close();

    clearPendingError();
    try {
        QELBase::receiveCommandOnPipe(readEnd.get(), platform::Date::distantPast());
        check(false);
    } catch (const platform::Exception& exception) {
        check(exception.name() == QEL_FATAL_EXCEPTION_NAME);
        const std::optional<platform::Error> carried = QELBase::errorOfException(exception);
        check(carried && carried->code() == kDeadlinePassedErrorCode);
    }
    check(bytesInPipe(readEnd.get()) == static_cast<int>(size));
    clearPendingError();

    readToTheEnd(readEnd.get());
    check(bytesInPipe(readEnd.get()) == 0);
    clearPendingError();
    return 0;
}
