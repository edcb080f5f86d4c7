#include "platform/PipeBytes.h"

#include <cerrno>
#include <unistd.h>

#include "platform/PosixIO.h"

namespace platform {

void PipeBytes::write(int32_t fd, unsigned char byte) noexcept
{
    static_cast<void>(posix::retryOnEintr([&] { return ::write(fd, &byte, 1); }));
}

PipeBytes::Read PipeBytes::read(int32_t fd, unsigned char& byte) noexcept
{
    const ssize_t count = posix::retryOnEintr([&] { return ::read(fd, &byte, 1); });
    if (count == 1) {
        return Read::Byte;
    }
    if (count == 0 || errno == EAGAIN || errno == EWOULDBLOCK) {
        return Read::NoData;
    }
    return Read::Failed;
}

void PipeBytes::pause(uint32_t microseconds) noexcept
{
    ::usleep(microseconds);
}

}  // namespace platform
