// qelutil as scripts use it: forced errors from the command line, the exit
// statuses and the lines an escaping exception prints.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/base/BaseTestSupport.h"
#include "tests/support/TempDir.h"

namespace {

using basetest::anyLineEndsWith;
using basetest::linesOf;
using basetest::RunResult;

RunResult runQelutil(const std::vector<std::string>& arguments)
{
    const testsupport::TempDir home;
    return basetest::runSandboxed(home.path(), basetest::qelutilPathIn(basetest::bundlePath()), arguments);
}

TEST(Qelutil, ForcedErrorWithSkipCountTwoPassesTwoChecksWithCountsThenFailsTheThird)
{
    const RunResult result = runQelutil({"verify", "1874", "3", "-ForceError", "1874", "-ForceErrorSkipCount", "2"});
    EXPECT_EQ(result.status, 70) << result.err;
    EXPECT_EQ(result.out, "1\n2\n");
    std::vector<std::string> forcedMessages;
    for (const auto& line : linesOf(result.err)) {
        const auto at = line.find("Error 1874 forced for testing");
        if (at != std::string::npos) {
            forcedMessages.push_back(line.substr(at));
        }
    }
    EXPECT_EQ(forcedMessages, (std::vector<std::string>{"Error 1874 forced for testing but count only 1 out of 3",
                                                        "Error 1874 forced for testing but count only 2 out of 3",
                                                        "Error 1874 forced for testing"}));
    EXPECT_TRUE(anyLineEndsWith(linesOf(result.err), "Lumidoc Remover Updater encountered errorCode 1874"));
    EXPECT_EQ(linesOf(result.err).back(), "QELFatalException 1874");
}

TEST(Qelutil, ForceErrorWithoutSkipCountFailsTheFirstMatchingPassingCheck)
{
    const RunResult result = runQelutil({"verify", "1874", "2", "-ForceError", "1874"});
    EXPECT_EQ(result.status, 70) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(anyLineEndsWith(linesOf(result.err), "] Error 1874 forced for testing"));
    EXPECT_EQ(linesOf(result.err).back(), "QELFatalException 1874");
}

TEST(Qelutil, ChecksOfOtherCodesPassWhileAnErrorIsForced)
{
    const RunResult result = runQelutil({"verify", "1536", "2", "-ForceError", "1874"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "1\n2\n");
    EXPECT_EQ(result.err, "");
}

TEST(Qelutil, AppTypePrintsTheTypeAndExitsZero)
{
    const RunResult result = runQelutil({"app-type"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "Lumidoc Remover\n");
}

TEST(Qelutil, EscapingFatalExceptionPrintsItsCodeAndExits70)
{
    const RunResult result = runQelutil({"raise", "1852"});
    EXPECT_EQ(result.status, 70);
    EXPECT_EQ(result.out, "");
    const std::vector<std::string> lines = linesOf(result.err);
    ASSERT_EQ(lines.size(), 2U) << result.err;
    EXPECT_TRUE(anyLineEndsWith({lines[0]}, "] Lumidoc Remover Updater encountered errorCode 1852"));
    EXPECT_EQ(lines[1], "QELFatalException 1852");
}

TEST(Qelutil, EscapingNonFatalExceptionPrintsItsNameAndExits71)
{
    const RunResult result = runQelutil({"raise-non-fatal", "1866"});
    EXPECT_EQ(result.status, 71);
    const std::vector<std::string> lines = linesOf(result.err);
    ASSERT_EQ(lines.size(), 2U) << result.err;
    EXPECT_TRUE(anyLineEndsWith({lines[0]}, "] Lumidoc Remover Updater encountered errorCode 1866"));
    EXPECT_EQ(lines[1], "QELNonFatalException");
}

TEST(Qelutil, NoCommandExits64WithUsage)
{
    const RunResult result = runQelutil({});
    EXPECT_EQ(result.status, 64);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("usage: qelutil"), std::string::npos) << result.err;
}

TEST(Qelutil, UnknownCommandExits64WithUsage)
{
    const RunResult result = runQelutil({"no-such-command"});
    EXPECT_EQ(result.status, 64);
    EXPECT_NE(result.err.find("usage: qelutil"), std::string::npos) << result.err;
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
        EXPECT_EQ(result.status, 64) << arguments.front();
        EXPECT_NE(result.err.find("usage: qelutil " + arguments.front()), std::string::npos) << result.err;
    }
}

TEST(Qelutil, SettingsStartAtTheFirstHyphenFollowedByALetter)
{
    // "-1" is a level, not a setting: the message is logged at level -1.
    const RunResult result = runQelutil({"log", "-1", "disk full", "-LogLevel", "0"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    const std::vector<std::string> lines = linesOf(result.err);
    ASSERT_EQ(lines.size(), 1U) << result.err;
    EXPECT_TRUE(anyLineEndsWith(lines, "] disk full"));
}

TEST(Qelutil, LogWritesLevelOneOnlyWithLogLevelOne)
{
    const RunResult quiet = runQelutil({"log", "1", "detail", "-LogLevel", "0"});
    EXPECT_EQ(quiet.status, 0);
    EXPECT_EQ(quiet.err, "");
    const RunResult verbose = runQelutil({"log", "1", "detail", "-LogLevel", "1"});
    EXPECT_EQ(verbose.status, 0);
    EXPECT_TRUE(anyLineEndsWith(linesOf(verbose.err), "] detail")) << verbose.err;
}

TEST(Qelutil, ArgumentsAfterTheFirstSettingAreAllSettings)
{
    // "app-type" after a setting is not a command: there is none.
    const RunResult result = runQelutil({"-AppType", "X", "app-type"});
    EXPECT_EQ(result.status, 64);
}

}  // namespace
