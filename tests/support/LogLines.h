// The lines of a log file as tests read them, whoever wrote the file (this
// process or a program run in the sandbox).
#pragma once

#include <string>
#include <vector>

namespace testsupport {

// The messages of a log file's lines ("<date description>: <message>"),
// in order; a line of another form fails the running test.
std::vector<std::string> logMessagesOf(const std::string& contents);

}  // namespace testsupport
