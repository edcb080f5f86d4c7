// The console's "not removed" line shows a path's control characters
// escaped, so a name holding a line feed or a terminal's escape sequence
// still gives one plain line on standard error; the status line on standard
// output keeps the path as it is. Each item here stays because it is a mount
// point, in both sandbox layouts.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <tuple>

#include "tests/support/RemoverFixture.h"

namespace {

using namespace testsupport;

struct Case {
    const char* name;
    // What the install log lists.
    const char* listed;
    // The mount point that stays: the listed folder itself or an item in it.
    const char* mountPoint;
    // The console line, escaped by hand: a line feed as \n, ESC as \x1B,
    // BEL as \x07, a carriage return as \r.
    const char* consoleLine;
};

const Case kCases[] = {
    {"LineFeedInANameInsideTheListedFolder", "/Library/Corvane Cache",
     "/Library/Corvane Cache/mnt\nRemoved /etc/passwd",
     "not removed: /Library/Corvane Cache/mnt\\nRemoved /etc/passwd: a mount point\n"},
    {"EscapeSequenceInTheListedPath", "/Library/Corvane\x1B]0;T\x07\x1B[2KCache",
     "/Library/Corvane\x1B]0;T\x07\x1B[2KCache",
     "not removed: /Library/Corvane\\x1B]0;T\\x07\\x1B[2KCache: a mount point\n"},
    {"CarriageReturnAtTheEndOfTheListedPath", "/Library/Corvane Cache\r", "/Library/Corvane Cache\r",
     "not removed: /Library/Corvane Cache\\r: a mount point\n"},
};

// Test names show the case by its name.
void PrintTo(const Case& item, std::ostream* out)
{
    *out << item.name;
}

class NotRemovedLineTest : public testing::TestWithParam<std::tuple<Layout, Case>> {
protected:
    NotRemovedLineTest() : sandbox(std::get<0>(GetParam())) {}

    void SetUp() override { installApp(sandbox, kDefaultApp); }

    Sandbox sandbox;
};

TEST_P(NotRemovedLineTest, ConsoleShowsOneEscapedLineAndStandardOutputThePathAsItIs)
{
    const Case& item = std::get<1>(GetParam());
    sandbox.writeFile("~/Elsewhere/kept", "1");
    sandbox.writeFile(std::string(item.listed) + "/file", "x");
    sandbox.bindFolder("/root/Elsewhere", item.mountPoint);
    sandbox.writeFile(kProductLog, std::string(item.listed) + "\n");

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const QuietRunTail tail = quietRunTail(kDefaultApp);
    EXPECT_EQ(result.standardOutput, line(kCouldNotRemove, item.listed) + line(kRemoved, kProductLog) + tail.agent +
                                         tail.manager + tail.fileList + tail.components + tail.folder)
        << describe(result);
    const std::string::size_type at = result.standardError.find(item.consoleLine);
    ASSERT_NE(at, std::string::npos) << describe(result);
    // The escaped text is the whole message of its console line, right after
    // the line's "PROGRAM[PID:TID] " prefix.
    const std::string::size_type lineEnd = at == 0 ? std::string::npos : result.standardError.rfind('\n', at - 1);
    const std::string::size_type lineStart = lineEnd == std::string::npos ? 0 : lineEnd + 1;
    EXPECT_TRUE(result.standardError.substr(lineStart, at - lineStart).ends_with("] ")) << describe(result);
    // No raw control character of the path reaches standard error.
    EXPECT_EQ(result.standardError.find('\x1B'), std::string::npos) << describe(result);
    EXPECT_EQ(result.standardError.find('\r'), std::string::npos) << describe(result);
    EXPECT_EQ(result.standardError.find("\nRemoved /etc/passwd"), std::string::npos) << describe(result);
    EXPECT_EQ(sandbox.readFile("~/Elsewhere/kept"), "1");
}

INSTANTIATE_TEST_SUITE_P(NotRemovedLine, NotRemovedLineTest,
                         testing::Combine(testing::Values(Layout::SeparateMounts, Layout::SingleDisk),
                                          testing::ValuesIn(kCases)),
                         [](const testing::TestParamInfo<std::tuple<Layout, Case>>& info) {
                             return layoutName(std::get<0>(info.param)) + std::string("_") +
                                    std::get<1>(info.param).name;
                         });

}  // namespace
