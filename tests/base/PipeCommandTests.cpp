// qelutil pipe-send and pipe-receive as two real processes joined by a shell
// pipe inside the sandbox: ordinary commands, every control command, a
// writer that stops without a line feed, and the command lines they accept.
#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/support/Lines.h"
#include "tests/support/Sandbox.h"

namespace {

using testsupport::anyLineEndsWith;
using testsupport::linesOf;
using testsupport::RunResult;
using testsupport::Sandbox;

const std::string kQelutil = Sandbox::kQelutilPath;

// A fixture whose home folder has its Library folder, where the log file of
// the reader's messages goes.
class PipeCommands : public testing::Test {
protected:
    void SetUp() override { sandbox.makeDirectory("~/Library"); }

    // Runs a shell command line inside the sandbox; "QELUTIL" stands for qelutil.
    RunResult runShell(const std::string& script) const
    {
        std::string expanded = script;
        for (auto at = expanded.find("QELUTIL"); at != std::string::npos; at = expanded.find("QELUTIL", at)) {
            expanded.replace(at, 7, kQelutil);
            at += kQelutil.size();
        }
        return sandbox.runProgram("/bin/sh", {"-c", expanded});
    }

    RunResult runQelutil(const std::vector<std::string>& arguments) const
    {
        return sandbox.runProgram(kQelutil, arguments);
    }

    // The lines of the log file the reader wrote, "Log created" first.
    std::vector<std::string> logLines() const
    {
        return linesOf(sandbox.readFile("~/Library/Logs/Corvane/Lumidoc Remover Updater.log"));
    }

    Sandbox sandbox;
};

TEST_F(PipeCommands, PipeSendWritesEachCommandAndALineFeed)
{
    const RunResult result = runQelutil({"pipe-send", "abc", "", "two words"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "abc\n\ntwo words\n");
    EXPECT_EQ(result.standardError, "");
}

TEST_F(PipeCommands, OrdinaryCommandsPassFromOneProcessToTheOther)
{
    const RunResult result = runShell("QELUTIL pipe-send one '' three | QELUTIL pipe-receive 3 5");
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "one\n\nthree\n");
    EXPECT_EQ(result.standardError, "");
}

TEST_F(PipeCommands, LogCommandsReachTheReadersLogAndOnlyOrdinaryCommandsArePrinted)
{
    const RunResult result =
        runShell("QELUTIL pipe-send one log-normal 'normal message' log-verbose 'verbose message' two"
                 " | QELUTIL pipe-receive 2 5 -LogLevel 1");
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "one\ntwo\n");
    EXPECT_EQ(result.standardError, "");
    const std::vector<std::string> lines = logLines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_TRUE(anyLineEndsWith({lines[0]}, ": Log created"));
    EXPECT_TRUE(anyLineEndsWith({lines[1]}, ": normal message"));
    EXPECT_TRUE(anyLineEndsWith({lines[2]}, ": verbose message"));
}

TEST_F(PipeCommands, AVerboseMessageStaysOutOfTheLogAtNormalLogLevel)
{
    const RunResult result = runShell("QELUTIL pipe-send log-verbose 'verbose message' log-normal 'normal message' go"
                                      " | QELUTIL pipe-receive 1 5");
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "go\n");
    EXPECT_EQ(result.standardError, "");
    const std::vector<std::string> lines = logLines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(anyLineEndsWith({lines[1]}, ": normal message"));
}

TEST_F(PipeCommands, AWritersErrorIsRaisedInTheReader)
{
    const RunResult result = runShell("QELUTIL pipe-send first error 1234 never | QELUTIL pipe-receive 3 5");
    EXPECT_EQ(result.exitStatus, 70) << result.standardError;
    EXPECT_EQ(result.standardOutput, "first\n");
    const std::vector<std::string> lines = linesOf(result.standardError);
    ASSERT_EQ(lines.size(), 2U) << result.standardError;
    EXPECT_TRUE(anyLineEndsWith({lines[0]}, "] Lumidoc Remover Updater encountered errorCode 1234"));
    EXPECT_EQ(lines[1], "QELFatalException 1234");
}

TEST_F(PipeCommands, AnErrorArgumentThatIsNoNumberRaisesCodeZero)
{
    const RunResult result = runShell("QELUTIL pipe-send error oops | QELUTIL pipe-receive 1 5");
    EXPECT_EQ(result.exitStatus, 70) << result.standardError;
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError, "QELFatalException 0\n");
}

TEST_F(PipeCommands, AWriterThatClosesWithoutALineFeedEndsTheReaderAtItsDeadline)
{
    const auto start = std::chrono::steady_clock::now();
    const RunResult result = runShell("printf 'no line feed' | QELUTIL pipe-receive 1 1");
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(result.exitStatus, 70) << result.standardError;
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(linesOf(result.standardError).back(), "QELFatalException 1852");
    EXPECT_TRUE(anyLineEndsWith(linesOf(result.standardError), "] Lumidoc Remover Updater encountered errorCode 1852"));
    EXPECT_GE(elapsed, std::chrono::milliseconds(1000));
    EXPECT_LT(elapsed, std::chrono::seconds(6));
}

TEST_F(PipeCommands, ANegativeDeadlineHasPassedBeforeAnythingIsRead)
{
    const RunResult result = runShell("QELUTIL pipe-send ready | QELUTIL pipe-receive 1 -1");
    EXPECT_EQ(result.exitStatus, 70) << result.standardError;
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(linesOf(result.standardError).back(), "QELFatalException 1852");
}

TEST_F(PipeCommands, PipeReceiveWithoutSecondsWaitsForTheCommands)
{
    const RunResult result = runShell("(sleep 0.3; QELUTIL pipe-send late) | QELUTIL pipe-receive 1");
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "late\n");
}

TEST_F(PipeCommands, ACountOfZeroReadsNothing)
{
    const RunResult result = runQelutil({"pipe-receive", "0", "-1"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "");
}

TEST_F(PipeCommands, MalformedCommandLinesAreUsageErrors)
{
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"pipe-send"},
             {"pipe-receive"},
             {"pipe-receive", "-1"},
             {"pipe-receive", "x"},
             {"pipe-receive", "1", "soon"},
             {"pipe-receive", "1", "2", "3"},
         }) {
        const RunResult result = runQelutil(arguments);
        EXPECT_EQ(result.exitStatus, 64) << arguments.size() << " " << result.standardError;
        EXPECT_NE(result.standardError.find("usage: qelutil pipe-"), std::string::npos) << result.standardError;
    }
}

}  // namespace
