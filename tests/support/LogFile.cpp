#include "tests/support/LogFile.h"

#include <gtest/gtest.h>

#include <optional>
#include <regex>

#include "base/QELBase.h"
#include "tests/support/Lines.h"
#include "tests/support/RunCopyOfSelf.h"
#include "tests/support/TempDir.h"

namespace testsupport {

std::vector<std::string> logMessagesOf(const std::string& contents)
{
    static const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d [+-]\d{4}: (.*))");
    EXPECT_TRUE(contents.empty() || contents.back() == '\n') << "unfinished last line";
    std::vector<std::string> messages;
    for (const std::string& text : linesOf(contents)) {
        std::smatch match;
        if (std::regex_match(text, match, line)) {
            messages.push_back(match[1]);
        } else {
            ADD_FAILURE() << "not a log line: " << text;
        }
    }
    return messages;
}

std::string logFileContents()
{
    const std::optional<std::string> path = QELBase::logFilePath();
    return path ? readFile(*path) : std::string();
}

bool runsWithoutLogSetUp()
{
    return !environmentValue(kSkipLogSetUpVariable).empty();
}

int runRunningTestWithoutLogSetUp()
{
    return runRunningTestIn(runningExecutable(), {std::string(kSkipLogSetUpVariable) + "=1"});
}

}  // namespace testsupport
