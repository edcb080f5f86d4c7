#include "platform/ConsoleLog.h"

#include "platform/ProcessInfo.h"
#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using platform::ConsoleLog;
using platform::ProcessInfo;

// Sends standard error to a file for as long as it lives.
class StandardErrorToFile {
public:
    explicit StandardErrorToFile(const std::string& path)
    {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
        if (fd < 0) {
            throw std::runtime_error("cannot open " + path);
        }
        theSaved = ::dup(STDERR_FILENO);
        ::dup2(fd, STDERR_FILENO);
        ::close(fd);
    }
    ~StandardErrorToFile()
    {
        ::dup2(theSaved, STDERR_FILENO);
        ::close(theSaved);
    }
    StandardErrorToFile(const StandardErrorToFile&) = delete;
    StandardErrorToFile& operator=(const StandardErrorToFile&) = delete;

private:
    int theSaved = -1;
};

std::string idsOfThisThread()
{
    // Appended piece by piece: GCC 12 at -O2 warns (-Wrestrict, a known false
    // positive) about "literal" + std::string&&.
    std::string ids("[");
    ids += std::to_string(getpid());
    ids += ':';
    ids += std::to_string(gettid());
    ids += ']';
    return ids;
}

TEST(ConsoleLog, LineHasDateTimeMillisecondsNameIdsAndMessage)
{
    ProcessInfo::setArguments(std::vector<std::string>{"/usr/local/bin/qelutil"});
    const std::string line = ConsoleLog::formatLine("hello there");
    const std::regex shape(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} qelutil\[\d+:\d+\] hello there\n)");
    EXPECT_TRUE(std::regex_match(line, shape)) << line;
}

TEST(ConsoleLog, LineCarriesThisProcessAndThreadId)
{
    ProcessInfo::setArguments(std::vector<std::string>{"RemoverTool"});
    const std::string mainLine = ConsoleLog::formatLine("m");
    EXPECT_NE(mainLine.find("RemoverTool" + idsOfThisThread() + " m\n"), std::string::npos) << mainLine;

    std::string otherLine;
    std::string otherIds;
    std::thread other([&] {
        otherLine = ConsoleLog::formatLine("m");
        otherIds = idsOfThisThread();
    });
    other.join();
    EXPECT_NE(otherIds, idsOfThisThread());
    EXPECT_NE(otherLine.find("RemoverTool" + otherIds + " m\n"), std::string::npos) << otherLine;
}

TEST(ConsoleLog, MessageEndingInNewlineGetsNoSecondOne)
{
    ProcessInfo::setArguments(std::vector<std::string>{"qelutil"});
    const std::string line = ConsoleLog::formatLine("done\n");
    ASSERT_GE(line.size(), 6U);
    EXPECT_EQ(line.substr(line.size() - 6), " done\n");
}

TEST(ConsoleLog, WritesTheLineToStandardError)
{
    ProcessInfo::setArguments(std::vector<std::string>{"qelutil"});
    testsupport::TempDir dir;
    const std::string path = dir.at("stderr.txt");
    {
        const StandardErrorToFile redirect(path);
        ConsoleLog::log("to the console");
    }
    const std::string written = testsupport::readFile(path);
    const std::regex shape(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} qelutil\[\d+:\d+\] to the console\n)");
    EXPECT_TRUE(std::regex_match(written, shape)) << written;
}

TEST(ConsoleLog, LinesFromManyThreadsDoNotInterleave)
{
    ProcessInfo::setArguments(std::vector<std::string>{"qelutil"});
    testsupport::TempDir dir;
    const std::string path = dir.at("stderr.txt");
    constexpr int threadCount = 8;
    constexpr int linesPerThread = 200;
    {
        const StandardErrorToFile redirect(path);
        std::vector<std::thread> threads;
        threads.reserve(threadCount);
        for (int t = 0; t < threadCount; ++t) {
            threads.emplace_back([t] {
                const std::string message = "thread " + std::to_string(t) + " " + std::string(300, char('a' + t));
                for (int i = 0; i < linesPerThread; ++i) {
                    ConsoleLog::log(message);
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
    }
    const std::string written = testsupport::readFile(path);
    const std::regex shape(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} qelutil\[\d+:\d+\] thread (\d) ([a-h]+))");
    int lines = 0;
    std::size_t start = 0;
    while (start < written.size()) {
        const auto end = written.find('\n', start);
        ASSERT_NE(end, std::string::npos);
        const std::string line = written.substr(start, end - start);
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, shape)) << line;
        const int t = std::stoi(match[1].str());
        EXPECT_EQ(match[2].str(), std::string(300, char('a' + t)));
        ++lines;
        start = end + 1;
    }
    EXPECT_EQ(lines, threadCount * linesPerThread);
}

TEST(ConsoleLog, SinkReceivesTheMessageAloneInsteadOfStandardError)
{
    testsupport::TempDir dir;
    const std::string path = dir.at("stderr.txt");
    std::vector<std::string> received;
    ConsoleLog::setSinkForTesting([&received](const std::string& message) { received.push_back(message); });
    {
        const StandardErrorToFile redirect(path);
        ConsoleLog::log("first");
        ConsoleLog::log("second");
    }
    ConsoleLog::setSinkForTesting({});
    EXPECT_EQ(received, (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(testsupport::readFile(path), "");
}

TEST(ConsoleLog, EmptySinkRestoresStandardError)
{
    ProcessInfo::setArguments(std::vector<std::string>{"qelutil"});
    int calls = 0;
    ConsoleLog::setSinkForTesting([&calls](const std::string&) { ++calls; });
    ConsoleLog::setSinkForTesting({});
    testsupport::TempDir dir;
    const std::string path = dir.at("stderr.txt");
    {
        const StandardErrorToFile redirect(path);
        ConsoleLog::log("back on the console");
    }
    EXPECT_EQ(calls, 0);
    EXPECT_NE(testsupport::readFile(path).find("qelutil["), std::string::npos);
}

TEST(ConsoleLog, SinkCanBeReplacedWhileOtherThreadsLog)
{
    std::mutex lock;
    int delivered = 0;
    const ConsoleLog::Sink counting = [&](const std::string&) {
        const std::lock_guard<std::mutex> guard(lock);
        ++delivered;
    };
    ConsoleLog::setSinkForTesting(counting);
    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers;
    loggers.reserve(3);
    for (int t = 0; t < 3; ++t) {
        loggers.emplace_back([&stop] {
            for (int i = 0; i < 2000; ++i) {
                ConsoleLog::log("x");
            }
            stop = true;
        });
    }
    while (!stop) {
        ConsoleLog::setSinkForTesting(counting);
    }
    for (auto& logger : loggers) {
        logger.join();
    }
    ConsoleLog::setSinkForTesting({});
    EXPECT_EQ(delivered, 3 * 2000);
}

}  // namespace
