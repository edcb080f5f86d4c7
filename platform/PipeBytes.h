// Single bytes over a pipe's descriptor, the way the command pipes exchange
// them: one byte per write, one byte per read, and a pause between two reads
// that found nothing. The pipe protocol works byte by byte on purpose (a
// reader never takes bytes meant for the next reader of the same pipe), so
// nothing here buffers.
//
// @code
//   platform::PipeBytes::write(fd, '\n');
//   unsigned char byte = 0;
//   switch (platform::PipeBytes::read(fd, byte)) {
//   case platform::PipeBytes::Read::Byte:   ...use byte...; break;
//   case platform::PipeBytes::Read::NoData: platform::PipeBytes::pause(100000); break;
//   case platform::PipeBytes::Read::Failed: ...report...; break;
//   }
// @endcode
#pragma once

#include <cstdint>

namespace platform {

class PipeBytes {
public:
    PipeBytes() = delete;

    enum class Read : unsigned char {
        // One byte was read.
        Byte,
        // Nothing to read now: the writer has closed its end, or a
        // non-blocking descriptor has nothing yet (EAGAIN).
        NoData,
        // The read failed for another reason (a closed or unreadable
        // descriptor).
        Failed,
    };

    // Writes the byte. An interrupted write is repeated; any other outcome
    // is not reported: the protocol has no answer to a broken or full pipe.
    static void write(int32_t fd, unsigned char byte) noexcept;
    // Reads one byte into `byte`; an interrupted read is repeated.
    static Read read(int32_t fd, unsigned char& byte) noexcept;
    // Waits the given time before the next read.
    static void pause(uint32_t microseconds) noexcept;
};

}  // namespace platform
