// Logging in-process, into the log file the test program set up in its
// private home folder: the verbosity filter, where each level goes, lines
// from several threads, and what a throwing console does to the guarded
// operations.
#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <optional>
#include <regex>
#include <unistd.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/QELBVerify.h"
#include "base/QELBase.h"
#include "platform/ConsoleLog.h"
#include "tests/support/ConsoleCapture.h"
#include "tests/support/Lines.h"
#include "tests/support/LogFile.h"
#include "tests/support/Settings.h"

namespace {

using testsupport::ConsoleCapture;
using testsupport::kTestAppType;

void useLogLevel(const std::string& level)
{
    testsupport::useCommandLineSettings({"-AppType", kTestAppType, "-LogLevel", level});
}

// The messages the log file gained since it held `before`.
std::vector<std::string> messagesAfter(const std::string& before)
{
    const std::string now = testsupport::logFileContents();
    EXPECT_EQ(now.substr(0, before.size()), before);
    return testsupport::logMessagesOf(now.substr(before.size()));
}

TEST(Logging, LogLevelOneWritesLevelOneMessages)
{
    useLogLevel("1");
    const std::string before = testsupport::logFileContents();
    const ConsoleCapture console;
    EXPECT_EQ(QELBase::verbosityLevel(), 1);
    QELBase::log("verbose", 1);
    QELBase::log("normal", 0);
    QELBase::log("error", -1);
    EXPECT_EQ(messagesAfter(before), (std::vector<std::string>{"verbose", "normal", "error"}));
    EXPECT_EQ(console.messages(), std::vector<std::string>{"error"});
}

TEST(Logging, LogLevelZeroDropsLevelOneMessages)
{
    useLogLevel("0");
    const std::string before = testsupport::logFileContents();
    EXPECT_EQ(QELBase::verbosityLevel(), 0);
    QELBase::log("verbose", 1);
    QELBase::log("normal", 0);
    QELBase::log("error", -1);
    EXPECT_EQ(messagesAfter(before), (std::vector<std::string>{"normal", "error"}));
}

TEST(Logging, ALevelZeroMessageIsWrittenToTheFileOnly)
{
    useLogLevel("0");
    const std::string before = testsupport::logFileContents();
    const ConsoleCapture console;
    QELBase::log("normal", 0);
    EXPECT_EQ(messagesAfter(before), std::vector<std::string>{"normal"});
    EXPECT_TRUE(console.messages().empty());
}

TEST(Logging, ALevelMinusOneMessageIsWrittenToTheFileAndShownOnTheConsole)
{
    useLogLevel("0");
    const std::string before = testsupport::logFileContents();
    const ConsoleCapture console;
    QELBase::log("error", -1);
    EXPECT_EQ(messagesAfter(before), std::vector<std::string>{"error"});
    EXPECT_EQ(console.messages(), std::vector<std::string>{"error"});
}

TEST(Logging, ALineIsTheDateDescriptionAColonAndTheMessage)
{
    useLogLevel("0");
    const std::string before = testsupport::logFileContents();
    QELBase::log("a message: with a colon", 0);
    const std::string added = testsupport::logFileContents().substr(before.size());
    EXPECT_TRUE(
        std::regex_match(added, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000: a message: with a colon\n)")))
        << added;
}

TEST(Logging, ALineTheFileCannotTakeGoesToTheConsole)
{
    useLogLevel("0");
    const std::optional<std::string> path = QELBase::logFilePath();
    ASSERT_TRUE(path.has_value());
    // The path stays known for the life of the process; the file is gone.
    ASSERT_EQ(::unlink(path->c_str()), 0);
    const ConsoleCapture console;
    QELBase::log("nowhere to go", 0);
    EXPECT_EQ(console.messages(), std::vector<std::string>{"nowhere to go"});
    EXPECT_EQ(QELBase::logFilePath(), path);
}

// LogLevel 2, -1 and a non-number all behave as 0.
class LogLevelOutOfRange : public ::testing::TestWithParam<std::string> {};

TEST_P(LogLevelOutOfRange, BehavesAsLogLevelZero)
{
    useLogLevel(GetParam());
    const std::string before = testsupport::logFileContents();
    EXPECT_EQ(QELBase::verbosityLevel(), 0);
    QELBase::log("verbose", 1);
    QELBase::log("normal", 0);
    EXPECT_EQ(messagesAfter(before), std::vector<std::string>{"normal"});
}

INSTANTIATE_TEST_SUITE_P(Logging, LogLevelOutOfRange, ::testing::Values("2", "-1", "verbose"));

TEST(Logging, MessagesAboveLevelOneAreNeverWritten)
{
    useLogLevel("1");
    const std::string before = testsupport::logFileContents();
    const ConsoleCapture console;
    QELBase::log("too verbose", 2);
    EXPECT_TRUE(console.messages().empty());
    EXPECT_TRUE(messagesAfter(before).empty());
}

TEST(Logging, LogLevelIsReadAfreshAtEveryCall)
{
    useLogLevel("0");
    EXPECT_EQ(QELBase::verbosityLevel(), 0);
    useLogLevel("1");
    EXPECT_EQ(QELBase::verbosityLevel(), 1);
}

TEST(Logging, ConsoleLinesFromSeveralThreadsNeverInterleave)
{
    useLogLevel("0");
    constexpr int kThreads = 6;
    constexpr int kLinesPerThread = 40;
    constexpr std::size_t kLineLength = 300;
    // A console that writes one character at a time and lets other threads
    // run in between, as a slow unbuffered device would.
    std::vector<char> written(static_cast<std::size_t>(kThreads * kLinesPerThread) * (kLineLength + 1));
    std::atomic<std::size_t> position{0};
    platform::ConsoleLog::setSinkForTesting([&](const std::string& message) {
        for (const char c : message + "\n") {
            written[position.fetch_add(1)] = c;
            std::this_thread::yield();
        }
    });

    QELBase::init();
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::string line(kLineLength, static_cast<char>('a' + t));
            for (int i = 0; i < kLinesPerThread; ++i) {
                QELBase::log(line, -1);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    QELBase::terminate();
    platform::ConsoleLog::setSinkForTesting(nullptr);

    ASSERT_EQ(position.load(), written.size());
    const std::vector<std::string> lines = testsupport::linesOf(std::string(written.begin(), written.end()));
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLinesPerThread));
    for (const auto& line : lines) {
        ASSERT_EQ(line.size(), kLineLength);
        EXPECT_EQ(line.find_first_not_of(line[0]), std::string::npos) << "mixed line: " << line.substr(0, 40);
    }
}

TEST(Logging, FileLinesFromEightThreadsOfFiveHundredLinesAreAllIntactAndNeverInterleave)
{
    useLogLevel("0");
    constexpr int kThreads = 8;
    constexpr int kLinesPerThread = 500;
    const std::string before = testsupport::logFileContents();

    QELBase::init();
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLinesPerThread; ++i) {
                // Long enough that a line takes more than one small write.
                QELBase::log("thread " + std::to_string(t) + " line " + std::to_string(i) + " " +
                                 std::string(200, static_cast<char>('a' + t)),
                             0);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    QELBase::terminate();

    const std::vector<std::string> messages = messagesAfter(before);
    ASSERT_EQ(messages.size(), static_cast<std::size_t>(kThreads * kLinesPerThread));
    std::vector<int> next(kThreads, 0);
    const std::regex form(R"(thread (\d) line (\d+) ([a-h]{200}))");
    for (const auto& message : messages) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(message, match, form)) << "mixed line: " << message;
        const int thread = std::stoi(match[1]);
        ASSERT_LT(thread, kThreads);
        EXPECT_EQ(match[3].str(), std::string(200, static_cast<char>('a' + thread)));
        // Each thread's lines in the order it logged them.
        EXPECT_EQ(std::stoi(match[2]), next[static_cast<std::size_t>(thread)]++);
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kLinesPerThread));
}

// A console that throws something other than the platform exception.
class ForeignThrowingConsole : public ::testing::Test {
protected:
    void SetUp() override
    {
        testsupport::useCommandLineSettings({"-AppType", kTestAppType, "-LogLevel", "0"});
        platform::ConsoleLog::setSinkForTesting(
            [](const std::string& message) { throw std::runtime_error("console gone: " + message); });
    }
    void TearDown() override { platform::ConsoleLog::setSinkForTesting(nullptr); }
};

TEST_F(ForeignThrowingConsole, PassesThroughLog)
{
    EXPECT_THROW(QELBase::log("message", -1), std::runtime_error);
}

TEST_F(ForeignThrowingConsole, PassesThroughLogErrorCode)
{
    EXPECT_THROW(QELBase::logErrorCode(1950), std::runtime_error);
}

TEST_F(ForeignThrowingConsole, PassesThroughLogErrorString)
{
    EXPECT_THROW(QELBase::logErrorString("text"), std::runtime_error);
}

TEST_F(ForeignThrowingConsole, PassesThroughSetErrorBeforeThePriorErrorIsKept)
{
    EXPECT_THROW(QELBase::setErrorCode(1950), std::runtime_error);
    EXPECT_FALSE(QELBase::error().has_value());
}

TEST_F(ForeignThrowingConsole, PassesThroughRaiseWithErrorCode)
{
    EXPECT_THROW(QELBase::raiseWithErrorCode(1950), std::runtime_error);
}

TEST_F(ForeignThrowingConsole, PassesThroughRaiseAndLogErrorCode)
{
    EXPECT_THROW(QELBase::raiseAndLogErrorCode(1950), std::runtime_error);
}

TEST_F(ForeignThrowingConsole, PassesThroughHandleRaise)
{
    EXPECT_THROW(QELBase::handleRaise(platform::Exception("NSRangeException", "out"), 1881), std::runtime_error);
}

TEST_F(ForeignThrowingConsole, PassesThroughTheVerifyFunctions)
{
    EXPECT_THROW(QELBVerifyLogAndMaybeRaise(0, 1953, 0), std::runtime_error);
    EXPECT_THROW(QELBVerifyWithErrorAndString(0, 1537, std::nullopt, std::string("message")), std::runtime_error);
}

TEST_F(ForeignThrowingConsole, PassesThroughForcedChecks)
{
    testsupport::useCommandLineSettings({"-AppType", kTestAppType, "-ForceError", "1874"});
    EXPECT_THROW(QELBase::condShouldTriggerErrorCode(true, 1874), std::runtime_error);
}

TEST_F(ForeignThrowingConsole, LeavesTheLockFreeForOtherThreads)
{
    QELBase::init();
    EXPECT_THROW(QELBase::setErrorCode(1950), std::runtime_error);
    auto other = std::async(std::launch::async, [] { return QELBase::error().has_value(); });
    ASSERT_EQ(other.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_FALSE(other.get());
    QELBase::terminate();
}

// A console that throws the platform exception: logging swallows it.
class PlatformThrowingConsole : public ::testing::Test {
protected:
    void SetUp() override
    {
        testsupport::useCommandLineSettings({"-AppType", kTestAppType, "-LogLevel", "0"});
        platform::ConsoleLog::setSinkForTesting(
            [](const std::string&) { platform::Exception::raise("NSFileHandleOperationException", "closed"); });
    }
    void TearDown() override { platform::ConsoleLog::setSinkForTesting(nullptr); }
};

TEST_F(PlatformThrowingConsole, LoggingNeverRaisesToItsCaller)
{
    EXPECT_NO_THROW(QELBase::log("message", -1));
    EXPECT_NO_THROW(QELBase::logErrorCode(1950));
    EXPECT_NO_THROW(QELBase::logErrorString("text"));
}

TEST_F(PlatformThrowingConsole, SetErrorStillKeepsTheFirstError)
{
    EXPECT_NO_THROW(QELBase::setErrorCode(1950));
    ASSERT_TRUE(QELBase::error().has_value());
    EXPECT_EQ(QELBase::error()->code(), 1950);
}

TEST_F(PlatformThrowingConsole, TheRaisesStillHappen)
{
    try {
        QELBase::raiseWithErrorCode(1950);
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "QELFatalException");
        EXPECT_EQ(exception.userInfo().count("QELErrorKey"), 1U);
    }
    try {
        QELBase::raiseAndLogErrorCode(1951);
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "QELNonFatalException");
    }
}

}  // namespace
