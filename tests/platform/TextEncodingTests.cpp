#include <gtest/gtest.h>
#include <optional>
#include <string>

#include "platform/TextEncoding.h"

namespace {

using platform::textFromBytes;
using platform::utf16ToUTF8;

template <std::size_t N>
std::string bytes(const char (&text)[N])
{
    return {text, N - 1};
}

TEST(TextFromBytes, DropsAUTF8ByteOrderMark)
{
    EXPECT_EQ(textFromBytes("\xEF\xBB\xBF/x"), "/x");
    EXPECT_EQ(textFromBytes("\xEF\xBB\xBF"), "");
}

TEST(TextFromBytes, DecodesLittleEndianUTF16AfterItsMark)
{
    EXPECT_EQ(textFromBytes(bytes("\xFF\xFE/\0x\0\xE9\0")), "/x\xC3\xA9");
}

TEST(TextFromBytes, DecodesBigEndianUTF16AfterItsMark)
{
    EXPECT_EQ(textFromBytes(bytes("\xFE\xFF\0/\0x\xD8\x3D\xDE\x00")), "/x\xF0\x9F\x98\x80");
}

TEST(TextFromBytes, UTF16ThatDoesNotDecodeGivesNone)
{
    EXPECT_EQ(textFromBytes("\xFF\xFE/"), std::nullopt);
    EXPECT_EQ(textFromBytes(bytes("\xFE\xFF\xDC\x00")), std::nullopt);
    EXPECT_EQ(textFromBytes(bytes("\xFE\xFF\xD8\x00\0x")), std::nullopt);
}

TEST(TextFromBytes, TakesOtherBytesAsTheyAre)
{
    EXPECT_EQ(textFromBytes("/x\xFF"), "/x\xFF");
    EXPECT_EQ(textFromBytes(""), "");
    EXPECT_EQ(textFromBytes("\xEF\xBB"), "\xEF\xBB");
}

TEST(UTF16ToUTF8, JoinsASurrogatePair)
{
    EXPECT_EQ(utf16ToUTF8(bytes("\x3D\xD8\x00\xDE"), false), "\xF0\x9F\x98\x80");
    EXPECT_EQ(utf16ToUTF8(bytes("\x3D\xD8"), false), std::nullopt);
}

}  // namespace
