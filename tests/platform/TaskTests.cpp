#include "platform/Task.h"

#include "platform/Exception.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using platform::Task;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

int exitStatusOf(const std::string& path, const std::vector<std::string>& arguments)
{
    Task task = Task::launchedTaskWithLaunchPath(path, arguments);
    task.waitUntilExit();
    return task.terminationStatus();
}

// Runs `body` in a child process whose standard output is the file `path`;
// true when the child finished normally.
template <typename Body>
bool runWithOutputTo(const std::string& path, Body body)
{
    std::fflush(stdout);
    const pid_t pid = ::fork();
    if (pid < 0) {
        return false;
    }
    if (pid == 0) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || ::dup2(fd, STDOUT_FILENO) < 0) {
            ::_exit(100);
        }
        ::close(fd);
        body();
        std::fflush(stdout);
        ::_exit(0);
    }
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(Task, TrueExitsWithZero)
{
    EXPECT_EQ(exitStatusOf("/bin/true", {}), 0);
}

TEST(Task, ExitCodeIsTheTerminationStatus)
{
    EXPECT_EQ(exitStatusOf("/bin/sh", {"-c", "exit 3"}), 3);
}

TEST(Task, SignalledChildIs128PlusTheSignal)
{
    EXPECT_EQ(exitStatusOf("/bin/sh", {"-c", "kill -TERM $$"}), 128 + 15);
}

TEST(Task, ArgumentsArePassedAsGiven)
{
    // $0 is the first argument after the script, then $1, $2.
    EXPECT_EQ(exitStatusOf("/bin/sh", {"-c", "test \"$1\" = 'a b' && test \"$2\" = '' && exit $#", "name", "a b", ""}),
              2);
}

TEST(Task, ProcessIdentifierIsTheChild)
{
    Task task = Task::launchedTaskWithLaunchPath("/bin/true", {});
    EXPECT_GT(task.processIdentifier(), 0);
    EXPECT_NE(task.processIdentifier(), ::getpid());
    task.waitUntilExit();
    task.waitUntilExit();
    EXPECT_EQ(task.terminationStatus(), 0);
}

TEST(Task, MissingExecutableThrowsNamingThePath)
{
    TempDir dir;
    const std::string missing = dir.at("no-such-tool");
    try {
        Task::launchedTaskWithLaunchPath(missing, {});
        FAIL() << "no exception";
    } catch (const platform::Exception& e) {
        EXPECT_EQ(e.name(), platform::kInvalidArgumentException);
        EXPECT_NE(e.reason().find(missing), std::string::npos) << e.reason();
    }
}

TEST(Task, NonExecutableFileThrows)
{
    TempDir dir;
    writeFile(dir.at("script"), "#!/bin/sh\nexit 0\n");
    ASSERT_EQ(::chmod(dir.at("script").c_str(), 0644), 0);
    try {
        Task::launchedTaskWithLaunchPath(dir.at("script"), {});
        FAIL() << "no exception";
    } catch (const platform::Exception& e) {
        EXPECT_EQ(e.name(), platform::kInvalidArgumentException);
        EXPECT_NE(e.reason().find(dir.at("script")), std::string::npos) << e.reason();
    }
}

TEST(Task, FolderAsLaunchPathThrows)
{
    TempDir dir;
    EXPECT_THROW(Task::launchedTaskWithLaunchPath(dir.path(), {}), platform::Exception);
    EXPECT_THROW(Task::launchedTaskWithLaunchPath("", {}), platform::Exception);
}

TEST(Task, UnwaitedTaskIsReapedWhenDestroyed)
{
    pid_t pid = -1;
    {
        const Task task = Task::launchedTaskWithLaunchPath("/bin/true", {});
        pid = task.processIdentifier();
    }
    int status = 0;
    errno = 0;
    EXPECT_EQ(::waitpid(pid, &status, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(Task, MovedTaskIsWaitedForOnce)
{
    Task first = Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", "exit 4"});
    const pid_t pid = first.processIdentifier();
    Task second(std::move(first));
    EXPECT_EQ(second.processIdentifier(), pid);
    second.waitUntilExit();
    EXPECT_EQ(second.terminationStatus(), 4);
}

TEST(Task, OutputPrintedBeforeTheLaunchComesBeforeTheChildsOutputInAFile)
{
    TempDir dir;
    const std::string out = dir.at("out");
    ASSERT_TRUE(runWithOutputTo(out, [] {
        std::printf("before\n");
        std::cout << "also before\n";
        Task::launchedTaskWithLaunchPath("/bin/echo", {"child"}).waitUntilExit();
        std::printf("after\n");
    }));
    EXPECT_EQ(readFile(out), "before\nalso before\nchild\nafter\n");
}

}  // namespace
