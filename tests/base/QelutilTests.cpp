// qelutil as scripts use it: forced errors from the command line, the exit
// statuses and the lines an escaping exception prints.
#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Lines.h"
#include "tests/support/LogFile.h"
#include "tests/support/Sandbox.h"

namespace {

using testsupport::anyLineEndsWith;
using testsupport::linesOf;
using testsupport::RunResult;
using testsupport::Sandbox;

// qelutil of the built bundle over an empty fixture, so that no stored
// setting of this machine takes part; its home folder has the Library
// folder every user has, where the log file goes.
RunResult runQelutil(const std::vector<std::string>& arguments)
{
    const Sandbox sandbox;
    sandbox.makeDirectory("/root/Library");
    return sandbox.runProgram(Sandbox::kQelutilPath, arguments);
}

TEST(Qelutil, ForcedErrorWithSkipCountTwoPassesTwoChecksWithCountsThenFailsTheThird)
{
    const RunResult result = runQelutil({"verify", "1874", "3", "-ForceError", "1874", "-ForceErrorSkipCount", "2"});
    EXPECT_EQ(result.exitStatus, 70) << result.standardError;
    EXPECT_EQ(result.standardOutput, "1\n2\n");
    std::vector<std::string> forcedMessages;
    for (const auto& line : linesOf(result.standardError)) {
        const auto at = line.find("Error 1874 forced for testing");
        if (at != std::string::npos) {
            forcedMessages.push_back(line.substr(at));
        }
    }
    // The fourth: logging the third check's failure sets the log file up,
    // and the check that its folder was made has the same code.
    EXPECT_EQ(forcedMessages,
              (std::vector<std::string>{"Error 1874 forced for testing but count only 1 out of 3",
                                        "Error 1874 forced for testing but count only 2 out of 3",
                                        "Error 1874 forced for testing", "Error 1874 forced for testing"}));
    EXPECT_TRUE(anyLineEndsWith(linesOf(result.standardError), "Lumidoc Remover Updater encountered errorCode 1874"));
    EXPECT_EQ(linesOf(result.standardError).back(), "QELFatalException 1874");
}

TEST(Qelutil, ForceErrorWithoutSkipCountFailsTheFirstMatchingPassingCheck)
{
    const RunResult result = runQelutil({"verify", "1874", "2", "-ForceError", "1874"});
    EXPECT_EQ(result.exitStatus, 70) << result.standardError;
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_TRUE(anyLineEndsWith(linesOf(result.standardError), "] Error 1874 forced for testing"));
    EXPECT_EQ(linesOf(result.standardError).back(), "QELFatalException 1874");
}

TEST(Qelutil, ChecksOfOtherCodesPassWhileAnErrorIsForced)
{
    const RunResult result = runQelutil({"verify", "1536", "2", "-ForceError", "1874"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "1\n2\n");
    EXPECT_EQ(result.standardError, "");
}

TEST(Qelutil, AppTypePrintsTheTypeAndExitsZero)
{
    const RunResult result = runQelutil({"app-type"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "Lumidoc Remover\n");
}

TEST(Qelutil, EscapingFatalExceptionPrintsItsCodeAndExits70)
{
    const RunResult result = runQelutil({"raise", "1852"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.standardOutput, "");
    const std::vector<std::string> lines = linesOf(result.standardError);
    ASSERT_EQ(lines.size(), 2U) << result.standardError;
    EXPECT_TRUE(anyLineEndsWith({lines[0]}, "] Lumidoc Remover Updater encountered errorCode 1852"));
    EXPECT_EQ(lines[1], "QELFatalException 1852");
}

TEST(Qelutil, EscapingNonFatalExceptionPrintsItsNameAndExits71)
{
    const RunResult result = runQelutil({"raise-non-fatal", "1866"});
    EXPECT_EQ(result.exitStatus, 71);
    const std::vector<std::string> lines = linesOf(result.standardError);
    ASSERT_EQ(lines.size(), 2U) << result.standardError;
    EXPECT_TRUE(anyLineEndsWith({lines[0]}, "] Lumidoc Remover Updater encountered errorCode 1866"));
    EXPECT_EQ(lines[1], "QELNonFatalException");
}

TEST(Qelutil, NoCommandExits64WithUsage)
{
    const RunResult result = runQelutil({});
    EXPECT_EQ(result.exitStatus, 64);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_NE(result.standardError.find("usage: qelutil"), std::string::npos) << result.standardError;
}

TEST(Qelutil, UnknownCommandExits64WithUsage)
{
    const RunResult result = runQelutil({"no-such-command"});
    EXPECT_EQ(result.exitStatus, 64);
    EXPECT_NE(result.standardError.find("usage: qelutil"), std::string::npos) << result.standardError;
}

TEST(Qelutil, MalformedArgumentsExit64WithTheCommandsUsage)
{
    for (const auto& arguments : std::vector<std::vector<std::string>>{{"raise"},
                                                                       {"raise", "12x"},
                                                                       {"raise", "1", "2"},
                                                                       {"log", "0"},
                                                                       {"app-type", "extra"},
                                                                       {"verify", "1", "-2"}}) {
        const RunResult result = runQelutil(arguments);
        EXPECT_EQ(result.exitStatus, 64) << arguments.front();
        EXPECT_NE(result.standardError.find("usage: qelutil " + arguments.front()), std::string::npos)
            << result.standardError;
    }
}

// What follows the first line of standard error: the usage, without the
// line that says what was wrong.
std::string usageAfterTheComplaint(const std::string& standardError)
{
    const auto endOfFirstLine = standardError.find('\n');
    return endOfFirstLine == std::string::npos ? std::string() : standardError.substr(endOfFirstLine + 1);
}

TEST(Qelutil, HelpPrintsTheUsageOfAMissingCommandOnStandardOutput)
{
    const RunResult help = runQelutil({"help"});
    const RunResult noCommand = runQelutil({});
    EXPECT_EQ(help.exitStatus, 0) << help.standardError;
    EXPECT_EQ(help.standardError, "");
    EXPECT_EQ(help.standardOutput, noCommand.standardError);
    EXPECT_EQ(help.standardOutput.rfind("usage: qelutil COMMAND", 0), 0U) << help.standardOutput;
}

TEST(Qelutil, HelpListsTheCommandsWithTheirArgumentsOnceSortedByName)
{
    const std::vector<std::string> lines = linesOf(runQelutil({"help"}).standardOutput);
    const std::vector<std::string> someCommands = {"  agent install BUNDLE NAME | agent remove BUNDLE", "  app-type",
                                                   "  help [COMMAND]", "  mkdirs PATH BASE [skip-check]",
                                                   "  sha256 [FILE]"};
    std::vector<std::string> listed;
    for (const auto& line : lines) {
        if (std::find(someCommands.begin(), someCommands.end(), line) != someCommands.end()) {
            listed.push_back(line);
        }
    }
    EXPECT_EQ(listed, someCommands);
}

TEST(Qelutil, UnknownCommandPrintsTheSameUsageAsHelp)
{
    const RunResult unknown = runQelutil({"no-such-command"});
    EXPECT_EQ(unknown.exitStatus, 64);
    EXPECT_EQ(usageAfterTheComplaint(unknown.standardError), runQelutil({"help"}).standardOutput);
}

TEST(Qelutil, HelpOfACommandPrintsTheUsageItsBadCommandLinePrints)
{
    for (const auto& [command, badArguments] :
         std::vector<std::pair<std::string, std::vector<std::string>>>{{"sha256", {"sha256", "a", "b"}},
                                                                       {"raise", {"raise"}},
                                                                       {"mkdirs", {"mkdirs", "/tmp"}},
                                                                       {"help", {"help", "sha256", "raise"}}}) {
        const RunResult help = runQelutil({"help", command});
        const RunResult bad = runQelutil(badArguments);
        EXPECT_EQ(help.exitStatus, 0) << command << ": " << help.standardError;
        EXPECT_EQ(bad.exitStatus, 64) << command;
        EXPECT_EQ(help.standardOutput.rfind("usage: qelutil " + command + " ", 0), 0U) << help.standardOutput;
        EXPECT_EQ(help.standardOutput, usageAfterTheComplaint(bad.standardError)) << command;
    }
}

TEST(Qelutil, HelpOfAnUnknownCommandIsAUsageError)
{
    const RunResult result = runQelutil({"help", "no-such-command"});
    EXPECT_EQ(result.exitStatus, 64);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_NE(result.standardError.find("unknown command \"no-such-command\""), std::string::npos)
        << result.standardError;
    EXPECT_NE(result.standardError.find("usage: qelutil help [COMMAND]"), std::string::npos) << result.standardError;
}

TEST(Qelutil, SettingsStartAtTheFirstHyphenFollowedByALetter)
{
    // "-1" is a level, not a setting: the message is logged at level -1.
    const RunResult result = runQelutil({"log", "-1", "disk full", "-LogLevel", "0"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "");
    const std::vector<std::string> lines = linesOf(result.standardError);
    ASSERT_EQ(lines.size(), 1U) << result.standardError;
    EXPECT_TRUE(anyLineEndsWith(lines, "] disk full"));
}

TEST(Qelutil, LogWritesLevelOneOnlyWithLogLevelOne)
{
    const Sandbox sandbox;
    sandbox.makeDirectory("/root/Library");
    const RunResult quiet = sandbox.runProgram(Sandbox::kQelutilPath, {"log", "1", "quiet", "-LogLevel", "0"});
    EXPECT_EQ(quiet.exitStatus, 0);
    EXPECT_EQ(quiet.standardError, "");
    const RunResult verbose = sandbox.runProgram(Sandbox::kQelutilPath, {"log", "1", "detail", "-LogLevel", "1"});
    EXPECT_EQ(verbose.exitStatus, 0);
    EXPECT_EQ(verbose.standardError, "");
    EXPECT_EQ(testsupport::logMessagesOf(sandbox.readFile("/root/Library/Logs/Corvane/Lumidoc Remover Updater.log")),
              (std::vector<std::string>{"Log created", "detail"}));
}

TEST(Qelutil, LogPathPrintsThePathOrAnEmptyLineAfterAFailedSetUp)
{
    const Sandbox sandbox;
    const RunResult failed = sandbox.runProgram(Sandbox::kQelutilPath, {"log-path"});
    EXPECT_EQ(failed.exitStatus, 0);
    EXPECT_EQ(failed.standardOutput, "\n");
    sandbox.makeDirectory("/root/Library");
    const RunResult path = sandbox.runProgram(Sandbox::kQelutilPath, {"log-path"});
    EXPECT_EQ(path.exitStatus, 0);
    EXPECT_EQ(path.standardOutput, "/root/Library/Logs/Corvane/Lumidoc Remover Updater.log\n");
}

TEST(Qelutil, LogLevelReadsTheSettingWithoutReadingAnUnchangedSettingsFileAgain)
{
    const Sandbox sandbox;
    sandbox.writeFile("/root/Library/Preferences/.GlobalPreferences.plist",
                      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                      "\t<key>LogLevel</key>\n\t<integer>1</integer>\n</dict>\n</plist>\n");
    const RunResult result = sandbox.runProgram(Sandbox::kQelutilPath, {"log-level", "1000"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "1 1\n");
}

TEST(Qelutil, ArgumentsAfterTheFirstSettingAreAllSettings)
{
    // "app-type" after a setting is not a command: there is none.
    const RunResult result = runQelutil({"-AppType", "X", "app-type"});
    EXPECT_EQ(result.exitStatus, 64);
}

}  // namespace
