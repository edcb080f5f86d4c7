#include "platform/StringsTable.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <string_view>

#include "platform/RegularFile.h"
#include "tests/support/TempDir.h"

namespace {

using platform::StringsTable;

// The UTF-16 bytes of text, led by a byte-order mark.
std::string utf16(const std::u16string& text, bool bigEndian)
{
    std::string out = bigEndian ? std::string("\xFE\xFF") : std::string("\xFF\xFE");
    for (const char16_t unit : text) {
        const auto high = static_cast<char>(unit >> 8);
        const auto low = static_cast<char>(unit & 0xFF);
        if (bigEndian) {
            out.push_back(high);
            out.push_back(low);
        } else {
            out.push_back(low);
            out.push_back(high);
        }
    }
    return out;
}

// The bytes written as hexadecimal digits.
std::string fromHex(std::string_view hex)
{
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    }
    return bytes;
}

TEST(StringsTableTest, ParsesKeyValuePairs)
{
    const auto table = StringsTable::parse("\"Removed\" = \"Removed\";\n\"FileMissing\" = \"Not found\";\n");
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->size(), 2U);
    EXPECT_EQ(table->at("Removed"), "Removed");
    EXPECT_EQ(table->at("FileMissing"), "Not found");
}

TEST(StringsTableTest, EmptyInputIsAnEmptyTable)
{
    const auto table = StringsTable::parse("");
    ASSERT_TRUE(table.has_value());
    EXPECT_TRUE(table->empty());
    const auto onlyComments = StringsTable::parse("/* nothing */\n// here\n");
    ASSERT_TRUE(onlyComments.has_value());
    EXPECT_TRUE(onlyComments->empty());
}

TEST(StringsTableTest, SkipsBlockAndLineComments)
{
    const auto table = StringsTable::parse("/* header\n spanning lines */\n"
                                           "\"a\" /* before = */ = /* after = */ \"1\"; // trailing \"b\" = \"2\";\n"
                                           "// \"c\" = \"3\";\n"
                                           "\"d\" = \"x // not a comment /* nor this */\";");
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->size(), 2U);
    EXPECT_EQ(table->at("a"), "1");
    EXPECT_EQ(table->at("d"), "x // not a comment /* nor this */");
}

TEST(StringsTableTest, AllowsWhiteSpaceAnywhereBetweenTokens)
{
    const auto table = StringsTable::parse("\t\r\n  \"a\"\n\n=\t\"1\"\r\n;\"b\"=\"2\";   ");
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->at("a"), "1");
    EXPECT_EQ(table->at("b"), "2");
}

TEST(StringsTableTest, DecodesBackslashEscapes)
{
    const auto table = StringsTable::parse(R"("quote" = "say \"hi\"";
"backslash" = "a\\b";
"controls" = "1\n2\t3\r4";
"unicode" = "caf\U00e9 \U20AC";
"key with \"quote\"" = "x";)");
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->at("quote"), "say \"hi\"");
    EXPECT_EQ(table->at("backslash"), "a\\b");
    EXPECT_EQ(table->at("controls"), "1\n2\t3\r4");
    EXPECT_EQ(table->at("unicode"), "caf\xC3\xA9 \xE2\x82\xAC");
    EXPECT_EQ(table->at("key with \"quote\""), "x");
}

TEST(StringsTableTest, DecodesOctalAndOtherSingleCharacterEscapes)
{
    const auto table = StringsTable::parse(R"("octal" = "\101\0619"; "other" = "\a\b\f\v\'\q"; 'single' = 'it\'s';)");
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->at("octal"), "A19");
    EXPECT_EQ(table->at("other"), "\a\b\f\v'q");
    EXPECT_EQ(table->at("single"), "it's");
}

TEST(StringsTableTest, CombinesEscapedSurrogatePairs)
{
    const auto table = StringsTable::parse(R"("smile" = "\UD83D\UDE00";)");
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->at("smile"), "\xF0\x9F\x98\x80");
}

TEST(StringsTableTest, KeyAloneStandsForItself)
{
    const auto table = StringsTable::parse("\"Removed\";\n\"Other\" = \"Value\";");
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->at("Removed"), "Removed");
    EXPECT_EQ(table->at("Other"), "Value");
}

TEST(StringsTableTest, AcceptsUnquotedWordsAndBraces)
{
    const auto table = StringsTable::parse("{ Removed = Gone; \"Path\" = /tmp/x.y; }\n");
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->at("Removed"), "Gone");
    EXPECT_EQ(table->at("Path"), "/tmp/x.y");
}

TEST(StringsTableTest, LaterEntryForTheSameKeyWins)
{
    const auto table = StringsTable::parse("\"a\" = \"1\"; \"a\" = \"2\";");
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->at("a"), "2");
}

TEST(StringsTableTest, KeepsUTF8TextAsIs)
{
    const auto table = StringsTable::parse("\"caf\xC3\xA9\" = \"\xE2\x82\xAC\";");
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->at("caf\xC3\xA9"), "\xE2\x82\xAC");
}

TEST(StringsTableTest, SkipsAUTF8ByteOrderMark)
{
    const auto table = StringsTable::parse("\xEF\xBB\xBF\"a\" = \"1\";");
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->size(), 1U);
    EXPECT_EQ(table->at("a"), "1");
}

TEST(StringsTableTest, ReadsLittleEndianUTF16)
{
    const auto table = StringsTable::parse(utf16(u"/* c */ \"caf\u00e9\" = \"\u20ac \U0001F600\";", false));
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->size(), 1U);
    EXPECT_EQ(table->at("caf\xC3\xA9"), "\xE2\x82\xAC \xF0\x9F\x98\x80");
}

TEST(StringsTableTest, ReadsBigEndianUTF16)
{
    const auto table = StringsTable::parse(utf16(u"\"caf\u00e9\" = \"\u20ac \U0001F600\";", true));
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->at("caf\xC3\xA9"), "\xE2\x82\xAC \xF0\x9F\x98\x80");
}

TEST(StringsTableTest, RejectsBrokenUTF16)
{
    std::string oddLength = utf16(u"\"a\" = \"1\";", false);
    oddLength.push_back('x');
    EXPECT_FALSE(StringsTable::parse(oddLength).has_value());
    // A high surrogate followed by an ordinary character.
    EXPECT_FALSE(StringsTable::parse(utf16(u"\"a\" = \"\xD83D"
                                           u"b\";",
                                           false))
                     .has_value());
}

TEST(StringsTableTest, ReadsTheXMLPropertyListForm)
{
    const auto table = StringsTable::parse(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
  <key>Removed</key><string>Gone</string>
  <key>FileMissing</key><string>Not found</string>
</dict>
</plist>
)");
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->size(), 2U);
    EXPECT_EQ(table->at("Removed"), "Gone");
    EXPECT_EQ(table->at("FileMissing"), "Not found");
}

TEST(StringsTableTest, PropertyListFormMustBeADictionaryOfStrings)
{
    EXPECT_FALSE(StringsTable::parse("<plist><array><string>a</string></array></plist>").has_value());
    EXPECT_FALSE(StringsTable::parse("<plist><dict><key>a</key><integer>1</integer></dict></plist>").has_value());
    EXPECT_FALSE(StringsTable::parse("<not a plist").has_value());
}

TEST(StringsTableTest, RejectsMalformedText)
{
    EXPECT_FALSE(StringsTable::parse("\"a\" = \"1\"").has_value()) << "missing semicolon";
    EXPECT_FALSE(StringsTable::parse("\"a\" = \"1;").has_value()) << "unterminated string";
    EXPECT_FALSE(StringsTable::parse("\"a\" = ;").has_value()) << "missing value";
    EXPECT_FALSE(StringsTable::parse("\"a\" \"1\";").has_value()) << "missing equals sign";
    EXPECT_FALSE(StringsTable::parse("\"a\" = \"1\"; /* open").has_value()) << "unterminated comment";
    EXPECT_FALSE(StringsTable::parse("= \"1\";").has_value()) << "missing key";
    EXPECT_FALSE(StringsTable::parse("{ \"a\" = \"1\";").has_value()) << "unclosed brace";
}

TEST(StringsTableTest, ReadFromFileParsesTheFile)
{
    testsupport::TempDir dir;
    testsupport::writeFile(dir.at("Localizable.strings"), utf16(u"\"a\" = \"1\";", false));
    const auto table = StringsTable::readFromFile(dir.at("Localizable.strings"));
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->at("a"), "1");
}

TEST(StringsTableTest, ReadFromFileReadsABinaryPropertyList)
{
    testsupport::TempDir dir;
    plist_t root = plist_new_dict();
    plist_dict_set_item(root, "a", plist_new_string("1"));
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bytes, &length);
    testsupport::writeFile(dir.at("Localizable.strings"), std::string(bytes, length));
    plist_to_bin_free(bytes);
    plist_free(root);
    const auto table = StringsTable::readFromFile(dir.at("Localizable.strings"));
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->at("a"), "1");
}

TEST(StringsTableTest, MissingOrUnparsableFileGivesNone)
{
    testsupport::TempDir dir;
    EXPECT_FALSE(StringsTable::readFromFile(dir.at("missing.strings")).has_value());
    testsupport::writeFile(dir.at("bad.strings"), "\"a\" = ");
    EXPECT_FALSE(StringsTable::readFromFile(dir.at("bad.strings")).has_value());
    EXPECT_FALSE(StringsTable::readFromFile(dir.path()).has_value());
}

TEST(StringsTableTest, BinaryTablesWhoseKeyHoldsNULAreDamaged)
{
    // Both hold {"a\0": "x"}: the key's length as a 16-byte integer, or the
    // offsets of the object table 16 bytes wide.
    const std::string wideLength = fromHex(
        "62706c6973743030d101026f1400000000000000000000000000000002006100005178080b21000000000000010100000000000000"
        "0300000000000000000000000000000023");
    const std::string wideOffsets = fromHex(
        "62706c6973743030d1010262006100005178000000000000000000000000000000080000000000000000000000000000000b0000"
        "00000000000000000000000000100000000000001001000000000000000300000000000000000000000000000012");
    EXPECT_FALSE(StringsTable::parse(wideLength).has_value());
    EXPECT_FALSE(StringsTable::parse(wideOffsets).has_value());
    testsupport::TempDir dir;
    testsupport::writeFile(dir.at("Localizable.strings"), wideLength);
    EXPECT_FALSE(StringsTable::readFromFile(dir.at("Localizable.strings")).has_value());
    testsupport::writeFile(dir.at("Localizable.strings"), wideOffsets);
    EXPECT_FALSE(StringsTable::readFromFile(dir.at("Localizable.strings")).has_value());
}

TEST(StringsTableTest, FifoReadsAsNoneAtOnce)
{
    testsupport::TempDir dir;
    ASSERT_EQ(::mkfifo(dir.at("Localizable.strings").c_str(), 0600), 0);
    EXPECT_FALSE(StringsTable::readFromFile(dir.at("Localizable.strings")).has_value());
}

TEST(StringsTableTest, LinkToDevZeroReadsAsNone)
{
    testsupport::TempDir dir;
    ASSERT_EQ(::symlink("/dev/zero", dir.at("Localizable.strings").c_str()), 0);
    EXPECT_FALSE(StringsTable::readFromFile(dir.at("Localizable.strings")).has_value());
}

TEST(StringsTableTest, SparseFileLargerThanTheLimitReadsAsNone)
{
    testsupport::TempDir dir;
    testsupport::writeFile(dir.at("Localizable.strings"), "\"a\" = \"b\";\n");
    ASSERT_EQ(
        ::truncate(dir.at("Localizable.strings").c_str(), static_cast<off_t>(platform::RegularFile::kSizeLimit) + 1),
        0);
    EXPECT_FALSE(StringsTable::readFromFile(dir.at("Localizable.strings")).has_value());
}

}  // namespace
