// The per-user log file as programs leave it: where it lies, its first line
// and its lines, the modes of what is created, rotation at 1 MiB, the checks
// of an existing file and the console fallback, run in the sandbox through
// qelutil (and the remover) with the fixture's home folder as the user's.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/Lines.h"
#include "tests/support/LogLines.h"
#include "tests/support/PrivateMountNamespace.h"
#include "tests/support/RemoverFixture.h"
#include "tests/support/Sandbox.h"
#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"

namespace {

using testsupport::describe;
using testsupport::linesOf;
using testsupport::RunResult;
using testsupport::Sandbox;

constexpr char kLibrary[] = "/root/Library";
constexpr char kLogFolder[] = "/root/Library/Logs/Corvane";
constexpr char kLog[] = "/root/Library/Logs/Corvane/Lumidoc Remover Updater.log";
constexpr char kOldLog[] = "/root/Library/Logs/Corvane/Lumidoc Remover Updater.old.log";
constexpr char kSetUpFailed[] = "Lumidoc Remover Updater: exception trying to create log file:";
constexpr std::size_t kRotationSize = 1048576;

// The messages of the console lines on standard error (after the
// "date time program[pid:tid] " prefix); lines without the prefix, the rest
// of a message that spans lines, are kept as they are.
std::vector<std::string> consoleMessages(const std::string& standardError)
{
    static const std::regex prefix(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [^ ]+\[\d+:\d+\] (.*))");
    std::vector<std::string> messages;
    for (const std::string& text : linesOf(standardError)) {
        std::smatch match;
        messages.push_back(std::regex_match(text, match, prefix) ? std::string(match[1]) : text);
    }
    return messages;
}

std::size_t countOf(const std::vector<std::string>& lines, const std::string& wanted)
{
    std::size_t count = 0;
    for (const auto& text : lines) {
        count += text == wanted ? 1 : 0;
    }
    return count;
}

bool contains(const std::vector<std::string>& lines, const std::string& wanted)
{
    return countOf(lines, wanted) > 0;
}

std::string errorLine(int code)
{
    return "Lumidoc Remover Updater encountered errorCode " + std::to_string(code);
}

mode_t modeOf(const std::string& hostPath)
{
    struct stat status {};
    EXPECT_EQ(::lstat(hostPath.c_str(), &status), 0) << hostPath;
    return status.st_mode & 07777;
}

// Sets or clears the file system's immutable flag of a file on this
// machine; the reason when it cannot.
std::string setImmutableFlag(const std::string& hostPath, bool immutable)
{
    const int fd = ::open(hostPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return std::string("open: ") + std::strerror(errno);
    }
    std::string why;
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) {
        why = std::string("FS_IOC_GETFLAGS: ") + std::strerror(errno);
    } else {
        flags = immutable ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
        if (::ioctl(fd, FS_IOC_SETFLAGS, &flags) != 0) {
            why = std::string("FS_IOC_SETFLAGS: ") + std::strerror(errno);
        }
    }
    ::close(fd);
    return why;
}

// Makes sure files of the fixture's home folder can be marked immutable. The
// fixture lies on the build folder's file system; where that one has no
// immutable flag (tmpfs may not), a small ext4 image is mounted over the
// fixture's home folder, which the sandbox then binds as it is. Only in a
// child in a private mount namespace (the mount goes with it). Empty when it
// worked.
std::string makeHomeImmutableCapable(const Sandbox& sandbox)
{
    const std::string home = sandbox.hostPath("/root");
    const std::string probe = home + "/.immutable-probe";
    testsupport::writeFile(probe, "");
    const std::string why = setImmutableFlag(probe, true);
    setImmutableFlag(probe, false);
    ::unlink(probe.c_str());
    if (why.empty()) {
        return "";
    }
    const std::string image = sandbox.root() + "/home.ext4";
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"/usr/bin/truncate", "-s", "16M", image},
          std::vector<std::string>{"/usr/sbin/mkfs.ext4", "-q", "-F", image},
          std::vector<std::string>{"/usr/bin/mount", "-o", "loop", image, home}}) {
        const RunResult result = testsupport::runCommand(command);
        if (result.exitStatus != 0) {
            return "no immutable flag (" + why + "), and " + command[0] + " failed: " + result.standardError;
        }
    }
    return "";
}

// A file of the fixture made immutable for as long as this lives, so that
// the fixture can still be removed afterwards.
class ImmutableFile {
public:
    ImmutableFile(const Sandbox& sandbox, const std::string& path) : theHostPath(sandbox.hostPath(path))
    {
        theError = setImmutableFlag(theHostPath, true);
    }
    ~ImmutableFile() { setImmutableFlag(theHostPath, false); }
    ImmutableFile(const ImmutableFile&) = delete;
    ImmutableFile& operator=(const ImmutableFile&) = delete;

    // Empty when the flag is set.
    const std::string& error() const { return theError; }

private:
    std::string theHostPath;
    std::string theError;
};

// The fixture's home folder with its Library folder, as every user's has.
class LogFile : public ::testing::Test {
protected:
    void SetUp() override { sandbox.makeDirectory(kLibrary); }
    // Runs `check`, a test that marks a file immutable, where the fixture's
    // home folder can take the flag: in a child in a private mount
    // namespace, which may mount an image over the home folder.
    void inImmutableCapableHome(const std::function<void()>& check)
    {
        testsupport::expectInPrivateMountNamespace([this, &check] {
            ASSERT_EQ(makeHomeImmutableCapable(sandbox), "");
            sandbox.makeDirectory(kLibrary);
            check();
        });
    }

    RunResult qelutil(const std::vector<std::string>& arguments) const
    {
        return sandbox.runProgram(Sandbox::kQelutilPath, arguments);
    }
    RunResult log(const std::string& message, const std::vector<std::string>& settings = {}) const
    {
        std::vector<std::string> arguments{"log", "0", message};
        arguments.insert(arguments.end(), settings.begin(), settings.end());
        return qelutil(arguments);
    }
    std::vector<std::string> messagesIn(const std::string& path) const
    {
        return testsupport::logMessagesOf(sandbox.readFile(path));
    }
    // A log of exactly size bytes: whole lines of the format, the last one
    // padded.
    std::string logOfSize(std::size_t size) const
    {
        std::string contents = "2026-11-21 04:37:11 +0000: Log created\n";
        const std::string head = "2026-11-21 04:37:11 +0000: ";
        const std::string line = head + std::string(200, 'x') + "\n";
        while (contents.size() + line.size() + head.size() + 2 <= size) {
            contents += line;
        }
        contents += head + std::string(size - contents.size() - head.size() - 1, 'y') + "\n";
        EXPECT_EQ(contents.size(), size);
        return contents;
    }

    Sandbox sandbox;
};

TEST_F(LogFile, ANewLogBeginsWithLogCreatedFollowedByTheMessage)
{
    const RunResult result = log("first message");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(messagesIn(kLog), (std::vector<std::string>{"Log created", "first message"}));
    EXPECT_EQ(result.standardError, "");
}

TEST_F(LogFile, LinesAreAppendedInOrderAcrossRuns)
{
    ASSERT_EQ(log("one").exitStatus, 0);
    ASSERT_EQ(log("two").exitStatus, 0);
    ASSERT_EQ(log("three, with ünïcödé").exitStatus, 0);
    EXPECT_EQ(messagesIn(kLog), (std::vector<std::string>{"Log created", "one", "two", "three, with ünïcödé"}));
}

TEST_F(LogFile, TheFileIsNamedAfterTheApplicationType)
{
    ASSERT_EQ(log("typed", {"-AppType", "Other Tool"}).exitStatus, 0);
    EXPECT_EQ(messagesIn(std::string(kLogFolder) + "/Other Tool Updater.log"),
              (std::vector<std::string>{"Log created", "typed"}));
    EXPECT_FALSE(sandbox.exists(kLog));
}

TEST_F(LogFile, ALevelZeroMessageIsWrittenToTheFileOnly)
{
    const RunResult result = qelutil({"log", "0", "normal message"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_TRUE(contains(messagesIn(kLog), "normal message"));
    EXPECT_FALSE(contains(consoleMessages(result.standardError), "normal message")) << describe(result);
}

TEST_F(LogFile, ALevelMinusOneMessageIsWrittenToTheFileAndShownOnTheConsole)
{
    const RunResult result = qelutil({"log", "-1", "error message"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_TRUE(contains(messagesIn(kLog), "error message"));
    EXPECT_EQ(consoleMessages(result.standardError), std::vector<std::string>{"error message"});
}

TEST_F(LogFile, LogLevelOneWritesLevelOneMessages)
{
    ASSERT_EQ(qelutil({"log", "1", "verbose one", "-LogLevel", "1"}).exitStatus, 0);
    ASSERT_EQ(qelutil({"log", "1", "verbose dropped"}).exitStatus, 0);
    EXPECT_EQ(messagesIn(kLog), (std::vector<std::string>{"Log created", "verbose one"}));
}

class LogLevelOutOfRange : public LogFile, public ::testing::WithParamInterface<std::string> {};

TEST_P(LogLevelOutOfRange, BehavesAsLogLevelZero)
{
    ASSERT_EQ(qelutil({"log", "1", "verbose", "-LogLevel", GetParam()}).exitStatus, 0);
    ASSERT_EQ(qelutil({"log", "0", "normal", "-LogLevel", GetParam()}).exitStatus, 0);
    EXPECT_EQ(messagesIn(kLog), (std::vector<std::string>{"Log created", "normal"}));
}

INSTANTIATE_TEST_SUITE_P(LogFile, LogLevelOutOfRange, ::testing::Values("2", "-1", "verbose"), [](const auto& info) {
    return std::string(info.index == 0 ? "Two" : info.index == 1 ? "MinusOne" : "NotANumber");
});

TEST_F(LogFile, LogPathPrintsThePathOfTheLog)
{
    const RunResult result = qelutil({"log-path"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, std::string(kLog) + "\n");
    EXPECT_EQ(messagesIn(kLog), std::vector<std::string>{"Log created"});
}

TEST_F(LogFile, TheLogAndItsFoldersGetModeSevenHundred)
{
    ASSERT_EQ(log("x").exitStatus, 0);
    EXPECT_EQ(modeOf(sandbox.hostPath("/root/Library/Logs")), 0700U);
    EXPECT_EQ(modeOf(sandbox.hostPath(kLogFolder)), 0700U);
    EXPECT_EQ(modeOf(sandbox.hostPath(kLog)), 0700U);
}

TEST_F(LogFile, ARestrictiveUmaskStillGivesAWritableLogAndModeSevenHundred)
{
    const std::string command = std::string("umask 0277 && ") + Sandbox::kQelutilPath + " log 0 first && " +
                                Sandbox::kQelutilPath + " log 0 second";
    const RunResult result = sandbox.runProgram("/bin/sh", {"-c", command});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(modeOf(sandbox.hostPath("/root/Library/Logs")), 0700U);
    EXPECT_EQ(modeOf(sandbox.hostPath(kLogFolder)), 0700U);
    EXPECT_EQ(modeOf(sandbox.hostPath(kLog)), 0700U);
    EXPECT_EQ(messagesIn(kLog), (std::vector<std::string>{"Log created", "first", "second"}));
    EXPECT_EQ(result.standardError, "");
}

// Rotation ------------------------------------------------------------------

TEST_F(LogFile, ALogOfExactlyOneMebibyteIsRotated)
{
    const std::string full = logOfSize(kRotationSize);
    sandbox.makeDirectory(kLogFolder, 0700);
    sandbox.writeFile(kLog, full, 0700);
    const RunResult result = log("after rotation");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(sandbox.readFile(kOldLog), full);
    EXPECT_EQ(messagesIn(kLog), (std::vector<std::string>{"Log created", "after rotation"}));
    EXPECT_EQ(modeOf(sandbox.hostPath(kLog)), 0700U);
}

TEST_F(LogFile, ALogOneByteShortOfOneMebibyteIsNotRotated)
{
    const std::string almost = logOfSize(kRotationSize - 1);
    sandbox.makeDirectory(kLogFolder, 0700);
    sandbox.writeFile(kLog, almost, 0700);
    const RunResult result = log("appended");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_FALSE(sandbox.exists(kOldLog));
    const std::string contents = sandbox.readFile(kLog);
    ASSERT_GT(contents.size(), almost.size());
    EXPECT_EQ(contents.substr(0, almost.size()), almost);
    EXPECT_EQ(testsupport::logMessagesOf(contents.substr(almost.size())), std::vector<std::string>{"appended"});
}

TEST_F(LogFile, AnExistingOldLogIsReplacedAtRotation)
{
    const std::string full = logOfSize(kRotationSize + 10);
    sandbox.makeDirectory(kLogFolder, 0700);
    sandbox.writeFile(kOldLog, "2026-11-20 00:00:00 +0000: older still\n", 0700);
    sandbox.writeFile(kLog, full, 0700);
    ASSERT_EQ(log("fresh").exitStatus, 0);
    EXPECT_EQ(sandbox.readFile(kOldLog), full);
    EXPECT_EQ(messagesIn(kLog), (std::vector<std::string>{"Log created", "fresh"}));
}

TEST_F(LogFile, IfTheOldLogCannotBeDeletedTheCurrentLogKeepsGrowing)
{
    inImmutableCapableHome([this] {
        const std::string full = logOfSize(kRotationSize);
        const std::string older = "2026-11-20 00:00:00 +0000: older still\n";
        sandbox.makeDirectory(kLogFolder, 0700);
        sandbox.writeFile(kOldLog, older, 0700);
        sandbox.writeFile(kLog, full, 0700);
        const ImmutableFile pinned(sandbox, kOldLog);
        ASSERT_EQ(pinned.error(), "") << "the build folder's file system must support the immutable flag";

        for (const char* message : {"first run", "second run"}) {
            const RunResult result = log(message);
            ASSERT_EQ(result.exitStatus, 0) << describe(result);
            // The deletion's failure is logged while the path is known, so into
            // the current log; the set-up then gives up and the message goes to
            // the console.
            const auto console = consoleMessages(result.standardError);
            EXPECT_TRUE(contains(console, errorLine(1865))) << describe(result);
            EXPECT_EQ(countOf(console, kSetUpFailed), 1U) << describe(result);
            EXPECT_TRUE(contains(console, message)) << describe(result);
        }
        EXPECT_EQ(sandbox.readFile(kOldLog), older);
        const std::string contents = sandbox.readFile(kLog);
        ASSERT_GT(contents.size(), full.size());
        EXPECT_EQ(contents.substr(0, full.size()), full);
        EXPECT_EQ(testsupport::logMessagesOf(contents.substr(full.size())),
                  (std::vector<std::string>{errorLine(1865), errorLine(1865)}));
    });
}

TEST_F(LogFile, AForcedFailureToDeleteTheOldLogSkipsTheRotation)
{
    const std::string full = logOfSize(kRotationSize);
    sandbox.makeDirectory(kLogFolder, 0700);
    sandbox.writeFile(kLog, full, 0700);
    const RunResult result = log("message", {"-ForceError", "1865"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_FALSE(sandbox.exists(kOldLog));
    const auto console = consoleMessages(result.standardError);
    EXPECT_EQ(countOf(console, kSetUpFailed), 1U) << describe(result);
    EXPECT_TRUE(contains(console, "message")) << describe(result);
    const std::string contents = sandbox.readFile(kLog);
    EXPECT_EQ(contents.substr(0, full.size()), full);
    EXPECT_EQ(testsupport::logMessagesOf(contents.substr(full.size())), std::vector<std::string>{errorLine(1865)});
}

TEST_F(LogFile, AnImmutableLogIsNotRotatedAndLoggingGoesToTheConsole)
{
    inImmutableCapableHome([this] {
        const std::string full = logOfSize(kRotationSize);
        sandbox.makeDirectory(kLogFolder, 0700);
        sandbox.writeFile(kLog, full, 0700);
        std::string after;
        {
            const ImmutableFile pinned(sandbox, kLog);
            ASSERT_EQ(pinned.error(), "") << "the build folder's file system must support the immutable flag";
            const RunResult result = log("message");
            ASSERT_EQ(result.exitStatus, 0) << describe(result);
            const auto console = consoleMessages(result.standardError);
            // The log cannot take the error line either: it goes to the console.
            EXPECT_EQ(countOf(console, errorLine(1558)), 1U) << describe(result);
            EXPECT_EQ(countOf(console, kSetUpFailed), 1U) << describe(result);
            EXPECT_TRUE(contains(console, "message")) << describe(result);
        }
        EXPECT_EQ(sandbox.readFile(kLog), full);
        EXPECT_FALSE(sandbox.exists(kOldLog));
    });
}

// One forced failure of the set-up: the error line it logs, whether that
// line reaches the log file, and that the set-up gives up.
struct ForcedSetUpFailure {
    const char* name;
    const char* code;
    int loggedCode;
    // Whether the log is full (so the rotation runs) before the run.
    bool fullLog;
};

class ForcedSetUpFailureTest : public LogFile, public ::testing::WithParamInterface<ForcedSetUpFailure> {};

TEST_P(ForcedSetUpFailureTest, IsLoggedAndSendsTheProcessToTheConsole)
{
    const ForcedSetUpFailure& failure = GetParam();
    const std::string start = failure.fullLog ? logOfSize(kRotationSize) : "2026-11-21 04:37:11 +0000: Log created\n";
    sandbox.makeDirectory(kLogFolder, 0700);
    sandbox.writeFile(kLog, start, 0700);
    const RunResult result = log("message", {"-ForceError", failure.code});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const auto console = consoleMessages(result.standardError);
    EXPECT_TRUE(contains(console, errorLine(failure.loggedCode))) << describe(result);
    EXPECT_EQ(countOf(console, kSetUpFailed), 1U) << describe(result);
    EXPECT_TRUE(contains(console, "message")) << describe(result);
    // The path was known when the error was logged: the line is in the log
    // at the path, never the message itself.
    const auto messages = messagesIn(kLog);
    EXPECT_TRUE(contains(messages, errorLine(failure.loggedCode)));
    EXPECT_FALSE(contains(messages, "message"));
    EXPECT_EQ(qelutil({"log-path", "-ForceError", failure.code}).standardOutput, "\n");
}

INSTANTIATE_TEST_SUITE_P(LogFile, ForcedSetUpFailureTest,
                         ::testing::Values(ForcedSetUpFailure{"ImmutableAttributeNotANumber", "1536", 1536, true},
                                           ForcedSetUpFailure{"LogImmutable", "1558", 1558, true},
                                           ForcedSetUpFailure{"PermissionsUnreadable", "1959", 1959, false},
                                           ForcedSetUpFailure{"NotOwnerWritable", "1960", 1960, false}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(LogFile, AForcedMoveFailureComesAfterTheMoveAndLeavesNoLogAtThePath)
{
    const std::string full = logOfSize(kRotationSize);
    sandbox.makeDirectory(kLogFolder, 0700);
    sandbox.writeFile(kLog, full, 0700);
    const RunResult result = log("message", {"-ForceError", "1866"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // The check follows the move, which happened: the error line finds no
    // file at the path and goes to the console with everything after it.
    EXPECT_EQ(sandbox.readFile(kOldLog), full);
    EXPECT_FALSE(sandbox.exists(kLog));
    const auto console = consoleMessages(result.standardError);
    EXPECT_EQ(countOf(console, errorLine(1866)), 1U) << describe(result);
    EXPECT_EQ(countOf(console, kSetUpFailed), 1U) << describe(result);
    EXPECT_TRUE(contains(console, "message")) << describe(result);
}

// Checks of an existing log ---------------------------------------------------

TEST_F(LogFile, ALogWithoutOwnerWritePermissionSendsAllLoggingToTheConsoleWithOneMessage)
{
    const std::string start = "2026-11-21 04:37:11 +0000: Log created\n";
    sandbox.makeDirectory(kLogFolder, 0700);
    sandbox.writeFile(kLog, start, 0500);
    const RunResult result = qelutil({"log", "-1", "first", "second", "third"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const auto console = consoleMessages(result.standardError);
    EXPECT_EQ(countOf(console, kSetUpFailed), 1U) << describe(result);
    EXPECT_TRUE(contains(console, errorLine(1960))) << describe(result);
    for (const char* message : {"first", "second", "third"}) {
        EXPECT_EQ(countOf(console, message), 1U) << message << "\n" << describe(result);
    }
    // Only the error line, logged while the path was still known, reached the
    // file; root may write to it whatever its mode.
    EXPECT_EQ(messagesIn(kLog), (std::vector<std::string>{"Log created", errorLine(1960)}));
    EXPECT_EQ(modeOf(sandbox.hostPath(kLog)), 0500U);
}

TEST_F(LogFile, ALogWhoseSizeCannotBeReadIsLoggedDeletedAndCreatedAnew)
{
    sandbox.makeDirectory(kLogFolder, 0700);
    sandbox.writeFile(kLog, "2026-11-21 04:37:11 +0000: old contents\n", 0700);
    const RunResult result = log("message", {"-ForceError", "1953"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // 1953 less 91: logged into the old file, which is then deleted.
    EXPECT_TRUE(contains(consoleMessages(result.standardError), errorLine(1862))) << describe(result);
    EXPECT_EQ(messagesIn(kLog), (std::vector<std::string>{"Log created", "message"}));
    EXPECT_EQ(modeOf(sandbox.hostPath(kLog)), 0700U);
}

TEST_F(LogFile, ALogWithoutASizeIsLoggedWithItsOwnCode)
{
    sandbox.makeDirectory(kLogFolder, 0700);
    sandbox.writeFile(kLog, "2026-11-21 04:37:11 +0000: old contents\n", 0700);
    const RunResult result = log("message", {"-ForceError", "1954"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_TRUE(contains(consoleMessages(result.standardError), errorLine(1863))) << describe(result);
    EXPECT_EQ(messagesIn(kLog), (std::vector<std::string>{"Log created", "message"}));
}

TEST_F(LogFile, AnUnreadableSizeWhoseLogCannotBeDeletedSendsTheProcessToTheConsole)
{
    inImmutableCapableHome([this] {
        sandbox.makeDirectory(kLogFolder, 0700);
        const std::string start = "2026-11-21 04:37:11 +0000: old contents\n";
        sandbox.writeFile(kLog, start, 0700);
        const ImmutableFile pinned(sandbox, kLog);
        ASSERT_EQ(pinned.error(), "") << "the build folder's file system must support the immutable flag";
        const RunResult result = log("message", {"-ForceError", "1953"});
        ASSERT_EQ(result.exitStatus, 0) << describe(result);
        const auto console = consoleMessages(result.standardError);
        EXPECT_TRUE(contains(console, errorLine(1862))) << describe(result);
        EXPECT_TRUE(contains(console, errorLine(1864))) << describe(result);
        EXPECT_EQ(countOf(console, kSetUpFailed), 1U) << describe(result);
        EXPECT_TRUE(contains(console, "message")) << describe(result);
        EXPECT_EQ(sandbox.readFile(kLog), start);
    });
}

// Failures before the path is known ------------------------------------------

TEST_F(LogFile, ALogFolderThatCannotBeCreatedSendsEverythingToTheConsole)
{
    sandbox.remove(kLibrary);
    const RunResult result = log("message");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const auto console = consoleMessages(result.standardError);
    EXPECT_TRUE(contains(console, errorLine(1874))) << describe(result);
    EXPECT_EQ(countOf(console, kSetUpFailed), 1U) << describe(result);
    EXPECT_TRUE(contains(console, "message")) << describe(result);
    EXPECT_FALSE(sandbox.exists("/root/Library"));
    EXPECT_EQ(qelutil({"log-path"}).standardOutput, "\n");
}

TEST_F(LogFile, AForcedLogFolderFailureSendsEverythingToTheConsole)
{
    const RunResult result = log("message", {"-ForceError", "1874"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const auto console = consoleMessages(result.standardError);
    EXPECT_TRUE(contains(console, errorLine(1874))) << describe(result);
    EXPECT_EQ(countOf(console, kSetUpFailed), 1U) << describe(result);
    EXPECT_TRUE(contains(console, "message")) << describe(result);
    EXPECT_FALSE(sandbox.exists(kLog));
}

TEST_F(LogFile, WithoutAnApplicationTypeEverythingGoesToTheConsole)
{
    // A bundle copy whose information names no application type.
    sandbox.useBundleCopy();
    const std::string info = "/opt/RemoverTool.app/Contents/Info.plist";
    std::string plist = sandbox.readFile(info);
    const std::string key = "<key>AppType</key>";
    const auto at = plist.find(key);
    ASSERT_NE(at, std::string::npos);
    plist.replace(at, key.size(), "<key>SomethingElse</key>");
    sandbox.writeFile(info, plist);

    const RunResult result = log("message");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const auto console = consoleMessages(result.standardError);
    EXPECT_EQ(countOf(console, "??? Updater: exception trying to create log file:"), 1U) << describe(result);
    EXPECT_TRUE(contains(console, "message")) << describe(result);
    EXPECT_FALSE(sandbox.exists(kLogFolder));
    const RunResult path = qelutil({"log-path"});
    EXPECT_EQ(path.standardOutput, "\n") << describe(path);
}

TEST_F(LogFile, AUserWithoutAnAccountHasNoLibraryFolderAndLogsToTheConsole)
{
    const RunResult result = sandbox.runProgramAs(testsupport::User{12345, 12345}, Sandbox::kQelutilPath,
                                                  {"log", "0", "message", "-AppType", "Lumidoc Remover"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const auto console = consoleMessages(result.standardError);
    EXPECT_TRUE(contains(console, errorLine(1847))) << describe(result);
    EXPECT_EQ(countOf(console, kSetUpFailed), 1U) << describe(result);
    EXPECT_TRUE(contains(console, "message")) << describe(result);
}

TEST_F(LogFile, ALibraryEntryThatIsNoTextIsReportedWithTheNextCode)
{
    // Forced, the first check of the Library folder look-up fails with the
    // code the set-up gives it; the second code is the one after it.
    const RunResult result = log("message", {"-ForceError", "1848"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const auto console = consoleMessages(result.standardError);
    EXPECT_TRUE(contains(console, errorLine(1848))) << describe(result);
    EXPECT_EQ(countOf(console, kSetUpFailed), 1U) << describe(result);
    EXPECT_FALSE(sandbox.exists(kLogFolder));
}

TEST_F(LogFile, ALineTheFileCannotTakeGoesToTheConsole)
{
    // The log is a folder: the set-up passes its checks, but no line can be
    // opened for writing there.
    sandbox.makeDirectory(kLog, 0700);
    const RunResult result = log("message");
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(consoleMessages(result.standardError), std::vector<std::string>{"message"}) << describe(result);
}

// The remover -------------------------------------------------------------------

TEST_F(LogFile, TheRemoversFailureRoadWritesTheErrorLineToTheLogOfTheUserWhoRunsIt)
{
    testsupport::installApp(sandbox, testsupport::kDefaultApp);
    const RunResult result = sandbox.run({"x", testsupport::kDefaultApp, "-ForceError", "1844"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(messagesIn(kLog), (std::vector<std::string>{"Log created", errorLine(1844)}));
    EXPECT_TRUE(contains(consoleMessages(result.standardError), errorLine(1844))) << describe(result);
    EXPECT_EQ(modeOf(sandbox.hostPath(kLog)), 0700U);
}

}  // namespace
