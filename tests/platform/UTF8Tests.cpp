#include "platform/UTF8.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

using platform::appendUTF8;
using platform::decodeUTF8At;

std::string encoded(char32_t codePoint)
{
    std::string out = "<";
    appendUTF8(out, codePoint);
    return out;
}

TEST(DecodeUTF8At, ReadsOneCharacterOfEachLength)
{
    const std::string text = "a\xC3\xA9\xE3\x80\x80\xF0\x9F\x98\x80";
    const auto one = decodeUTF8At(text, 0);
    const auto two = decodeUTF8At(text, 1);
    const auto three = decodeUTF8At(text, 3);
    const auto four = decodeUTF8At(text, 6);
    ASSERT_TRUE(one && two && three && four);
    EXPECT_EQ(one->codePoint, U'a');
    EXPECT_EQ(one->length, 1U);
    EXPECT_EQ(two->codePoint, U'\u00E9');
    EXPECT_EQ(two->length, 2U);
    EXPECT_EQ(three->codePoint, U'\u3000');
    EXPECT_EQ(three->length, 3U);
    EXPECT_EQ(four->codePoint, U'\U0001F600');
    EXPECT_EQ(four->length, 4U);
}

TEST(DecodeUTF8At, IsNoneAtTheEndOfTheText)
{
    EXPECT_FALSE(decodeUTF8At("ab", 2));
    EXPECT_FALSE(decodeUTF8At("", 0));
}

TEST(DecodeUTF8At, RejectsOverlongFormsSurrogatesAndValuesPastTheLastCharacter)
{
    EXPECT_FALSE(decodeUTF8At("\xC0\xAF", 0));
    EXPECT_FALSE(decodeUTF8At("\xE0\x80\xAF", 0));
    EXPECT_FALSE(decodeUTF8At("\xED\xA0\x80", 0));
    EXPECT_FALSE(decodeUTF8At("\xF4\x90\x80\x80", 0));
}

TEST(DecodeUTF8At, RejectsAContinuationByteInTheLeadAndATruncatedSequence)
{
    EXPECT_FALSE(decodeUTF8At("\x80", 0));
    EXPECT_FALSE(decodeUTF8At("\xE3\x80", 0));
    EXPECT_FALSE(decodeUTF8At("\xC3"
                              "a",
                              0));
}

TEST(AppendUTF8, EncodesEachLengthAfterWhatIsThere)
{
    EXPECT_EQ(encoded(U'a'), "<a");
    EXPECT_EQ(encoded(U'\u00E9'), "<\xC3\xA9");
    EXPECT_EQ(encoded(U'\u3000'), "<\xE3\x80\x80");
    EXPECT_EQ(encoded(U'\U0001F600'), "<\xF0\x9F\x98\x80");
    EXPECT_EQ(encoded(0x10FFFF), "<\xF4\x8F\xBF\xBF");
}

TEST(AppendUTF8, ANulCharacterIsOneZeroByte)
{
    EXPECT_EQ(encoded(0), std::string("<\0", 2));
}

TEST(AppendUTF8, SurrogatesAndValuesPastTheLastCharacterBecomeTheReplacementCharacter)
{
    EXPECT_EQ(encoded(0xD800), "<\xEF\xBF\xBD");
    EXPECT_EQ(encoded(0xDFFF), "<\xEF\xBF\xBD");
    EXPECT_EQ(encoded(0x110000), "<\xEF\xBF\xBD");
}

TEST(AppendUTF8, WhatItEncodesDecodesToTheSameCharacter)
{
    for (const char32_t codePoint : {U'\u007F', U'\u0080', U'\u07FF', U'\u0800', U'\uFFFF', U'\U00010000'}) {
        std::string out;
        appendUTF8(out, codePoint);
        const std::optional<platform::DecodedCharacter> back = decodeUTF8At(out, 0);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->codePoint, codePoint);
        EXPECT_EQ(back->length, out.size());
    }
}

}  // namespace
