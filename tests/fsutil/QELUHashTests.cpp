#include "fsutil/QELUHash.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/ByteStream.h"
#include "tests/support/Digests.h"
#include "tests/support/OpensslDigests.h"
#include "tests/support/Settings.h"

namespace {

using testsupport::fatalErrorCodeRaisedBy;

bool isLowerCaseHex(const std::string& text)
{
    return text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string opensslSha224OfText(const std::string& text)
{
    return testsupport::opensslDigestOf("sha224", text);
}

class QELUHashTest : public testing::Test {
protected:
    void SetUp() override { testsupport::useCommandLineSettings({"-AppType", "Digest Test"}); }
};

TEST_F(QELUHashTest, HexFromBytesWritesEachByteAsTwoLowerCaseDigitsHighNibbleFirst)
{
    const unsigned char bytes[] = {0x00, 0xAB, 0xFF};
    EXPECT_EQ(QELUHexFrombytes(bytes, 3), "00abff");
}

TEST_F(QELUHashTest, HexFromBytesOfZeroBytesIsEmpty)
{
    const unsigned char bytes[] = {0x12};
    EXPECT_EQ(QELUHexFrombytes(bytes, 0), "");
}

TEST_F(QELUHashTest, HexFromBytesCoversEveryByteValue)
{
    std::vector<unsigned char> bytes(256);
    std::string expected;
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(i);
        expected += "0123456789abcdef"[i >> 4];
        expected += "0123456789abcdef"[i & 15];
    }
    EXPECT_EQ(QELUHexFrombytes(bytes.data(), 256), expected);
}

TEST_F(QELUHashTest, HexFromBytesOfACountAboveTheLimitRaisesFatal1876)
{
    const unsigned char bytes[] = {0x12};
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELUHexFrombytes(bytes, 0x3FFFFFFE); }), 1876);
    EXPECT_EQ(fatalErrorCodeRaisedBy([&] { QELUHexFrombytes(bytes, INT32_MAX); }), 1876);
}

TEST_F(QELUHashTest, HashOfAppPathIsTheSha224OfThePathBytesInLowerCaseHex)
{
    const std::string path = "/Applications/Lumidoc Reader.app";
    const std::string hash = QELUHashOfAppPath(path);
    EXPECT_EQ(hash.size(), 56U);
    EXPECT_TRUE(isLowerCaseHex(hash)) << hash;
    EXPECT_EQ(hash, opensslSha224OfText(path));
}

TEST_F(QELUHashTest, HashOfAppPathTakesNonAsciiPathsAsTheirUTF8Bytes)
{
    const std::string path = "/Applications/R\xC3\xA9sum\xC3\xA9 \xE2\x9C\x93.app";
    EXPECT_EQ(QELUHashOfAppPath(path), opensslSha224OfText(path));
}

// The published SHA-224 example for "abc": a value fixed outside this
// program, so a zero byte added to the path's bytes would show.
TEST_F(QELUHashTest, HashOfAppPathOfAbcIsThePublishedSha224OfAbc)
{
    EXPECT_EQ(QELUHashOfAppPath("abc"), "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7");
}

// The bytes are hashed exactly as given: a path spelt another way for the
// same folder is another path, with its own hash.
TEST_F(QELUHashTest, HashOfAppPathHashesThePathAsWrittenWithoutStandardisingIt)
{
    const std::string plain = QELUHashOfAppPath("/Applications/Lumidoc Reader.app");
    for (const std::string spelling :
         {"/Applications/./Lumidoc Reader.app", "/Applications//Lumidoc Reader.app",
          "/Applications/../Applications/Lumidoc Reader.app", "//Applications/Lumidoc Reader.app"}) {
        const std::string hash = QELUHashOfAppPath(spelling);
        EXPECT_NE(hash, plain) << spelling;
        EXPECT_EQ(hash, opensslSha224OfText(spelling)) << spelling;
    }
}

TEST_F(QELUHashTest, HashOfAppPathDiffersWithATrailingSlash)
{
    EXPECT_NE(QELUHashOfAppPath("/Applications/Lumidoc Reader.app/"),
              QELUHashOfAppPath("/Applications/Lumidoc Reader.app"));
}

TEST_F(QELUHashTest, HashOfAppPathDiffersWithAChangeOfCase)
{
    EXPECT_NE(QELUHashOfAppPath("/Applications/lumidoc reader.app"),
              QELUHashOfAppPath("/Applications/Lumidoc Reader.app"));
}

TEST_F(QELUHashTest, HashOfAppPathOfTheEmptyPathIsTheSha224OfNothing)
{
    EXPECT_EQ(QELUHashOfAppPath(""), "d14a028c2a3a2bc9476102bb288234c415a2b01f828ea62ac5b3e42f");
}

TEST_F(QELUHashTest, HashOfAppPathWithoutAUTF8FormRaisesFatal1844)
{
    EXPECT_EQ(fatalErrorCodeRaisedBy([] { QELUHashOfAppPath("/Applications/\xFF\xFE.app"); }), 1844);
}

}  // namespace
