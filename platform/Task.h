// Child processes: an executable started by absolute path with an argument
// list, inheriting standard input, output and error.
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "platform/PosixIO.h"

namespace platform {

// How a task is started, beyond its path and arguments.
struct TaskOptions {
    // Whether the child's standard output goes to a file of the task's own,
    // read with standardOutputData() (its parent's standard output otherwise).
    bool captureStandardOutput = false;
    // Descriptors the child keeps open under the same numbers; every other
    // descriptor of the platform is closed in the child.
    std::vector<int> inheritedDescriptors;
    // Variables set in the child's environment on top of this process's.
    std::vector<std::pair<std::string, std::string>> environment;
    // The child's working folder (this process's otherwise); a folder that
    // cannot be entered makes the launch fail.
    std::string currentDirectoryPath;
};

class Task {
public:
    enum class TerminationReason { Exit, UncaughtSignal };

    // Flushes standard output first, so the child's lines land after ours
    // when output goes to a file. Throws Exception (NSInvalidArgumentException)
    // when the executable cannot be started.
    static Task launchedTaskWithLaunchPath(const std::string& launchPath, const std::vector<std::string>& arguments);
    static Task launchedTaskWithLaunchPath(const std::string& launchPath, const std::vector<std::string>& arguments,
                                           const TaskOptions& options);

    Task(Task&& other) noexcept;
    Task& operator=(Task&& other) noexcept;
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    // A task never waited for is reaped here.
    ~Task();

    void waitUntilExit();
    // Waits at most `limit` for the child to end: true once it has ended
    // and been waited for (as waitUntilExit()), false while it still runs.
    //
    //   if (!task.waitUntilExit(std::chrono::seconds(600))) { task.killAndWait(); }
    bool waitUntilExit(std::chrono::milliseconds limit);
    // Ends the child with SIGKILL, which it can neither catch nor ignore
    // (nor can the first process of a PID namespace, whose end takes every
    // process of that namespace with it), and waits for it.
    void killAndWait();
    // The exit status once waited for (128 + signal for a signalled child).
    int terminationStatus() const noexcept { return theStatus; }
    // Whether the child exited or a signal ended it (then terminationStatus()
    // is 128 + the signal).
    TerminationReason terminationReason() const noexcept { return theReason; }
    pid_t processIdentifier() const noexcept { return thePid; }
    // Everything the child wrote on its standard output, once waited for,
    // when it was captured (empty otherwise).
    std::string standardOutputData() const;

private:
    Task(pid_t pid, posix::UniqueFd output) : thePid(pid), theOutput(std::move(output)) {}
    pid_t thePid = -1;
    posix::UniqueFd theOutput;
    int theStatus = 0;
    TerminationReason theReason = TerminationReason::Exit;
    bool theWaited = false;
};

}  // namespace platform
