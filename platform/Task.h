// Child processes: an executable started by absolute path with an argument
// list, inheriting standard input, output and error.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace platform {

class Task {
public:
    // Flushes standard output first, so the child's lines land after ours
    // when output goes to a file. Throws Exception (NSInvalidArgumentException)
    // when the executable cannot be started.
    static Task launchedTaskWithLaunchPath(const std::string& launchPath, const std::vector<std::string>& arguments);

    Task(Task&& other) noexcept;
    Task& operator=(Task&& other) noexcept;
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    // A task never waited for is reaped here.
    ~Task();

    void waitUntilExit();
    // The exit status once waited for (128 + signal for a signalled child).
    int terminationStatus() const noexcept { return theStatus; }
    pid_t processIdentifier() const noexcept { return thePid; }

private:
    explicit Task(pid_t pid) : thePid(pid) {}
    pid_t thePid = -1;
    int theStatus = 0;
    bool theWaited = false;
};

}  // namespace platform
