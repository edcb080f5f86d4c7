// The platform log: one line on standard error made of the date and time with
// milliseconds, the program name, [pid:tid] and the message.
#pragma once

#include <functional>
#include <string>

namespace platform {

class ConsoleLog {
public:
    ConsoleLog() = delete;

    static void log(const std::string& message);
    // The full line as written, e.g.
    // "2026-11-21 04:37:11.123 qelutil[123:123] message\n".
    static std::string formatLine(const std::string& message);

    // Tests replace where lines go; an empty function restores standard error.
    // The sink receives the message alone, without the prefix.
    using Sink = std::function<void(const std::string& message)>;
    static void setSinkForTesting(Sink sink);
};

}  // namespace platform
