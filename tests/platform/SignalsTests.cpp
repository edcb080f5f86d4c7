// The signals a run ignores so that it always ends whole, and the default
// dispositions its children get back.
#include "platform/Signals.h"

#include "platform/Task.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

using platform::Signals;
using platform::Task;
using platform::TaskOptions;

// Each test runs in a process of its own: what one ignores does not reach
// the next.
class SignalsTest : public ::testing::Test {
protected:
    static void ignore() { ASSERT_FALSE(Signals::ignoreSignalsThatWouldCutARunShort()); }
};

TEST_F(SignalsTest, BrokenPipeAndHangUpAreNotIgnoredBeforehand)
{
    EXPECT_FALSE(Signals::isIgnored(SIGPIPE));
    EXPECT_FALSE(Signals::isIgnored(SIGHUP));
}

TEST_F(SignalsTest, BrokenPipeAndHangUpAreIgnoredAndInterruptAndTerminateKeepTheirDefault)
{
    ignore();
    EXPECT_TRUE(Signals::isIgnored(SIGPIPE));
    EXPECT_TRUE(Signals::isIgnored(SIGHUP));
    EXPECT_FALSE(Signals::isIgnored(SIGINT));
    EXPECT_FALSE(Signals::isIgnored(SIGTERM));
    struct sigaction current {};
    ASSERT_EQ(::sigaction(SIGTERM, nullptr, &current), 0);
    EXPECT_EQ(current.sa_handler, SIG_DFL);
    ASSERT_EQ(::sigaction(SIGINT, nullptr, &current), 0);
    EXPECT_EQ(current.sa_handler, SIG_DFL);
}

TEST_F(SignalsTest, AHangUpNoLongerEndsTheProcess)
{
    ignore();
    ASSERT_EQ(::raise(SIGHUP), 0);
    ASSERT_EQ(::raise(SIGPIPE), 0);
    SUCCEED() << "still running";
}

TEST_F(SignalsTest, AWriteToAPipeWithoutReaderFailsWithBrokenPipeAndTheProcessGoesOn)
{
    ignore();
    std::array<int, 2> ends{-1, -1};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    ::close(ends[0]);
    const char byte = 'x';
    errno = 0;
    EXPECT_EQ(::write(ends[1], &byte, 1), -1);
    EXPECT_EQ(errno, EPIPE);
    ::close(ends[1]);
}

// The child's ignored signals as the kernel reports them (SigIgn of
// /proc/self/status, a hexadecimal mask with bit N-1 for signal N).
uint64_t ignoredSignalsOfAChild()
{
    TaskOptions options;
    options.captureStandardOutput = true;
    Task task = Task::launchedTaskWithLaunchPath("/usr/bin/sed",
                                                 {"-n", "s/^SigIgn:[[:space:]]*//p", "/proc/self/status"}, options);
    task.waitUntilExit();
    EXPECT_EQ(task.terminationStatus(), 0);
    const std::string text = task.standardOutputData();
    EXPECT_FALSE(text.empty());
    return std::stoull(text, nullptr, 16);
}

uint64_t bitOf(int signalNumber)
{
    return uint64_t{1} << static_cast<unsigned>(signalNumber - 1);
}

TEST_F(SignalsTest, AChildStartsWithTheDefaultDispositionOfTheSignalsItsParentIgnores)
{
    ignore();
    const uint64_t ignored = ignoredSignalsOfAChild();
    EXPECT_EQ(ignored & bitOf(SIGPIPE), 0U);
    EXPECT_EQ(ignored & bitOf(SIGHUP), 0U);
}

TEST_F(SignalsTest, AChildOfAParentThatIgnoresSigpipeIsStillEndedByIt)
{
    ignore();
    Task task = Task::launchedTaskWithLaunchPath("/bin/sh", {"-c", "kill -PIPE $$; echo survived"});
    task.waitUntilExit();
    EXPECT_EQ(task.terminationReason(), Task::TerminationReason::UncaughtSignal);
    EXPECT_EQ(task.terminationStatus(), 128 + SIGPIPE);
}

TEST_F(SignalsTest, AnotherIgnoredSignalOfTheParentIsLeftAsItIs)
{
    // Only the signals this program ignores are given back: one ignored by
    // whoever started it (SIGQUIT here) stays ignored in the child, as a
    // shell would leave it.
    ignore();
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(::sigaction(SIGQUIT, &action, nullptr), 0);
    EXPECT_NE(ignoredSignalsOfAChild() & bitOf(SIGQUIT), 0U);
}

}  // namespace
