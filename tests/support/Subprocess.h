// Running a program on this machine as a child process and collecting what
// it wrote: the one runner behind every test that starts another program
// (the sandbox, openssl, qelutil, a copy of the running test executable).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "tests/support/Descriptor.h"

namespace testsupport {

struct RunResult {
    // The program's exit status; 128 + N when signal N ended it (directly,
    // or inside the sandbox, which passes a signal on that way).
    int exitStatus = -1;
    // True when a signal ended the program.
    bool signaled = false;
    int signalNumber = 0;
    std::string standardOutput;
    std::string standardError;
};

struct CommandOptions {
    // What the program reads on its standard input; /dev/null without it.
    std::optional<std::string> input;
    // "NAME=value" entries placed before this process's own environment, so
    // that they win over a variable of the same name.
    std::vector<std::string> extraEnvironment;
};

// Runs a command (a program name without a slash is looked for in PATH) and
// collects both outputs. Throws std::system_error when it cannot be started.
RunResult runCommand(const std::vector<std::string>& command);
RunResult runCommand(const std::vector<std::string>& command, const CommandOptions& options);

// A running child whose standard input the test feeds piece by piece, for
// input too large to hold in memory. Both outputs are read while it writes,
// so neither side can block the other.
class Subprocess {
public:
    enum class Input { Null, Pipe };

    Subprocess(const std::vector<std::string>& command, Input input,
               const std::vector<std::string>& extraEnvironment = {});
    // A child still running is killed and waited for.
    ~Subprocess();
    Subprocess(const Subprocess&) = delete;
    Subprocess& operator=(const Subprocess&) = delete;

    // Hands bytes to the child's standard input (Input::Pipe only). Throws
    // std::runtime_error when the child no longer reads it.
    void write(std::string_view bytes);
    // Ends the input, reads both outputs to their end and waits for the child.
    RunResult finish();

private:
    // Reads whatever output is ready while writing pending; with pending
    // empty, until both outputs end.
    void pump(std::string_view pending);

    pid_t thePid = -1;
    Descriptor theInput;
    Descriptor theOutput;
    Descriptor theError;
    RunResult theResult;
};

}  // namespace testsupport
