// Seccomp filters for sandboxed runs (sandbox.sh run --seccomp FILE): they
// make one system call fail with a chosen errno, so a test can show how a
// program behaves on a kernel that lacks what that call provides.
#pragma once

#include <string>

namespace testsupport {

// Writes to `path` a compiled filter (cBPF, as bubblewrap's --seccomp reads
// it) that fails the system call numbered `syscallNumber` with `errorNumber`
// and lets every other call through. Calls of another architecture than
// this build's are let through unchanged.
void writeSyscallRefusal(const std::string& path, long syscallNumber, int errorNumber);

}  // namespace testsupport
