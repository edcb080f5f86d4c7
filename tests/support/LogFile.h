// The log file as tests read it, and test processes whose log is not set up
// yet.
#pragma once

#include <string>
#include <vector>

#include "tests/support/LogLines.h"

namespace testsupport {

// The contents of this process's log file (QELBase::logFilePath), "" when
// there is none.
std::string logFileContents();

// The test programs with a private home folder set the log file up before
// the first test; a test that needs it not set up yet runs itself again in
// a child where the set-up is skipped:
//
//   if (!runsWithoutLogSetUp()) {
//       EXPECT_EQ(runRunningTestWithoutLogSetUp(), 0);
//       return;
//   }
//   ... the test, in the child ...
inline constexpr char kSkipLogSetUpVariable[] = "TESTSUPPORT_SKIP_LOG_SET_UP";
bool runsWithoutLogSetUp();
int runRunningTestWithoutLogSetUp();

}  // namespace testsupport
