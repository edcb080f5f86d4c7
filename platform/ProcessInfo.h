// The process's own arguments: those main hands over through setArguments;
// when nothing has been handed over before the first question, the ones the
// kernel keeps for the process (/proc/self/cmdline, each argument ended by a
// NUL byte), read once. Also the process's identifier, environment and
// working folder, and the closing of descriptors it inherited.
#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace platform {

class ProcessInfo {
public:
    ProcessInfo() = delete;

    // main hands its arguments over before anything reads them; a later
    // call replaces them.
    static void setArguments(int argc, const char* const* argv);
    static void setArguments(std::vector<std::string> arguments);
    static const std::vector<std::string>& arguments();
    // The last path component of the first argument, or "" with none.
    static std::string processName();

    // getpid(): 1 for the first process of a PID namespace.
    static pid_t processIdentifier();
    // The value of an environment variable; none when it is not set.
    static std::optional<std::string> environmentValue(const char* name);
    // The working folder (getcwd); none when it cannot be told.
    static std::optional<std::string> currentDirectoryPath();
    // Closes every descriptor above standard error that this process was
    // started with, so that nothing it starts can reach what they lead to.
    // Call it first, before anything of the process's own is opened.
    static void closeInheritedDescriptors();
};

}  // namespace platform
