#include "tests/support/LogLines.h"

#include <gtest/gtest.h>

#include <regex>

#include "tests/support/Lines.h"

namespace testsupport {

std::vector<std::string> logMessagesOf(const std::string& contents)
{
    static const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d [+-]\d{4}: (.*))");
    EXPECT_TRUE(contents.empty() || contents.back() == '\n') << "unfinished last line";
    std::vector<std::string> messages;
    for (const std::string& text : linesOf(contents)) {
        std::smatch match;
        if (std::regex_match(text, match, line)) {
            messages.push_back(match[1]);
        } else {
            ADD_FAILURE() << "not a log line: " << text;
        }
    }
    return messages;
}

}  // namespace testsupport
