// The process's own arguments, as main received them.
#pragma once

#include <string>
#include <vector>

namespace platform {

class ProcessInfo {
public:
    ProcessInfo() = delete;

    // main hands its arguments over before anything reads them.
    static void setArguments(int argc, const char* const* argv);
    static void setArguments(std::vector<std::string> arguments);
    static const std::vector<std::string>& arguments();
    // The last path component of the first argument, or "" with none.
    static std::string processName();
};

}  // namespace platform
