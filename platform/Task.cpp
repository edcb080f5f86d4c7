#include "platform/Task.h"

#include "platform/Exception.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <spawn.h>
#include <sys/wait.h>
#include <utility>

extern char** environ;

namespace platform {

namespace {

int exitStatusOf(int waitStatus)
{
    if (WIFEXITED(waitStatus)) {
        return WEXITSTATUS(waitStatus);
    }
    if (WIFSIGNALED(waitStatus)) {
        return 128 + WTERMSIG(waitStatus);
    }
    return waitStatus;
}

}  // namespace

Task Task::launchedTaskWithLaunchPath(const std::string& launchPath, const std::vector<std::string>& arguments)
{
    // Whatever this process has printed so far goes out before the child's
    // output, also when standard output is a file or a pipe.
    std::cout.flush();
    std::fflush(stdout);

    // argv[0] is the launch path, as the started program expects.
    std::vector<std::string> strings;
    strings.reserve(arguments.size() + 1);
    strings.push_back(launchPath);
    strings.insert(strings.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(strings.size() + 1);
    for (std::string& s : strings) {
        argv.push_back(s.data());
    }
    argv.push_back(nullptr);

    pid_t pid = -1;
    // glibc reports a failed exec (missing file, no permission) as the result.
    const int status =
        launchPath.empty() ? ENOENT : ::posix_spawn(&pid, launchPath.c_str(), nullptr, nullptr, argv.data(), environ);
    if (status != 0) {
        Exception::raise(kInvalidArgumentException,
                         "launch path not accessible: " + launchPath + " (" + std::strerror(status) + ")");
    }
    return Task(pid);
}

Task::Task(Task&& other) noexcept
    : thePid(std::exchange(other.thePid, -1)),
      theStatus(other.theStatus),
      theWaited(other.theWaited)
{
}

Task& Task::operator=(Task&& other) noexcept
{
    if (this != &other) {
        if (thePid > 0 && !theWaited) {
            waitUntilExit();
        }
        thePid = std::exchange(other.thePid, -1);
        theStatus = other.theStatus;
        theWaited = other.theWaited;
    }
    return *this;
}

Task::~Task()
{
    if (thePid > 0 && !theWaited) {
        waitUntilExit();
    }
}

void Task::waitUntilExit()
{
    if (theWaited || thePid <= 0) {
        return;
    }
    int waitStatus = 0;
    pid_t result = -1;
    do {
        result = ::waitpid(thePid, &waitStatus, 0);
    } while (result < 0 && errno == EINTR);
    theWaited = true;
    if (result == thePid) {
        theStatus = exitStatusOf(waitStatus);
    }
}

}  // namespace platform
