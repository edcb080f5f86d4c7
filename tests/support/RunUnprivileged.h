// Runs a check in a child process set up its own way: as an unprivileged
// user (nobody, 65534) for behaviour root would never see, such as a folder
// it may not read, or in a mount namespace or under a root of its own.
#pragma once

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <functional>

namespace testsupport {

constexpr uid_t kUnprivilegedUser = 65534;
constexpr gid_t kUnprivilegedGroup = 65534;

// The exit status of a child that first runs `enter` (which sets the child
// up: drops privileges, changes its root, enters a private mount namespace
// as PrivateMountNamespace.h does) and then `body`, whose result is the
// status: 0 for a passing check. 125 when `enter` failed, 126 when the body
// threw, -1 when the child did not end normally. The child leaves at once
// (_exit): no destructor of the test runs twice.
inline int runInChild(const std::function<bool()>& enter, const std::function<int()>& body)
{
    const pid_t pid = ::fork();
    if (pid < 0) {
        return -1;
    }
    if (pid == 0) {
        if (!enter()) {
            ::_exit(125);
        }
        int status = 126;
        try {
            status = body();
        } catch (...) {
            status = 126;
        }
        ::_exit(status);
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

// runInChild as nobody: 125 when the child could not give up root. Folders
// the body must reach need to be open to others.
inline int runUnprivileged(const std::function<int()>& body)
{
    return runInChild(
        [] {
            // A run that is not root already is unprivileged as it is.
            return ::geteuid() != 0 || (::setgroups(0, nullptr) == 0 && ::setgid(kUnprivilegedGroup) == 0 &&
                                        ::setuid(kUnprivilegedUser) == 0 && ::geteuid() != 0);
        },
        body);
}

}  // namespace testsupport
