// Command pipes in-process, over pipe(2) descriptors: what the writer puts on
// the pipe, how the reader frames lines, its control commands, its deadline
// and how its failures reach the caller.
#include <array>
#include <chrono>
#include <fcntl.h>
#include <functional>
#include <pthread.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/QELBase.h"
#include "base/QELBaseConstants.h"
#include "platform/Date.h"
#include "platform/Error.h"
#include "platform/Exception.h"
#include "tests/support/ConsoleCapture.h"
#include "tests/support/LogFile.h"
#include "tests/support/Descriptor.h"
#include "tests/support/Settings.h"

namespace {

using testsupport::ConsoleCapture;
using testsupport::Descriptor;
using testsupport::fatalErrorCodeRaisedBy;
using testsupport::kTestAppType;

struct Pipe {
    Descriptor readEnd;
    Descriptor writeEnd;
};

Pipe makePipe()
{
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2 failed";
    }
    return Pipe{Descriptor(ends[0]), Descriptor(ends[1])};
}

void writeBytes(const Descriptor& fd, const std::string& bytes)
{
    ASSERT_EQ(::write(fd.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

// Everything still in the pipe; the write end must be closed.
std::string remainingBytes(const Descriptor& fd)
{
    std::string bytes;
    std::array<char, 256> buffer{};
    for (;;) {
        const ssize_t count = ::read(fd.get(), buffer.data(), buffer.size());
        if (count <= 0) {
            return bytes;
        }
        bytes.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

// A pipe holding bytes, its write end already closed.
Pipe pipeHolding(const std::string& bytes)
{
    Pipe pipe = makePipe();
    writeBytes(pipe.writeEnd, bytes);
    pipe.writeEnd.close();
    return pipe;
}

void useSettings(const std::string& logLevel = "0")
{
    testsupport::useCommandLineSettings({"-AppType", kTestAppType, "-LogLevel", logLevel});
}

platform::Date secondsFromNow(double seconds)
{
    return platform::Date::now().addingTimeInterval(seconds);
}

int32_t priorErrorCode()
{
    const std::optional<platform::Error> error = QELBase::error();
    return error ? error->code() : 0;
}

// The messages the log file gains from its construction on.
class LogWatch {
public:
    LogWatch() : theBefore(testsupport::logFileContents()) {}
    std::vector<std::string> messages() const
    {
        return testsupport::logMessagesOf(testsupport::logFileContents().substr(theBefore.size()));
    }

private:
    std::string theBefore;
};

TEST(Pipes, SendingAbcWritesTheThreeBytesAndALineFeed)
{
    useSettings();
    Pipe pipe = makePipe();
    QELBase::sendCommand("abc", pipe.writeEnd.get());
    pipe.writeEnd.close();
    EXPECT_EQ(remainingBytes(pipe.readEnd), "abc\n");
}

TEST(Pipes, SendingTheEmptyStringWritesALoneLineFeedThatIsReadAsTheEmptyString)
{
    useSettings();
    Pipe pipe = makePipe();
    QELBase::sendCommand("", pipe.writeEnd.get());
    QELBase::sendCommand("next", pipe.writeEnd.get());
    pipe.writeEnd.close();
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "");
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "next");
}

TEST(Pipes, CommandsAreReadInTurnAndNothingPastALineIsTaken)
{
    useSettings();
    const Pipe pipe = pipeHolding("first\nsecond\nrest");
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get(), secondsFromNow(10)), "first");
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get(), secondsFromNow(10)), "second");
    EXPECT_EQ(remainingBytes(pipe.readEnd), "rest");
}

TEST(Pipes, LogVerboseLogsItsMessageAtVerboseLevelAndReturnsTheNextCommand)
{
    useSettings("1");
    const Pipe pipe = pipeHolding("log-verbose\nhello\ngo\n");
    const LogWatch log;
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "go");
    EXPECT_EQ(log.messages(), std::vector<std::string>{"hello"});
}

TEST(Pipes, LogVerboseMessageIsDroppedAtNormalLogLevel)
{
    useSettings("0");
    const Pipe pipe = pipeHolding("log-verbose\nhello\ngo\n");
    const LogWatch log;
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "go");
    EXPECT_TRUE(log.messages().empty());
}

TEST(Pipes, LogNormalLogsItsMessageAtNormalLevelAndReturnsTheNextCommand)
{
    useSettings("0");
    const Pipe pipe = pipeHolding("log-normal\nhello\ngo\n");
    const LogWatch log;
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "go");
    EXPECT_EQ(log.messages(), std::vector<std::string>{"hello"});
}

TEST(Pipes, ALongRunOfLogCommandsIsCarriedOutBeforeTheCommandAfterIt)
{
    useSettings("0");
    std::string bytes;
    for (int i = 0; i < 20000; ++i) {
        bytes += "log-normal\nm\n";
    }
    // More than a pipe holds: the reader gets it from a file instead.
    char path[] = "/tmp/pipe-tests-XXXXXX";
    const Descriptor file(::mkstemp(path));
    ASSERT_TRUE(file.isOpen());
    ::unlink(path);
    writeBytes(file, bytes + "go\n");
    ASSERT_EQ(::lseek(file.get(), 0, SEEK_SET), 0);
    const LogWatch log;
    EXPECT_EQ(QELBase::receiveCommandOnPipe(file.get()), "go");
    EXPECT_EQ(log.messages().size(), 20000U);
}

TEST(Pipes, TheArgumentOfAControlCommandIsReadAsACommandItself)
{
    useSettings("1");
    const Pipe pipe = pipeHolding("log-normal\nlog-verbose\ninner\nouter\nnext\n");
    const LogWatch log;
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "next");
    EXPECT_EQ(log.messages(), (std::vector<std::string>{"inner", "outer"}));
}

TEST(Pipes, ErrorFollowedByACodeRaisesThatCode)
{
    useSettings();
    const Pipe pipe = pipeHolding("error\n1234\nafter\n");
    const ConsoleCapture console;
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(pipe.readEnd.get()); }), 1234);
    EXPECT_EQ(priorErrorCode(), 1234);
    EXPECT_EQ(console.messages(), std::vector<std::string>{"Lumidoc Test Updater encountered errorCode 1234"});
    EXPECT_EQ(remainingBytes(pipe.readEnd), "after\n");
}

TEST(Pipes, AnErrorArgumentThatIsNoNumberRaisesCodeZeroAndLogsNothing)
{
    useSettings();
    const Pipe pipe = pipeHolding("error\nnot a number\n");
    const ConsoleCapture console;
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(pipe.readEnd.get()); }), 0);
    EXPECT_TRUE(QELBase::error().has_value());
    EXPECT_TRUE(console.messages().empty());
}

TEST(Pipes, AnErrorArgumentIsReadUpToItsFirstNonDigit)
{
    useSettings();
    const Pipe pipe = pipeHolding("error\n  -77x9\n");
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(pipe.readEnd.get()); }), -77);
}

TEST(Pipes, AfterAnErrorOfCodeZeroAPassedDeadlineStillEndsTheRead)
{
    useSettings();
    const Pipe pipe = pipeHolding("error\nx\n");
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(pipe.readEnd.get()); }), 0);
    const auto start = std::chrono::steady_clock::now();
    // The first error of the process (code 0) stays the one carried.
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(pipe.readEnd.get(), secondsFromNow(0.3)); }),
              0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
}

TEST(Pipes, ADeadlineAlreadyPastRaises1852WithoutReading)
{
    useSettings();
    const Pipe pipe = pipeHolding("waiting\n");
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(pipe.readEnd.get(), secondsFromNow(-1)); }),
              1852);
    EXPECT_EQ(priorErrorCode(), 1852);
    EXPECT_EQ(remainingBytes(pipe.readEnd), "waiting\n");
}

TEST(Pipes, ACarriageReturnBeforeTheLineFeedStaysPartOfTheLine)
{
    useSettings();
    const Pipe pipe = pipeHolding("abc\r\n");
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "abc\r");
}

TEST(Pipes, ACapitalisedErrorIsAnOrdinaryCommand)
{
    useSettings();
    const Pipe pipe = pipeHolding("Error\n1234\n");
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "Error");
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "1234");
    EXPECT_FALSE(QELBase::error().has_value());
}

TEST(Pipes, AControlCommandWithTrailingBlankIsAnOrdinaryCommand)
{
    useSettings("1");
    const Pipe pipe = pipeHolding("log-normal \nhello\n");
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "log-normal ");
}

TEST(Pipes, AWriterThatClosesWithoutALineFeedLeavesTheReaderPollingUntilItsDeadline)
{
    useSettings();
    const Pipe pipe = pipeHolding("no line feed");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(pipe.readEnd.get(), secondsFromNow(1)); }),
              1852);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(1000));
    EXPECT_LT(elapsed, std::chrono::seconds(4));
}

TEST(Pipes, TheDeadlineAlsoHoldsForTheArgumentOfAControlCommand)
{
    useSettings();
    const Pipe pipe = pipeHolding("error\n");
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(pipe.readEnd.get(), secondsFromNow(0.3)); }),
              1852);
}

TEST(Pipes, APendingErrorIsRaisedAtTheFirstPassBeforeAnythingIsRead)
{
    useSettings();
    const Pipe pipe = pipeHolding("unread\n");
    QELBase::setErrorCode(1536);
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(pipe.readEnd.get()); }), 1536);
    EXPECT_EQ(remainingBytes(pipe.readEnd), "unread\n");
}

TEST(Pipes, AFailedReadRaises1880AsThePendingError)
{
    useSettings();
    Pipe pipe = makePipe();
    const int notOpen = pipe.readEnd.get();
    pipe.readEnd.close();
    const ConsoleCapture console;
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(notOpen, secondsFromNow(10)); }), 1880);
    EXPECT_EQ(priorErrorCode(), 1880);
    EXPECT_EQ(console.messages(), std::vector<std::string>{"Lumidoc Test Updater encountered errorCode 1880"});
    // Still pending: the next read raises it before reading.
    const Pipe other = pipeHolding("unread\n");
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(other.readEnd.get()); }), 1880);
    EXPECT_EQ(remainingBytes(other.readEnd), "unread\n");
}

// A reader that must not block while the writer keeps its end open and
// silent.
Pipe nonBlockingPipe()
{
    Pipe pipe = makePipe();
    EXPECT_EQ(::fcntl(pipe.readEnd.get(), F_SETFL, O_NONBLOCK), 0);
    return pipe;
}

TEST(Pipes, ASilentWriterOnANonBlockingPipeLeavesTheReaderPollingUntilItsDeadline)
{
    useSettings();
    const Pipe pipe = nonBlockingPipe();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(pipe.readEnd.get(), secondsFromNow(0.5)); }),
              1852);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(500));
    EXPECT_LT(elapsed, std::chrono::seconds(3));
}

TEST(Pipes, ACommandArrivingWhileTheReaderPollsIsRead)
{
    useSettings();
    Pipe pipe = nonBlockingPipe();
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        QELBase::sendCommand("late", pipe.writeEnd.get());
    });
    std::string received;
    try {
        received = QELBase::receiveCommandOnPipe(pipe.readEnd.get(), secondsFromNow(10));
    } catch (const platform::Exception& exception) {
        ADD_FAILURE() << exception.name();
    }
    writer.join();
    EXPECT_EQ(received, "late");
}

TEST(Pipes, APartlyReadLineIsLostWhenTheReaderRaises)
{
    useSettings();
    Pipe pipe = nonBlockingPipe();
    writeBytes(pipe.writeEnd, "part");
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(pipe.readEnd.get(), secondsFromNow(0.2)); }),
              1852);
    writeBytes(pipe.writeEnd, "rest\n");
    pipe.writeEnd.close();
    EXPECT_EQ(remainingBytes(pipe.readEnd), "rest\n");
}

TEST(Pipes, AFailedWriteIsNotNoticed)
{
    useSettings();
    Pipe pipe = makePipe();
    const int notOpen = pipe.writeEnd.get();
    pipe.writeEnd.close();
    QELBase::sendCommand("lost", notOpen);
    EXPECT_FALSE(QELBase::error().has_value());
}

TEST(Pipes, BytesAboveSevenBitsAreReadAsTheCharactersOfTheSameValue)
{
    useSettings();
    const Pipe pipe = pipeHolding("caf\xE9 \x80\xFF\n");
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "caf\u00E9 \u0080\u00FF");
}

TEST(Pipes, ALatin1CommandArrivesAsItWasSent)
{
    useSettings();
    Pipe pipe = makePipe();
    QELBase::sendCommand("d\u00E9j\u00E0 vu", pipe.writeEnd.get());
    pipe.writeEnd.close();
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "d\u00E9j\u00E0 vu");
}

TEST(Pipes, TheWriterSendsTheLowByteOfEachUtf16Unit)
{
    useSettings();
    Pipe pipe = makePipe();
    // U+20AC is one unit, 0x20AC; U+1F600 is two, 0xD83D 0xDE00.
    QELBase::sendCommand("\u20AC\U0001F600", pipe.writeEnd.get());
    pipe.writeEnd.close();
    EXPECT_EQ(remainingBytes(pipe.readEnd), std::string("\xAC\x3D\x00\n", 4));
}

TEST(Pipes, ANulByteIsPartOfTheLine)
{
    useSettings();
    const Pipe pipe = pipeHolding(std::string("a\0b\n", 4));
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), std::string("a\0b", 3));
}

TEST(Pipes, ControlCommandsAreNamedExactly)
{
    EXPECT_STREQ(kCommandError, "error");
    EXPECT_STREQ(kCommandLogNormal, "log-normal");
    EXPECT_STREQ(kCommandLogVerbose, "log-verbose");
}

// A file holding bytes, open for reading from its start: more than a pipe
// holds, read by the reader like a pipe whose writer has sent it all.
Descriptor fileHolding(const std::string& bytes)
{
    char path[] = "/tmp/pipe-tests-XXXXXX";
    Descriptor file(::mkstemp(path));
    EXPECT_TRUE(file.isOpen());
    ::unlink(path);
    writeBytes(file, bytes);
    EXPECT_EQ(::lseek(file.get(), 0, SEEK_SET), 0);
    return file;
}

std::string repeated(const std::string& line, int count)
{
    std::string bytes;
    bytes.reserve(line.size() * static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        bytes += line;
    }
    return bytes;
}

// Runs work on a thread whose whole stack is 512 KiB, so a reader that took
// one more frame per control command would overflow it long before the end
// of a run of a million.
void runOnSmallStack(const std::function<void()>& work)
{
    constexpr std::size_t kStackBytes = std::size_t{512} * 1024;
    pthread_attr_t attributes;
    ASSERT_EQ(::pthread_attr_init(&attributes), 0);
    ASSERT_EQ(::pthread_attr_setstacksize(&attributes, kStackBytes), 0);
    pthread_t thread{};
    auto* task = const_cast<std::function<void()>*>(&work);
    const int started = ::pthread_create(
        &thread, &attributes,
        [](void* argument) -> void* {
            (*static_cast<std::function<void()>*>(argument))();
            return nullptr;
        },
        task);
    ::pthread_attr_destroy(&attributes);
    ASSERT_EQ(started, 0);
    ASSERT_EQ(::pthread_join(thread, nullptr), 0);
}

TEST(Pipes, AMillionErrorCommandsInARowRaiseTheCodeAfterThemOnASmallStack)
{
    useSettings();
    const Descriptor file = fileHolding(repeated("error\n", 1000000) + "1234\nafter\n");
    const ConsoleCapture console;
    int32_t raised = -1;
    runOnSmallStack([&] { raised = fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(file.get()); }); });
    // Every "error" took the next one as its argument; the innermost took
    // 1234 and raised it, and nothing past that line was read.
    EXPECT_EQ(raised, 1234);
    EXPECT_EQ(priorErrorCode(), 1234);
    EXPECT_EQ(console.messages(), std::vector<std::string>{"Lumidoc Test Updater encountered errorCode 1234"});
    EXPECT_EQ(remainingBytes(file), "after\n");
}

TEST(Pipes, TwoHundredThousandLogCommandsInARowAreCarriedOutOnASmallStack)
{
    useSettings("0");
    // The verbose messages are dropped at level 0, so the logged lines cost
    // no file writes; the one normal command, the outermost, logs the last
    // message. (A million control lines in a row are read by the test
    // above; this one takes fewer, each with its own message.)
    const Descriptor file =
        fileHolding("log-normal\n" + repeated("log-verbose\n", 199999) + repeated("m\n", 199999) + "last\ngo\n");
    const LogWatch log;
    std::string received;
    runOnSmallStack([&] {
        try {
            received = QELBase::receiveCommandOnPipe(file.get());
        } catch (const platform::Exception& exception) {
            ADD_FAILURE() << exception.name();
        }
    });
    EXPECT_EQ(received, "go");
    EXPECT_EQ(log.messages(), std::vector<std::string>{"last"});
}

TEST(Pipes, NestedControlCommandsTakeTheLinesAfterThemInnermostFirst)
{
    useSettings("1");
    // The innermost log command takes "a"; the one below it then takes "b"
    // and the outermost "c"; "error" after a logged message takes "7".
    const Pipe pipe = pipeHolding("log-normal\nlog-verbose\nlog-normal\na\nb\nc\ngo\n"
                                  "log-verbose\nlog-normal\nx\nerror\n7\nrest\n");
    const ConsoleCapture console;
    const LogWatch log;
    EXPECT_EQ(QELBase::receiveCommandOnPipe(pipe.readEnd.get()), "go");
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELBase::receiveCommandOnPipe(pipe.readEnd.get()); }), 7);
    EXPECT_EQ(log.messages(),
              (std::vector<std::string>{"a", "b", "c", "x", "Lumidoc Test Updater encountered errorCode 7"}));
    EXPECT_EQ(remainingBytes(pipe.readEnd), "rest\n");
}

}  // namespace
