// qelutil commands of the command pipes, so that two shell processes joined
// by a pipe speak the protocol:
//
//   qelutil pipe-send one log-normal "a message" two | qelutil pipe-receive 2
//
//   pipe-send COMMAND...          writes each command, in turn, on standard
//                                 output (a control command and its argument
//                                 are two commands); prints nothing else
//   pipe-receive COUNT [SECONDS]  reads COUNT ordinary commands from standard
//                                 input and prints each on a line of its own;
//                                 with SECONDS (a decimal number, negative for
//                                 a deadline already past) the deadline is
//                                 that long after the start. A passed
//                                 deadline, a failed read or a writer's
//                                 "error" ends it with the fatal exception
//                                 (exit 70).
//
// A command that starts with a hyphen followed by a letter would be taken as
// a setting, like any argument of qelutil.
#include <charconv>
#include <cmath>
#include <cstdio>
#include <string>
#include <system_error>
#include <vector>

#include "base/QELBase.h"
#include "platform/Date.h"
#include "tools/qelutil/CommandRegistry.h"

namespace {

constexpr int32_t kStandardInput = 0;
constexpr int32_t kStandardOutput = 1;

// A whole decimal number of seconds, possibly with a fraction and a sign.
double parseSecondsArgument(const std::string& text)
{
    double value = 0;
    const char* first = text.data();
    const char* last = first + text.size();
    const auto [end, error] = std::from_chars(first, last, value, std::chars_format::fixed);
    if (text.empty() || error != std::errc() || end != last || !std::isfinite(value)) {
        throw qelutil::UsageError("not a number of seconds: " + text);
    }
    return value;
}

int runPipeSend(const std::vector<std::string>& positional)
{
    if (positional.empty()) {
        throw qelutil::UsageError("no command to send");
    }
    for (const std::string& command : positional) {
        QELBase::sendCommand(command, kStandardOutput);
    }
    return 0;
}

int runPipeReceive(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 1, 2);
    const int32_t count = qelutil::parseInt32Argument(positional[0]);
    if (count < 0) {
        throw qelutil::UsageError("COUNT must not be negative");
    }
    const platform::Date deadline = positional.size() > 1
                                        ? platform::Date::now().addingTimeInterval(parseSecondsArgument(positional[1]))
                                        : platform::Date::distantFuture();
    for (int32_t i = 0; i < count; ++i) {
        const std::string command = QELBase::receiveCommandOnPipe(kStandardInput, deadline);
        // Written whole: a command may hold a NUL byte.
        std::fwrite(command.data(), 1, command.size(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    }
    return 0;
}

const qelutil::CommandRegistrar pipeSendCommand({"pipe-send", "pipe-send COMMAND...", runPipeSend});
const qelutil::CommandRegistrar pipeReceiveCommand({"pipe-receive", "pipe-receive COUNT [SECONDS]", runPipeReceive});

}  // namespace
