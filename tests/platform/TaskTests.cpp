#include "platform/Task.h"

#include "platform/Exception.h"
#include "tests/support/ScopedVariable.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testsupport::ScopedVariable;

using platform::Task;
using platform::TaskOptions;
using testsupport::makeDirectories;
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

// Options with only standard output captured.
TaskOptions capturing()
{
    TaskOptions options;
    options.captureStandardOutput = true;
    return options;
}

// What `script` prints, run by /bin/sh -c with `options` (standard output
// captured).
std::string outputOfShell(const std::string& script, TaskOptions options = {})
{
    options.captureStandardOutput = true;
    Task task = Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", script}, options);
    task.waitUntilExit();
    EXPECT_EQ(task.terminationStatus(), 0) << script;
    return task.standardOutputData();
}

bool isCloseOnExec(int fd)
{
    const int flags = ::fcntl(fd, F_GETFD);
    return flags != -1 && (flags & FD_CLOEXEC) != 0;
}

// A file of the test open for writing under a descriptor the shell can name
// (it names 0 to 9 only), close-on-exec as every descriptor of the platform.
class ShellDescriptor {
public:
    explicit ShellDescriptor(const std::string& path)
    {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd >= 0) {
            theFd = ::fcntl(fd, F_DUPFD_CLOEXEC, 5);
            ::close(fd);
        }
    }
    ShellDescriptor(const ShellDescriptor&) = delete;
    ShellDescriptor& operator=(const ShellDescriptor&) = delete;
    ~ShellDescriptor()
    {
        if (theFd >= 0) {
            ::close(theFd);
        }
    }
    int get() const noexcept { return theFd; }
    bool usable() const noexcept { return theFd >= 0 && theFd <= 9; }

private:
    int theFd = -1;
};

TEST(TaskCapture, CollectsWhatTheChildPrintsInOrder)
{
    EXPECT_EQ(outputOfShell("printf 'one\\n'; printf 'two\\n'; printf three"), "one\ntwo\nthree");
}

TEST(TaskCapture, CollectsWhatAGrandchildPrintsWhereItPrintsIt)
{
    EXPECT_EQ(outputOfShell("printf 'child\\n'; /bin/sh -c \"printf 'grandchild\\\\n'\"; printf 'child again\\n'"),
              "child\ngrandchild\nchild again\n");
}

TEST(TaskCapture, CollectsLargeAndBinaryOutputWhole)
{
    // Far more than a pipe holds: nothing waits for a reader.
    const std::string output = outputOfShell("head -c 300000 /dev/zero; printf '\\377\\001end'");
    ASSERT_EQ(output.size(), 300000U + 5U);
    EXPECT_EQ(output.find_first_not_of('\0'), 300000U);
    EXPECT_EQ(output.substr(300000), "\xff\x01"
                                     "end");
}

TEST(TaskCapture, StandardErrorIsNotCollected)
{
    EXPECT_EQ(outputOfShell("printf out; printf 'expected on standard error\\n' >&2"), "out");
}

TEST(TaskCapture, NothingPrintedIsAnEmptyCapture)
{
    EXPECT_EQ(outputOfShell("exit 0"), "");
}

TEST(TaskCapture, WithoutCaptureTheOutputGoesToOursAndNothingIsCollected)
{
    TempDir dir;
    const std::string out = dir.at("out");
    ASSERT_TRUE(runWithOutputTo(out, [] {
        Task task = Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", "printf 'to the parent\\n'"});
        task.waitUntilExit();
        // Printed after the child's line, to the same file.
        std::printf("collected [%s]\n", task.standardOutputData().c_str());
    }));
    EXPECT_EQ(readFile(out), "to the parent\ncollected []\n");
}

TEST(TaskCapture, AMovedTaskKeepsItsOutput)
{
    Task first = Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", "printf moved"}, capturing());
    Task second(std::move(first));
    second.waitUntilExit();
    EXPECT_EQ(second.standardOutputData(), "moved");
}

TEST(TaskInheritedDescriptors, AListedDescriptorIsOpenInTheChildUnderTheSameNumber)
{
    TempDir dir;
    const ShellDescriptor listed(dir.at("listed"));
    ASSERT_TRUE(listed.usable()) << listed.get();
    TaskOptions options;
    options.inheritedDescriptors = {listed.get()};
    Task task = Task::launchedTaskWithLaunchPath(
        "/bin/sh", {"-c", "echo x >&" + std::to_string(listed.get()) + " && echo y >&" + std::to_string(listed.get())},
        options);
    task.waitUntilExit();
    EXPECT_EQ(task.terminationStatus(), 0);
    EXPECT_EQ(readFile(dir.at("listed")), "x\ny\n");
    // Only the child's copy lost close-on-exec.
    EXPECT_TRUE(isCloseOnExec(listed.get()));
}

TEST(TaskInheritedDescriptors, ADescriptorNotListedIsClosedInTheChild)
{
    TempDir dir;
    const ShellDescriptor listed(dir.at("listed"));
    const ShellDescriptor unlisted(dir.at("unlisted"));
    ASSERT_TRUE(listed.usable() && unlisted.usable()) << listed.get() << " " << unlisted.get();
    TaskOptions options;
    options.inheritedDescriptors = {listed.get()};
    // The same script succeeds for the listed descriptor.
    const std::string script = "echo written >&";
    Task toListed = Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", script + std::to_string(listed.get())}, options);
    toListed.waitUntilExit();
    EXPECT_EQ(toListed.terminationStatus(), 0);
    Task toUnlisted =
        Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", script + std::to_string(unlisted.get())}, options);
    toUnlisted.waitUntilExit();
    EXPECT_NE(toUnlisted.terminationStatus(), 0);
    EXPECT_EQ(readFile(dir.at("listed")), "written\n");
    EXPECT_EQ(readFile(dir.at("unlisted")), "");
}

TEST(TaskInheritedDescriptors, SeveralListedDescriptorsAreAllKept)
{
    TempDir dir;
    const ShellDescriptor first(dir.at("first"));
    const ShellDescriptor second(dir.at("second"));
    ASSERT_TRUE(first.usable() && second.usable());
    TaskOptions options;
    options.inheritedDescriptors = {first.get(), second.get()};
    options.captureStandardOutput = true;
    EXPECT_EQ(outputOfShell("echo 1 >&" + std::to_string(first.get()) + "; echo 2 >&" + std::to_string(second.get()) +
                                "; printf captured",
                            options),
              "captured");
    EXPECT_EQ(readFile(dir.at("first")), "1\n");
    EXPECT_EQ(readFile(dir.at("second")), "2\n");
}

TEST(TaskEnvironment, AddsAVariable)
{
    TaskOptions options;
    options.environment = {{"REMOVER_TEST_ADDED", "added value = with blanks"}};
    EXPECT_EQ(outputOfShell("printf %s \"$REMOVER_TEST_ADDED\"", options), "added value = with blanks");
}

TEST(TaskEnvironment, OverridesAVariableOfThisProcessOnce)
{
    const ScopedVariable outer("REMOVER_TEST_OVERRIDDEN", "outer");
    TaskOptions options;
    options.environment = {{"REMOVER_TEST_OVERRIDDEN", "inner"}};
    EXPECT_EQ(outputOfShell("printf %s \"$REMOVER_TEST_OVERRIDDEN\"", options), "inner");
    // Listed once in the environment the child gets, not twice: env prints
    // it as it came (a shell would keep only one of two itself, and the C
    // library's getenv would find the first, the outer one).
    options.captureStandardOutput = true;
    Task task = Task::launchedTaskWithLaunchPath("/usr/bin/env", {}, options);
    task.waitUntilExit();
    const std::string environment = "\n" + task.standardOutputData();
    const std::string::size_type first = environment.find("\nREMOVER_TEST_OVERRIDDEN=");
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(environment.substr(first + 1, environment.find('\n', first + 1) - first - 1),
              "REMOVER_TEST_OVERRIDDEN=inner");
    EXPECT_EQ(environment.find("\nREMOVER_TEST_OVERRIDDEN=", first + 1), std::string::npos);
}

TEST(TaskEnvironment, KeepsTheOtherVariablesOfThisProcess)
{
    const ScopedVariable kept("REMOVER_TEST_KEPT", "kept");
    // A name that begins like the overridden one is another variable.
    const ScopedVariable longer("REMOVER_TEST_KEPT_LONGER", "longer");
    TaskOptions options;
    options.environment = {{"REMOVER_TEST_OTHER", "other"}, {"REMOVER_TEST_KEPT_LONG", "long"}};
    EXPECT_EQ(outputOfShell("printf '%s %s %s %s' \"$REMOVER_TEST_KEPT\" \"$REMOVER_TEST_KEPT_LONGER\" "
                            "\"$REMOVER_TEST_KEPT_LONG\" \"$REMOVER_TEST_OTHER\"",
                            options),
              "kept longer long other");
}

TEST(TaskEnvironment, WithoutOptionsTheChildHasThisProcesssEnvironment)
{
    const ScopedVariable kept("REMOVER_TEST_PLAIN", "plain");
    EXPECT_EQ(outputOfShell("printf %s \"$REMOVER_TEST_PLAIN\""), "plain");
}

TEST(TaskWorkingFolder, TheChildStartsInTheFolderGiven)
{
    TempDir dir;
    makeDirectories(dir.at("work here"));
    TaskOptions options;
    options.currentDirectoryPath = dir.at("work here");
    // -P: the folder itself, not what $PWD inherited from this process says.
    EXPECT_EQ(outputOfShell("pwd -P", options), dir.at("work here") + "\n");
}

TEST(TaskWorkingFolder, WithoutOneTheChildStartsInThisProcesssFolder)
{
    char here[4096] = {};
    ASSERT_NE(::getcwd(here, sizeof here), nullptr);
    EXPECT_EQ(outputOfShell("pwd -P"), std::string(here) + "\n");
}

TEST(TaskWorkingFolder, AFolderThatCannotBeEnteredMakesTheLaunchFail)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    TaskOptions options;
    options.currentDirectoryPath = dir.at("missing");
    EXPECT_THROW(Task::launchedTaskWithLaunchPath("/bin/true", {}, options), platform::Exception);
    options.currentDirectoryPath = dir.at("file");
    EXPECT_THROW(Task::launchedTaskWithLaunchPath("/bin/true", {}, options), platform::Exception);
}

TEST(TaskTermination, AChildKilledBySigkillIsAnUncaughtSignalWithStatus137)
{
    Task task = Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", "kill -KILL $$"});
    task.waitUntilExit();
    EXPECT_EQ(task.terminationReason(), Task::TerminationReason::UncaughtSignal);
    EXPECT_EQ(task.terminationStatus(), 128 + 9);
}

TEST(TaskTermination, ExitingWith137IsAnExitNotASignal)
{
    Task task = Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", "exit 137"});
    task.waitUntilExit();
    EXPECT_EQ(task.terminationReason(), Task::TerminationReason::Exit);
    EXPECT_EQ(task.terminationStatus(), 137);
}

TEST(TaskTermination, AnOrdinaryExitIsAnExit)
{
    Task task = Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", "exit 0"});
    task.waitUntilExit();
    EXPECT_EQ(task.terminationReason(), Task::TerminationReason::Exit);
    EXPECT_EQ(task.terminationStatus(), 0);
}

TEST(TaskTermination, AChildKilledFromOutsideIsAnUncaughtSignal)
{
    Task task = Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", "exec sleep 30"});
    ASSERT_EQ(::kill(task.processIdentifier(), SIGTERM), 0);
    task.waitUntilExit();
    EXPECT_EQ(task.terminationReason(), Task::TerminationReason::UncaughtSignal);
    EXPECT_EQ(task.terminationStatus(), 128 + 15);
}

TEST(TaskTimeLimit, AChildEndingInTimeIsWaitedForWithItsStatus)
{
    Task task = Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", "exit 4"});
    EXPECT_TRUE(task.waitUntilExit(std::chrono::seconds(30)));
    EXPECT_EQ(task.terminationStatus(), 4);
    EXPECT_EQ(task.terminationReason(), Task::TerminationReason::Exit);
}

TEST(TaskTimeLimit, AChildStillRunningAtTheLimitIsNotWaitedForAndGoesOn)
{
    const auto started = std::chrono::steady_clock::now();
    Task task = Task::launchedTaskWithLaunchPath("/bin/sleep", {"30"});
    EXPECT_FALSE(task.waitUntilExit(std::chrono::milliseconds(200)));
    const auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_GE(waited, std::chrono::milliseconds(200));
    EXPECT_LT(waited, std::chrono::seconds(10));
    // Still there to be signalled.
    EXPECT_EQ(::kill(task.processIdentifier(), 0), 0);
    task.killAndWait();
    EXPECT_EQ(task.terminationReason(), Task::TerminationReason::UncaughtSignal);
    EXPECT_EQ(task.terminationStatus(), 128 + SIGKILL);
}

TEST(TaskTimeLimit, KillAndWaitEndsAChildThatIgnoresTermination)
{
    TaskOptions options;
    options.captureStandardOutput = true;
    Task task = Task::launchedTaskWithLaunchPath(
        "/bin/sh", {"-c", "trap '' TERM INT HUP; echo ready; while :; do sleep 1; done"}, options);
    EXPECT_FALSE(task.waitUntilExit(std::chrono::seconds(1)));
    task.killAndWait();
    EXPECT_EQ(task.terminationStatus(), 128 + SIGKILL);
    // What it printed before it was ended is there.
    EXPECT_EQ(task.standardOutputData(), "ready\n");
}

TEST(TaskTimeLimit, KillAndWaitOfAnEndedTaskKeepsItsStatus)
{
    Task task = Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", "exit 2"});
    task.waitUntilExit();
    task.killAndWait();
    EXPECT_EQ(task.terminationStatus(), 2);
}

}  // namespace
