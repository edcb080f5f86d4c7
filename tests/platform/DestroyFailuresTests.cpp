#include <gtest/gtest.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <system_error>
#include <vector>

#include "platform/DestroyFailures.h"
#include "tests/support/ConsoleCapture.h"

namespace {

using platform::DestroyFailures;

struct LineCase {
    const char* name;
    std::string path;
    std::string reason;
    std::size_t others;
    // Written out by hand, escapes as the preview shows them.
    std::string expected;
};

// Test names show the case by its name.
void PrintTo(const LineCase& item, std::ostream* out)
{
    *out << item.name;
}

class NotRemovedLine : public testing::TestWithParam<LineCase> {};

TEST_P(NotRemovedLine, IsOnePlainLine)
{
    const LineCase& item = GetParam();
    const std::string text = DestroyFailures::line(item.path, item.reason, item.others);
    EXPECT_EQ(text, item.expected);
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    DestroyFailures, NotRemovedLine,
    testing::Values(
        LineCase{"PlainPathAndReason", "/x/y", "Read-only file system", 0, "not removed: /x/y: Read-only file system"},
        LineCase{"PathAlone", "/x/y", "", 0, "not removed: /x/y"},
        LineCase{"OthersCounted", "/x/y", "a mount point", 2, "not removed: /x/y: a mount point (and 2 more)"},
        LineCase{"LineFeed", "/x/a\nnot removed: /etc", "a mount point", 0,
                 "not removed: /x/a\\nnot removed: /etc: a mount point"},
        LineCase{"EscapeSequence", "/x/a\x1B]0;T\x07\r\x1B[2KRemoved /etc/passwd", "a mount point", 0,
                 "not removed: /x/a\\x1B]0;T\\x07\\r\\x1B[2KRemoved /etc/passwd: a mount point"},
        LineCase{"TabDelAndBackslash", std::string("/x/a\tb\x7F\\c"), "", 0, "not removed: /x/a\\tb\\x7F\\\\c"},
        LineCase{"NonAsciiStays", "/x/caf\xC3\xA9", "", 0, "not removed: /x/caf\xC3\xA9"}),
    [](const testing::TestParamInfo<LineCase>& info) { return std::string(info.param.name); });

TEST(DestroyFailuresLog, NamesTheFirstItemThatStayedAndCountsTheOthers)
{
    const testsupport::ConsoleCapture console;
    DestroyFailures failures;
    const auto handler = failures.handler();
    handler("/x/y/a\nb", std::make_error_code(std::errc::read_only_file_system));
    handler("/x/y/c", std::make_error_code(std::errc::device_or_resource_busy));
    handler("/x/y/d", std::make_error_code(std::errc::device_or_resource_busy));
    failures.log("/x/y");
    const std::string reason = std::make_error_code(std::errc::read_only_file_system).message();
    EXPECT_EQ(console.messages(), std::vector<std::string>{"not removed: /x/y/a\\nb: " + reason + " (and 2 more)"});
}

TEST(DestroyFailuresLog, WithoutAnItemNamesTheDestroyedPathEscaped)
{
    const testsupport::ConsoleCapture console;
    const DestroyFailures failures;
    failures.log("/x/\x1B[2Ky");
    EXPECT_EQ(console.messages(), std::vector<std::string>{"not removed: /x/\\x1B[2Ky"});
}

}  // namespace
