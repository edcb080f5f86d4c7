// Runs the running test again in a process of its own: in this executable,
// or in a copy of it placed elsewhere (say inside an X.app/Contents/MacOS
// folder) for behaviour that depends on where the running executable lives.
#pragma once

#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace platformtests {

inline std::string runningExecutable()
{
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

inline std::string runningTestName()
{
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    return std::string(info->test_suite_name()) + "." + info->name();
}

// Copies the running executable to destination, creating its folders.
inline void copyRunningExecutable(const std::string& destination)
{
    std::filesystem::create_directories(std::filesystem::path(destination).parent_path());
    std::filesystem::copy_file(runningExecutable(), destination, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::permissions(destination, std::filesystem::perms::owner_all);
}

// Runs the running test alone in executable with the extra environment
// entries ("NAME=value"); its exit status, -1 when it did not exit normally.
inline int runRunningTestIn(const std::string& executable, const std::vector<std::string>& extraEnvironment)
{
    std::vector<std::string> arguments = {executable, "--gtest_filter=" + runningTestName()};
    std::vector<std::string> environment = extraEnvironment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        environment.emplace_back(*entry);
    }
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (auto& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    envp.reserve(environment.size() + 1);
    for (auto& entry : environment) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    pid_t child = 0;
    if (posix_spawn(&child, executable.c_str(), nullptr, nullptr, argv.data(), envp.data()) != 0) {
        return -1;
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

// The value of an environment variable, or "" when it is not set.
inline std::string environmentValue(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace platformtests
