#include "platform/Text.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace {

using platform::appendEscapingControlCharacters;
using platform::componentsSeparatedByString;
using platform::containsString;
using platform::dataUsingUTF8Encoding;
using platform::escapingControlCharacters;
using platform::hasPrefix;
using platform::integerValue;
using platform::intValue;
using platform::isValidUTF8;
using platform::replacingPercentEscapes;
using platform::stringFromNumber;
using platform::utf8StringOrNull;

TEST(ComponentsSeparatedByString, KeepsEmptyComponentsAtEndsAndBetweenSeparators)
{
    EXPECT_EQ(componentsSeparatedByString("/a//b/", "/"), (std::vector<std::string>{"", "a", "", "b", ""}));
}

TEST(ComponentsSeparatedByString, SplitsOnAMultiByteSeparator)
{
    EXPECT_EQ(componentsSeparatedByString("a\r\nb\r\n", "\r\n"), (std::vector<std::string>{"a", "b", ""}));
}

TEST(ComponentsSeparatedByString, WithoutSeparatorGivesTheWholeText)
{
    EXPECT_EQ(componentsSeparatedByString("abc", ","), (std::vector<std::string>{"abc"}));
    EXPECT_EQ(componentsSeparatedByString("", ","), (std::vector<std::string>{""}));
}

TEST(ComponentsSeparatedByString, EmptySeparatorGivesTheWholeText)
{
    EXPECT_EQ(componentsSeparatedByString("a,b", ""), (std::vector<std::string>{"a,b"}));
}

TEST(IntegerValue, StopsAtTheFirstNonDigit)
{
    EXPECT_EQ(integerValue("10.0.3"), 10);
    EXPECT_EQ(integerValue("10b2"), 10);
}

TEST(IntegerValue, IsZeroWithoutDigits)
{
    EXPECT_EQ(integerValue("x"), 0);
    EXPECT_EQ(integerValue(""), 0);
    EXPECT_EQ(integerValue("-"), 0);
    EXPECT_EQ(integerValue("  "), 0);
}

TEST(IntegerValue, AllowsLeadingBlanksAndASign)
{
    EXPECT_EQ(integerValue("  \t42"), 42);
    EXPECT_EQ(integerValue(" -17"), -17);
    EXPECT_EQ(integerValue("+8"), 8);
}

TEST(IntegerValue, DoesNotSkipBlanksBetweenSignAndDigits)
{
    EXPECT_EQ(integerValue("- 5"), 0);
}

TEST(IntegerValue, ReadsThe64BitLimitsExactly)
{
    EXPECT_EQ(integerValue("9223372036854775807"), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(integerValue("-9223372036854775808"), std::numeric_limits<int64_t>::min());
}

TEST(IntegerValue, SaturatesPastThe64BitRange)
{
    EXPECT_EQ(integerValue("9223372036854775808"), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(integerValue("123456789012345678901234567890"), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(integerValue("-9223372036854775809"), std::numeric_limits<int64_t>::min());
}

TEST(StringFromNumber, WritesIntegersInFull)
{
    EXPECT_EQ(stringFromNumber(int64_t{42}), "42");
    EXPECT_EQ(stringFromNumber(int64_t{-7}), "-7");
    EXPECT_EQ(stringFromNumber(std::numeric_limits<int64_t>::min()), "-9223372036854775808");
}

TEST(StringFromNumber, WritesARealInItsShortestExactForm)
{
    EXPECT_EQ(stringFromNumber(2.5), "2.5");
    EXPECT_EQ(stringFromNumber(0.1), "0.1");
    EXPECT_EQ(stringFromNumber(-2.9), "-2.9");
    EXPECT_EQ(stringFromNumber(10.0), "10");
}

TEST(StringFromNumber, AWholeRealOfSevenDigitsKeepsEveryDigit)
{
    EXPECT_EQ(stringFromNumber(1234567.0), "1234567");
}

TEST(StringFromNumber, AVeryLargeOrSmallRealUsesAnExponent)
{
    EXPECT_EQ(stringFromNumber(1e30), "1e+30");
    EXPECT_EQ(stringFromNumber(-2.2250738585072014e-308), "-2.2250738585072014e-308");
}

TEST(IntValue, ReadsLikeIntegerValue)
{
    EXPECT_EQ(intValue("10.0.3"), 10);
    EXPECT_EQ(intValue("10b2"), 10);
    EXPECT_EQ(intValue("x"), 0);
    EXPECT_EQ(intValue(""), 0);
    EXPECT_EQ(intValue(" -3"), -3);
}

TEST(IntValue, ClampsToThe32BitRange)
{
    EXPECT_EQ(intValue("2147483647"), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(intValue("2147483648"), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(intValue("99999999999999999999"), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(intValue("-2147483648"), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(intValue("-2147483649"), std::numeric_limits<int32_t>::min());
}

TEST(ReplacingPercentEscapes, DecodesAnEscapedSpace)
{
    EXPECT_EQ(replacingPercentEscapes("A%20B"), std::optional<std::string>("A B"));
}

TEST(ReplacingPercentEscapes, DecodesMultiByteUTF8AndEitherHexCase)
{
    EXPECT_EQ(replacingPercentEscapes("caf%C3%A9"), std::optional<std::string>("caf\xC3\xA9"));
    EXPECT_EQ(replacingPercentEscapes("caf%c3%a9"), std::optional<std::string>("caf\xC3\xA9"));
}

TEST(ReplacingPercentEscapes, LeavesTextWithoutEscapesAsIs)
{
    EXPECT_EQ(replacingPercentEscapes("/tmp/plain"), std::optional<std::string>("/tmp/plain"));
    EXPECT_EQ(replacingPercentEscapes(""), std::optional<std::string>(""));
}

TEST(ReplacingPercentEscapes, IsNoneWhenTheBytesAreNotUTF8)
{
    EXPECT_EQ(replacingPercentEscapes("A%FFB"), std::nullopt);
    EXPECT_EQ(replacingPercentEscapes("%C3"), std::nullopt);
    EXPECT_EQ(replacingPercentEscapes("%C0%80"), std::nullopt);
}

TEST(ReplacingPercentEscapes, IsNoneForAMalformedEscape)
{
    EXPECT_EQ(replacingPercentEscapes("A%G1"), std::nullopt);
    EXPECT_EQ(replacingPercentEscapes("A%2"), std::nullopt);
    EXPECT_EQ(replacingPercentEscapes("A%"), std::nullopt);
}

TEST(ReplacingPercentEscapes, DecodesAnEscapedPercentOnlyOnce)
{
    EXPECT_EQ(replacingPercentEscapes("100%2541"), std::optional<std::string>("100%41"));
}

TEST(HasPrefix, TrueForAMatchingStart)
{
    EXPECT_TRUE(hasPrefix("/Applications/X.app", "/Applications/"));
    EXPECT_TRUE(hasPrefix("abc", "abc"));
}

TEST(HasPrefix, FalseForALongerOrDifferentStart)
{
    EXPECT_FALSE(hasPrefix("ab", "abc"));
    EXPECT_FALSE(hasPrefix("xabc", "abc"));
}

TEST(HasPrefix, FalseForAnEmptyPrefix)
{
    EXPECT_FALSE(hasPrefix("abc", ""));
}

TEST(ContainsString, FindsAPartAnywhere)
{
    EXPECT_TRUE(containsString("one two three", "two"));
    EXPECT_TRUE(containsString("one", "one"));
    EXPECT_FALSE(containsString("one two", "four"));
}

TEST(ContainsString, FalseForAnEmptyPart)
{
    EXPECT_FALSE(containsString("abc", ""));
}

TEST(IsValidUTF8, AcceptsAsciiAndWellFormedSequences)
{
    EXPECT_TRUE(isValidUTF8(""));
    EXPECT_TRUE(isValidUTF8("plain"));
    EXPECT_TRUE(isValidUTF8("\xC3\xA9"));
    EXPECT_TRUE(isValidUTF8("\xE3\x80\x80"));
    EXPECT_TRUE(isValidUTF8("\xF0\x9F\x98\x80"));
    EXPECT_TRUE(isValidUTF8("\xF4\x8F\xBF\xBF"));
}

TEST(IsValidUTF8, RejectsStrayAndTruncatedBytes)
{
    EXPECT_FALSE(isValidUTF8("\xFF"));
    EXPECT_FALSE(isValidUTF8("\x80"));
    EXPECT_FALSE(isValidUTF8("a\xC3"));
    EXPECT_FALSE(isValidUTF8("\xE3\x80"));
    EXPECT_FALSE(isValidUTF8("\xC3\x41"));
}

TEST(IsValidUTF8, RejectsOverlongsSurrogatesAndValuesPastTheLastCodePoint)
{
    EXPECT_FALSE(isValidUTF8("\xC0\xAF"));
    EXPECT_FALSE(isValidUTF8("\xE0\x80\xAF"));
    EXPECT_FALSE(isValidUTF8("\xED\xA0\x80"));
    EXPECT_FALSE(isValidUTF8("\xF4\x90\x80\x80"));
}

TEST(DataUsingUTF8Encoding, GivesTheBytesOfValidText)
{
    const auto data = dataUsingUTF8Encoding("a\xC3\xA9");
    ASSERT_TRUE(data.has_value());
    EXPECT_EQ(*data, (std::vector<uint8_t>{0x61, 0xC3, 0xA9}));
}

TEST(DataUsingUTF8Encoding, IsNoneForInvalidUTF8)
{
    EXPECT_EQ(dataUsingUTF8Encoding("a\xFF"), std::nullopt);
}

TEST(Utf8StringOrNull, PrintsNullForAnAbsentString)
{
    EXPECT_STREQ(utf8StringOrNull(std::nullopt), "(null)");
}

TEST(Utf8StringOrNull, PrintsThePresentString)
{
    const std::optional<std::string> text("hello");
    EXPECT_STREQ(utf8StringOrNull(text), "hello");
    char line[32] = {};
    std::snprintf(line, sizeof line, "[%s]", utf8StringOrNull(std::optional<std::string>("")));
    EXPECT_STREQ(line, "[]");
}

TEST(HexDigitValue, DigitsOfEitherCaseHaveTheirValues)
{
    EXPECT_EQ(platform::hexDigitValue('0'), 0);
    EXPECT_EQ(platform::hexDigitValue('9'), 9);
    EXPECT_EQ(platform::hexDigitValue('a'), 10);
    EXPECT_EQ(platform::hexDigitValue('F'), 15);
}

TEST(HexDigitValue, OtherBytesAreMinusOne)
{
    EXPECT_EQ(platform::hexDigitValue('g'), -1);
    EXPECT_EQ(platform::hexDigitValue('%'), -1);
    EXPECT_EQ(platform::hexDigitValue('\0'), -1);
}

TEST(EscapingControlCharacters, ShowsControlCharactersBackslashesAndTheQuoteAndKeepsTheRest)
{
    EXPECT_EQ(escapingControlCharacters("/x\n\x1B[2Ky"), "/x\\n\\x1B[2Ky");
    EXPECT_EQ(escapingControlCharacters("a\rb\tc\x7F\\d"), "a\\rb\\tc\\x7F\\\\d");
    EXPECT_EQ(escapingControlCharacters("it's"), "it's");
    EXPECT_EQ(escapingControlCharacters("it's", '\''), "it\\'s");
    EXPECT_EQ(escapingControlCharacters("caf\xC3\xA9"), "caf\xC3\xA9");
    EXPECT_EQ(escapingControlCharacters(""), "");
}

TEST(AppendEscapingControlCharacters, AppendsWhatEscapingGivesAfterWhatIsThere)
{
    for (const std::string text : {"plain", "\nfirst", "last\x01", "a\\b\\", "\t\t", ""}) {
        std::string out = "before ";
        appendEscapingControlCharacters(out, text);
        EXPECT_EQ(out, "before " + escapingControlCharacters(text)) << text;
    }
    std::string quoted = ">";
    appendEscapingControlCharacters(quoted, "'a'", '\'');
    EXPECT_EQ(quoted, ">\\'a\\'");
}

}  // namespace
