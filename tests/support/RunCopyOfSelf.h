// Runs the running test again in a process of its own: in this executable,
// or in a copy of it placed elsewhere (say inside an X.app/Contents/MacOS
// folder) for behaviour that depends on where the running executable lives.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

std::string runningExecutable();
// "Suite.Name" of the running test.
std::string runningTestName();

// Copies the running executable to destination, creating its folders.
void copyRunningExecutable(const std::string& destination);

// Runs the running test alone in executable with the extra environment
// entries ("NAME=value"); its exit status, -1 when it did not exit normally.
// What the child prints is passed on to this process's standard output.
int runRunningTestIn(const std::string& executable, const std::vector<std::string>& extraEnvironment);

// The value of an environment variable, or "" when it is not set.
std::string environmentValue(const char* name);

}  // namespace testsupport
