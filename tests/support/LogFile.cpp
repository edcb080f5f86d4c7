#include "tests/support/LogFile.h"

#include <gtest/gtest.h>

#include <optional>

#include "base/QELBase.h"
#include "tests/support/RunCopyOfSelf.h"
#include "tests/support/TempDir.h"

namespace testsupport {

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
