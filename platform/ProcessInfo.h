// The process's own arguments: those main hands over through setArguments;
// when nothing has been handed over before the first question, the ones the
// kernel keeps for the process (/proc/self/cmdline, each argument ended by a
// NUL byte), read once.
#pragma once

#include <string>
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
};

}  // namespace platform
