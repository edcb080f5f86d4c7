// The log file's one set-up attempt, in a test process whose log is not set
// up yet (its home folder is a private one, see support/LogFile.h).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/QELBase.h"
#include "platform/User.h"
#include "tests/support/ConsoleCapture.h"
#include "tests/support/LogFile.h"
#include "tests/support/Settings.h"

namespace {

using testsupport::ConsoleCapture;
using testsupport::kTestAppType;

std::string encountered(int code)
{
    return std::string(kTestAppType) + " Updater encountered errorCode " + std::to_string(code);
}

const std::string kSetUpFailed =
    std::string(kTestAppType) + " Updater: exception trying to create log file:\nStopping due to error\n";

bool exists(const std::string& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

TEST(LogFileSetUp, AfterAFailedSetUpNoSecondAttemptIsMadeEvenIfTheCauseGoesAway)
{
    if (!testsupport::runsWithoutLogSetUp()) {
        EXPECT_EQ(testsupport::runRunningTestWithoutLogSetUp(), 0);
        return;
    }
    testsupport::useCommandLineSettings({"-AppType", kTestAppType});
    const std::string library = platform::homeDirectory() + "/Library";
    ASSERT_EQ(::rmdir(library.c_str()), 0);
    const ConsoleCapture console;

    QELBase::log("first", 0);
    // Logged while the set-up ran, before the path was known: the console.
    EXPECT_EQ(console.messages(),
              (std::vector<std::string>{encountered(1538), encountered(1874), kSetUpFailed, "first"}));
    ASSERT_TRUE(QELBase::error().has_value());
    EXPECT_EQ(QELBase::error()->code(), 1538);

    ASSERT_EQ(::mkdir(library.c_str(), 0755), 0);
    QELBase::log("second", 0);
    QELBase::log("third", -1);
    EXPECT_EQ(console.messages(), (std::vector<std::string>{encountered(1538), encountered(1874), kSetUpFailed, "first",
                                                            "second", "third"}));
    EXPECT_FALSE(QELBase::logFilePath().has_value());
    EXPECT_FALSE(exists(library + "/Logs"));
}

TEST(LogFileSetUp, TheFirstMessageSetsTheFileUpAndFollowsLogCreated)
{
    if (!testsupport::runsWithoutLogSetUp()) {
        EXPECT_EQ(testsupport::runRunningTestWithoutLogSetUp(), 0);
        return;
    }
    testsupport::useCommandLineSettings({"-AppType", kTestAppType});
    const std::string path = platform::homeDirectory() + "/Library/Logs/Corvane/" + kTestAppType + " Updater.log";
    EXPECT_FALSE(exists(path));
    const ConsoleCapture console;
    QELBase::log("first", 0);
    EXPECT_TRUE(console.messages().empty());
    EXPECT_EQ(QELBase::logFilePath(), path);
    EXPECT_EQ(testsupport::logMessagesOf(testsupport::logFileContents()),
              (std::vector<std::string>{"Log created", "first"}));
    EXPECT_FALSE(QELBase::error().has_value());
}

}  // namespace
