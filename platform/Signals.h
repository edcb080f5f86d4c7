// Signal dispositions of the process.
//
// A run that deletes system files must not stop half-way for a reason that
// has nothing to do with its work: a reader of its output that has gone away
// (`RemoverTool ... | head -n 1`: SIGPIPE at the next write) or a terminal
// that has hung up (a dropped remote session: SIGHUP). Ignored, a write to a
// closed pipe fails with EPIPE and the run goes on; SIGINT and SIGTERM, a
// deliberate request to stop, keep their default.
//
// @code
//   int main(int argc, char** argv)
//   {
//       if (const std::error_code error = platform::Signals::ignoreSignalsThatWouldCutARunShort()) { ... }
//       ...
//   }
// @endcode
//
// Ignored dispositions survive exec: platform::Task gives every child the
// default disposition of these signals back.
#pragma once

#include <array>
#include <csignal>
#include <system_error>

namespace platform {

class Signals {
public:
    Signals() = delete;

    // The signals ignoreSignalsThatWouldCutARunShort() ignores.
    static constexpr std::array<int, 2> kSignalsThatWouldCutARunShort = {SIGPIPE, SIGHUP};

    // Ignores SIGPIPE and SIGHUP for the rest of the process. Returns the
    // reason when a disposition could not be changed.
    static std::error_code ignoreSignalsThatWouldCutARunShort() noexcept;

    // Whether the signal's disposition is "ignore" now.
    static bool isIgnored(int signalNumber) noexcept;
};

}  // namespace platform
