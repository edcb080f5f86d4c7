#include "platform/Task.h"

#include "platform/Exception.h"
#include "platform/Signals.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <poll.h>
#include <csignal>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

extern char** environ;

namespace platform {

namespace {

Task::TerminationReason reasonOf(int waitStatus)
{
    return WIFSIGNALED(waitStatus) ? Task::TerminationReason::UncaughtSignal : Task::TerminationReason::Exit;
}

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
    return launchedTaskWithLaunchPath(launchPath, arguments, TaskOptions{});
}

Task Task::launchedTaskWithLaunchPath(const std::string& launchPath, const std::vector<std::string>& arguments,
                                      const TaskOptions& options)
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

    // This process's environment with the options' variables set on top.
    std::vector<std::string> variables;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string variable(*entry);
        const std::string name = variable.substr(0, variable.find('='));
        bool replaced = false;
        for (const auto& [optionName, optionValue] : options.environment) {
            replaced = replaced || optionName == name;
        }
        if (!replaced) {
            variables.push_back(variable);
        }
    }
    for (const auto& [name, value] : options.environment) {
        std::string variable = name;
        variable += '=';
        variable += value;
        variables.push_back(std::move(variable));
    }
    std::vector<char*> envp;
    envp.reserve(variables.size() + 1);
    for (std::string& variable : variables) {
        envp.push_back(variable.data());
    }
    envp.push_back(nullptr);

    std::error_code failure;
    posix::UniqueFd output;
    if (options.captureStandardOutput) {
        output = posix::anonymousFile("standard-output", &failure);
        if (!output.valid()) {
            Exception::raise(kInvalidArgumentException,
                             "no file for the standard output of " + launchPath + " (" + failure.message() + ")");
        }
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    int status = 0;
    if (output.valid()) {
        status = posix_spawn_file_actions_adddup2(&actions, output.get(), STDOUT_FILENO);
    }
    if (status == 0 && !options.currentDirectoryPath.empty()) {
        status = posix_spawn_file_actions_addchdir_np(&actions, options.currentDirectoryPath.c_str());
    }
    // A descriptor duplicated onto itself loses close-on-exec in the child
    // (glibc 2.29 and later).
    for (const int fd : options.inheritedDescriptors) {
        if (status == 0) {
            status = posix_spawn_file_actions_adddup2(&actions, fd, fd);
        }
    }

    // An ignored disposition survives exec: the signals this program may
    // ignore (Signals.h) are back at their default in the child, so a tool
    // behaves as it does when started from a shell.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (const int signalNumber : Signals::kSignalsThatWouldCutARunShort) {
        sigaddset(&defaults, signalNumber);
    }
    if (status == 0) {
        status = posix_spawnattr_setsigdefault(&attributes, &defaults);
    }
    if (status == 0) {
        status = posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    }

    pid_t pid = -1;
    // glibc reports a failed exec (missing file, no permission) as the result.
    if (status == 0) {
        status = launchPath.empty()
                     ? ENOENT
                     : ::posix_spawn(&pid, launchPath.c_str(), &actions, &attributes, argv.data(), envp.data());
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (status != 0) {
        Exception::raise(kInvalidArgumentException,
                         "launch path not accessible: " + launchPath + " (" + std::strerror(status) + ")");
    }
    return Task(pid, std::move(output));
}

std::string Task::standardOutputData() const
{
    std::string data;
    if (theOutput.valid()) {
        // What cannot be read is simply not there.
        (void)posix::readAllFromStart(theOutput.get(), data);
    }
    return data;
}

Task::Task(Task&& other) noexcept
    : thePid(std::exchange(other.thePid, -1)),
      theOutput(std::move(other.theOutput)),
      theStatus(other.theStatus),
      theReason(other.theReason),
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
        theOutput = std::move(other.theOutput);
        theStatus = other.theStatus;
        theReason = other.theReason;
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
        theReason = reasonOf(waitStatus);
    }
}

}  // namespace platform

namespace platform {

bool Task::waitUntilExit(std::chrono::milliseconds limit)
{
    if (theWaited || thePid <= 0) {
        waitUntilExit();
        return true;
    }
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + limit;
    // A process descriptor becomes readable when the child ends; without
    // one (an old kernel), the child is asked every few milliseconds.
    const posix::UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, thePid, 0)));
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (process.valid()) {
            pollfd watched{process.get(), POLLIN, 0};
            const int ready = ::poll(&watched, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
            if (ready > 0) {
                waitUntilExit();
                return true;
            }
            if (ready < 0 && errno != EINTR) {
                return false;
            }
        } else {
            int waitStatus = 0;
            const pid_t result = ::waitpid(thePid, &waitStatus, WNOHANG);
            if (result == thePid) {
                theWaited = true;
                theStatus = exitStatusOf(waitStatus);
                theReason = reasonOf(waitStatus);
                return true;
            }
            if (left.count() > 0) {
                ::usleep(5000);
            }
        }
        if (Clock::now() >= deadline) {
            return false;
        }
    }
}

void Task::killAndWait()
{
    if (theWaited || thePid <= 0) {
        return;
    }
    ::kill(thePid, SIGKILL);
    waitUntilExit();
}

}  // namespace platform
