#include "tests/support/RunCopyOfSelf.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <iostream>
#include <system_error>

#include "tests/support/Subprocess.h"

namespace testsupport {

std::string runningExecutable()
{
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

std::string runningTestName()
{
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    return std::string(info->test_suite_name()) + "." + info->name();
}

void copyRunningExecutable(const std::string& destination)
{
    std::filesystem::create_directories(std::filesystem::path(destination).parent_path());
    std::filesystem::copy_file(runningExecutable(), destination, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::permissions(destination, std::filesystem::perms::owner_all);
}

int runRunningTestIn(const std::string& executable, const std::vector<std::string>& extraEnvironment)
{
    CommandOptions options;
    options.extraEnvironment = extraEnvironment;
    RunResult result;
    try {
        result = runCommand({executable, "--gtest_filter=" + runningTestName()}, options);
    } catch (const std::system_error&) {
        return -1;
    }
    std::cout << result.standardOutput << result.standardError << std::flush;
    return result.signaled ? -1 : result.exitStatus;
}

std::string environmentValue(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace testsupport
