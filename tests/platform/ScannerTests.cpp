#include "platform/Scanner.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using platform::Scanner;

// Every line a scanner gives when reading up to "\n" until the end.
std::vector<std::string> scanLines(const std::string& text)
{
    Scanner scanner(text);
    std::vector<std::string> lines;
    std::string line;
    while (!scanner.isAtEnd()) {
        if (!scanner.scanUpToString("\n", &line)) {
            break;
        }
        lines.push_back(line);
    }
    return lines;
}

TEST(Scanner, TakesTextUpToTheStopString)
{
    Scanner scanner("first\nsecond");
    std::string taken;
    ASSERT_TRUE(scanner.scanUpToString("\n", &taken));
    EXPECT_EQ(taken, "first");
    EXPECT_EQ(scanner.scanLocation(), 5U);
}

TEST(Scanner, TakesTheRestWhenTheStopStringIsAbsent)
{
    Scanner scanner("only line");
    std::string taken;
    ASSERT_TRUE(scanner.scanUpToString("\n", &taken));
    EXPECT_EQ(taken, "only line");
    EXPECT_TRUE(scanner.isAtEnd());
}

TEST(Scanner, SkipsBlankLinesBetweenLines)
{
    EXPECT_EQ(scanLines("a\n\n\nb\n"), (std::vector<std::string>{"a", "b"}));
}

TEST(Scanner, SkipsLeadingBlanksAndTabsOfALine)
{
    EXPECT_EQ(scanLines("  \t first\n\t\tsecond\n"), (std::vector<std::string>{"first", "second"}));
}

TEST(Scanner, KeepsBlanksInsideAndAtTheEndOfATakenRun)
{
    EXPECT_EQ(scanLines("a b \nc"), (std::vector<std::string>{"a b ", "c"}));
}

TEST(Scanner, ReadsTabSeparatedFields)
{
    Scanner scanner("name\tvalue\tmore\n");
    std::string field;
    ASSERT_TRUE(scanner.scanUpToString("\t", &field));
    EXPECT_EQ(field, "name");
    ASSERT_TRUE(scanner.scanUpToString("\t", &field));
    EXPECT_EQ(field, "value");
    ASSERT_TRUE(scanner.scanUpToString("\t", &field));
    EXPECT_EQ(field, "more\n");
    EXPECT_TRUE(scanner.isAtEnd());
}

TEST(Scanner, KeepsACarriageReturnBeforeTheLineEndInTheLine)
{
    EXPECT_EQ(scanLines("one\r\ntwo\r\n"), (std::vector<std::string>{"one\r", "two\r"}));
}

TEST(Scanner, SkipsACarriageReturnAtTheStartOfALine)
{
    EXPECT_EQ(scanLines("one\n\r\r\ntwo"), (std::vector<std::string>{"one", "two"}));
}

TEST(Scanner, SkipsUnicodeSpaces)
{
    // U+00A0 no-break space, U+3000 ideographic space, U+2028 line separator.
    EXPECT_EQ(scanLines("\xC2\xA0"
                        "a\n\xE3\x80\x80"
                        "b\n\xE2\x80\xA8"
                        "c"),
              (std::vector<std::string>{"a", "b", "c"}));
}

TEST(Scanner, IsAtEndWhenOnlySkippableCharactersRemain)
{
    Scanner scanner("word \n\t\r\n\xC2\x85\xE2\x80\x80\xE3\x80\x80");
    std::string taken;
    ASSERT_TRUE(scanner.scanUpToString(" ", &taken));
    EXPECT_EQ(taken, "word");
    EXPECT_TRUE(scanner.isAtEnd());
}

TEST(Scanner, IsNotAtEndBeforeAVisibleCharacter)
{
    Scanner scanner(" \n x");
    EXPECT_FALSE(scanner.isAtEnd());
}

TEST(Scanner, EmptyTextIsAtEndAndTakesNothing)
{
    Scanner scanner("");
    EXPECT_TRUE(scanner.isAtEnd());
    std::string taken = "unchanged";
    EXPECT_FALSE(scanner.scanUpToString("\n", &taken));
    EXPECT_EQ(taken, "unchanged");
}

TEST(Scanner, IsAtEndDoesNotMoveTheLocation)
{
    Scanner scanner("   x");
    EXPECT_FALSE(scanner.isAtEnd());
    EXPECT_EQ(scanner.scanLocation(), 0U);
}

TEST(Scanner, TakingNothingLeavesLocationAndResultUnchanged)
{
    Scanner scanner("  \nrest");
    std::string taken = "unchanged";
    EXPECT_FALSE(scanner.scanUpToString("rest", &taken));
    EXPECT_EQ(taken, "unchanged");
    EXPECT_EQ(scanner.scanLocation(), 0U);
}

TEST(Scanner, TakingNothingAtTheEndLeavesTheLocationBeforeTheBlanks)
{
    Scanner scanner("a \n ");
    std::string taken;
    ASSERT_TRUE(scanner.scanUpToString(" ", &taken));
    EXPECT_EQ(scanner.scanLocation(), 1U);
    EXPECT_FALSE(scanner.scanUpToString(" ", &taken));
    EXPECT_EQ(taken, "a");
    EXPECT_EQ(scanner.scanLocation(), 1U);
}

TEST(Scanner, DoesNotSkipBytesThatAreNotUTF8)
{
    EXPECT_EQ(scanLines("\xA0x\n"), (std::vector<std::string>{"\xA0x"}));
}

TEST(Scanner, AcceptsANullResultPointer)
{
    Scanner scanner("skip\nkeep");
    EXPECT_TRUE(scanner.scanUpToString("\n", nullptr));
    std::string taken;
    ASSERT_TRUE(scanner.scanUpToString("\n", &taken));
    EXPECT_EQ(taken, "keep");
}

}  // namespace
