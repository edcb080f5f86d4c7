#include "platform/ProcessInfo.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using platform::ProcessInfo;

std::vector<std::string> commandLineOfThisProcess()
{
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    const std::string contents((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::vector<std::string> arguments;
    std::string current;
    for (const char c : contents) {
        if (c == '\0') {
            arguments.push_back(current);
            current.clear();
        } else {
            current.push_back(c);
        }
    }
    return arguments;
}

TEST(ProcessInfo, KeepsTheArgumentsHandedOver)
{
    const char* const argv[] = {"/usr/local/bin/qelutil", "--flag", "value with space", nullptr};
    ProcessInfo::setArguments(3, argv);
    EXPECT_EQ(ProcessInfo::arguments(),
              (std::vector<std::string>{"/usr/local/bin/qelutil", "--flag", "value with space"}));
}

TEST(ProcessInfo, KeepsAnArgumentVector)
{
    ProcessInfo::setArguments(std::vector<std::string>{"tool", ""});
    EXPECT_EQ(ProcessInfo::arguments(), (std::vector<std::string>{"tool", ""}));
}

TEST(ProcessInfo, ProcessNameIsTheLastComponentOfTheFirstArgument)
{
    ProcessInfo::setArguments(std::vector<std::string>{"/Applications/Remover.app/Contents/MacOS/RemoverTool", "x"});
    EXPECT_EQ(ProcessInfo::processName(), "RemoverTool");
    ProcessInfo::setArguments(std::vector<std::string>{"./qelutil/"});
    EXPECT_EQ(ProcessInfo::processName(), "qelutil");
}

TEST(ProcessInfo, ProcessNameIsEmptyWithoutArguments)
{
    ProcessInfo::setArguments(std::vector<std::string>{});
    EXPECT_EQ(ProcessInfo::processName(), "");
}

TEST(ProcessInfo, ReadsItsOwnCommandLineWhenNeverHandedArguments)
{
    // A fresh process started by the death-test machinery has never been
    // handed arguments.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const std::vector<std::string> expected = commandLineOfThisProcess();
            const bool same = !expected.empty() && ProcessInfo::arguments() == expected &&
                              ProcessInfo::processName() == "platform_tests";
            std::exit(same ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
