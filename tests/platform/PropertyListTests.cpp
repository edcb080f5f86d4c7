#include "platform/PropertyList.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <optional>
#include <random>
#include <initializer_list>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

#include "platform/RegularFile.h"
#include "tests/support/TempDir.h"

namespace {

using platform::PropertyList;

// 2023-11-14 22:13:20 UTC
constexpr double kSomeDate = 1700000000.0;

PropertyList::Dictionary nestedEntries()
{
    PropertyList::Dictionary inner;
    inner.emplace("list",
                  PropertyList::array({PropertyList::integer(1), PropertyList::array({PropertyList::string("deep")}),
                                       PropertyList::dictionary({})}));
    inner.emplace("flag", PropertyList::boolean(false));
    return inner;
}

// One value of every kind, with nested arrays and dictionaries.
PropertyList everyKindOfValue()
{
    PropertyList::Dictionary entries;
    entries.emplace("string", PropertyList::string("caf\xC3\xA9 <&> \"quoted\""));
    entries.emplace("empty string", PropertyList::string(""));
    entries.emplace("integer", PropertyList::integer(42));
    entries.emplace("negative", PropertyList::integer(-7));
    entries.emplace("largest", PropertyList::integer(std::numeric_limits<int64_t>::max()));
    entries.emplace("smallest", PropertyList::integer(std::numeric_limits<int64_t>::min()));
    entries.emplace("real", PropertyList::real(0.1));
    entries.emplace("negative real", PropertyList::real(-2.5e-300));
    entries.emplace("true", PropertyList::boolean(true));
    entries.emplace("false", PropertyList::boolean(false));
    entries.emplace("date", PropertyList::date(kSomeDate));
    entries.emplace("data", PropertyList::data({0x00, 0x01, 0xFE, 0xFF}));
    entries.emplace("empty data", PropertyList::data({}));
    entries.emplace("array", PropertyList::array({PropertyList::string("a"), PropertyList::integer(2)}));
    entries.emplace("empty array", PropertyList::array({}));
    entries.emplace("dictionary", PropertyList::dictionary(nestedEntries()));
    return PropertyList::dictionary(std::move(entries));
}

struct PlistFree {
    void operator()(void* node) const noexcept { plist_free(static_cast<plist_t>(node)); }
};
using PlistHandle = std::unique_ptr<void, PlistFree>;

// The libplist tree of everyKindOfValue(), built by hand.
PlistHandle everyKindOfValueAsLibplistTree()
{
    plist_t root = plist_new_dict();
    plist_dict_set_item(root, "string", plist_new_string("caf\xC3\xA9 <&> \"quoted\""));
    plist_dict_set_item(root, "empty string", plist_new_string(""));
    plist_dict_set_item(root, "integer", plist_new_uint(42));
    plist_dict_set_item(root, "negative", plist_new_uint(static_cast<uint64_t>(int64_t{-7})));
    plist_dict_set_item(root, "largest", plist_new_uint(static_cast<uint64_t>(std::numeric_limits<int64_t>::max())));
    plist_dict_set_item(root, "smallest", plist_new_uint(static_cast<uint64_t>(std::numeric_limits<int64_t>::min())));
    plist_dict_set_item(root, "real", plist_new_real(0.1));
    plist_dict_set_item(root, "negative real", plist_new_real(-2.5e-300));
    plist_dict_set_item(root, "true", plist_new_bool(1));
    plist_dict_set_item(root, "false", plist_new_bool(0));
    // libplist counts dates from 2001-01-01.
    plist_dict_set_item(root, "date", plist_new_date(static_cast<int32_t>(kSomeDate - 978307200.0), 0));
    plist_dict_set_item(root, "data", plist_new_data("\x00\x01\xFE\xFF", 4));
    plist_dict_set_item(root, "empty data", plist_new_data("", 0));
    plist_t array = plist_new_array();
    plist_array_append_item(array, plist_new_string("a"));
    plist_array_append_item(array, plist_new_uint(2));
    plist_dict_set_item(root, "array", array);
    plist_dict_set_item(root, "empty array", plist_new_array());
    plist_t list = plist_new_array();
    plist_array_append_item(list, plist_new_uint(1));
    plist_t deep = plist_new_array();
    plist_array_append_item(deep, plist_new_string("deep"));
    plist_array_append_item(list, deep);
    plist_array_append_item(list, plist_new_dict());
    plist_t inner = plist_new_dict();
    plist_dict_set_item(inner, "list", list);
    plist_dict_set_item(inner, "flag", plist_new_bool(0));
    plist_dict_set_item(root, "dictionary", inner);
    return PlistHandle(root);
}

std::string binaryBytes(const PlistHandle& tree)
{
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(static_cast<plist_t>(tree.get()), &bytes, &length);
    std::string result(bytes, length);
    plist_to_bin_free(bytes);
    return result;
}

std::string xmlBytes(const PlistHandle& tree)
{
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_xml(static_cast<plist_t>(tree.get()), &bytes, &length);
    std::string result(bytes, length);
    plist_to_xml_free(bytes);
    return result;
}

TEST(PropertyListTest, TypedViewsAnswerOnlyTheirOwnType)
{
    const auto text = PropertyList::string("x");
    ASSERT_NE(text.asString(), nullptr);
    EXPECT_EQ(*text.asString(), "x");
    EXPECT_EQ(text.type(), PropertyList::Type::String);
    EXPECT_EQ(text.asInteger(), nullptr);
    EXPECT_EQ(text.asDictionary(), nullptr);

    const auto real = PropertyList::real(1.5);
    const auto date = PropertyList::date(1.5);
    ASSERT_NE(real.asReal(), nullptr);
    EXPECT_EQ(*real.asReal(), 1.5);
    EXPECT_EQ(real.asDate(), nullptr);
    ASSERT_NE(date.asDate(), nullptr);
    EXPECT_EQ(*date.asDate(), 1.5);
    EXPECT_EQ(date.asReal(), nullptr);
    EXPECT_EQ(date.type(), PropertyList::Type::Date);

    const auto flag = PropertyList::boolean(true);
    ASSERT_NE(flag.asBoolean(), nullptr);
    EXPECT_TRUE(*flag.asBoolean());
    EXPECT_EQ(flag.asInteger(), nullptr);

    const auto bytes = PropertyList::data({1, 2});
    ASSERT_NE(bytes.asData(), nullptr);
    EXPECT_EQ(bytes.asData()->size(), 2U);
    EXPECT_EQ(bytes.asArray(), nullptr);

    const auto list = PropertyList::array({PropertyList::integer(3)});
    ASSERT_NE(list.asArray(), nullptr);
    EXPECT_EQ(*list.asArray()->at(0).asInteger(), 3);
}

TEST(PropertyListTest, ObjectForKeyFindsDictionaryEntriesOnly)
{
    const auto value = everyKindOfValue();
    const PropertyList* integer = value.objectForKey("integer");
    ASSERT_NE(integer, nullptr);
    EXPECT_EQ(*integer->asInteger(), 42);
    EXPECT_EQ(value.objectForKey("no such key"), nullptr);
    EXPECT_EQ(PropertyList::array({}).objectForKey("integer"), nullptr);
    EXPECT_EQ(PropertyList::string("integer").objectForKey("integer"), nullptr);
}

TEST(PropertyListTest, EqualityComparesTypeAndContentsDeeply)
{
    EXPECT_EQ(everyKindOfValue(), everyKindOfValue());
    EXPECT_FALSE(PropertyList::real(5) == PropertyList::date(5));
    EXPECT_FALSE(PropertyList::integer(1) == PropertyList::boolean(true));
    EXPECT_FALSE(PropertyList::string("a") == PropertyList::string("b"));

    auto changed = nestedEntries();
    changed.insert_or_assign("flag", PropertyList::boolean(true));
    EXPECT_FALSE(PropertyList::dictionary(nestedEntries()) == PropertyList::dictionary(changed));
    changed = nestedEntries();
    changed.insert_or_assign("extra", PropertyList::integer(0));
    EXPECT_FALSE(PropertyList::dictionary(nestedEntries()) == PropertyList::dictionary(changed));
    EXPECT_FALSE(PropertyList::array({PropertyList::integer(1)}) ==
                 PropertyList::array({PropertyList::integer(1), PropertyList::integer(1)}));
}

TEST(PropertyListTest, EveryTypeRoundTripsThroughAnXMLFile)
{
    testsupport::TempDir dir;
    const auto original = everyKindOfValue();
    ASSERT_TRUE(original.writeToFile(dir.at("all.plist"), true));
    const auto read = PropertyList::readFromFile(dir.at("all.plist"));
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(*read, original);
    EXPECT_EQ(testsupport::readFile(dir.at("all.plist")).rfind("<?xml", 0), 0U);
}

TEST(PropertyListTest, EveryTypeRoundTripsThroughXMLBytes)
{
    const auto original = everyKindOfValue();
    const auto read = PropertyList::fromBytes(original.toXML());
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(*read, original);
}

TEST(PropertyListTest, ReadsEveryTypeFromABinaryFile)
{
    testsupport::TempDir dir;
    const std::string bytes = binaryBytes(everyKindOfValueAsLibplistTree());
    ASSERT_EQ(bytes.rfind("bplist00", 0), 0U);
    testsupport::writeFile(dir.at("all.plist"), bytes);
    const auto read = PropertyList::readFromFile(dir.at("all.plist"));
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(*read, everyKindOfValue());
}

TEST(PropertyListTest, ReadsEveryTypeFromXMLWrittenByLibplist)
{
    const auto read = PropertyList::fromBytes(xmlBytes(everyKindOfValueAsLibplistTree()));
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(*read, everyKindOfValue());
}

TEST(PropertyListTest, DateKeepsFractionalSecondsThroughBinary)
{
    PlistHandle tree(plist_new_date(100, 500000));
    const auto read = PropertyList::fromBytes(binaryBytes(tree));
    ASSERT_TRUE(read.has_value());
    ASSERT_NE(read->asDate(), nullptr);
    EXPECT_DOUBLE_EQ(*read->asDate(), 978307200.0 + 100.5);
}

TEST(PropertyListTest, ReadsHandWrittenXML)
{
    const std::string xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <key>Name</key><string>R&amp;D</string>
  <key>Count</key><integer>-12</integer>
  <key>Ratio</key><real>2.5</real>
  <key>On</key><true/>
  <key>When</key><date>2023-11-14T22:13:20Z</date>
  <key>Blob</key><data>AAH+/w==</data>
  <key>Items</key><array><string>one</string><dict><key>k</key><false/></dict></array>
</dict>
</plist>
)";
    const auto read = PropertyList::fromBytes(xml);
    ASSERT_TRUE(read.has_value());
    ASSERT_EQ(read->type(), PropertyList::Type::Dictionary);
    EXPECT_EQ(*read->objectForKey("Name")->asString(), "R&D");
    EXPECT_EQ(*read->objectForKey("Count")->asInteger(), -12);
    EXPECT_EQ(*read->objectForKey("Ratio")->asReal(), 2.5);
    EXPECT_TRUE(*read->objectForKey("On")->asBoolean());
    EXPECT_EQ(*read->objectForKey("When")->asDate(), kSomeDate);
    EXPECT_EQ(*read->objectForKey("Blob")->asData(), (std::vector<uint8_t>{0x00, 0x01, 0xFE, 0xFF}));
    const auto* items = read->objectForKey("Items")->asArray();
    ASSERT_NE(items, nullptr);
    ASSERT_EQ(items->size(), 2U);
    EXPECT_EQ(*items->at(0).asString(), "one");
    EXPECT_FALSE(*items->at(1).objectForKey("k")->asBoolean());
}

TEST(PropertyListTest, ScalarAtTheTopIsAccepted)
{
    const auto read = PropertyList::fromBytes("<plist version=\"1.0\"><string>alone</string></plist>");
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(*read, PropertyList::string("alone"));
}

TEST(PropertyListTest, ToXMLEscapesMarkupCharacters)
{
    const std::string xml = PropertyList::string("a<b&c").toXML();
    EXPECT_NE(xml.find("<string>a&lt;b&amp;c</string>"), std::string::npos) << xml;
}

TEST(PropertyListTest, MissingFileGivesNone)
{
    testsupport::TempDir dir;
    EXPECT_FALSE(PropertyList::readFromFile(dir.at("missing.plist")).has_value());
    EXPECT_FALSE(PropertyList::dictionaryWithContentsOfFile(dir.at("missing.plist")).has_value());
}

TEST(PropertyListTest, GarbageFileGivesNone)
{
    testsupport::TempDir dir;
    testsupport::writeFile(dir.at("garbage.plist"), "this is not a property list\n");
    EXPECT_FALSE(PropertyList::readFromFile(dir.at("garbage.plist")).has_value());
    testsupport::writeFile(dir.at("broken.plist"), "bplist00\x01\x02\x03 truncated");
    EXPECT_FALSE(PropertyList::readFromFile(dir.at("broken.plist")).has_value());
    testsupport::writeFile(dir.at("empty.plist"), "");
    EXPECT_FALSE(PropertyList::readFromFile(dir.at("empty.plist")).has_value());
}

TEST(PropertyListTest, BinaryStringHoldingANULCharacterIsDamaged)
{
    // A key stored as UTF-16 (it is not ASCII), its one unit then zeroed.
    PlistHandle tree(plist_new_dict());
    plist_dict_set_item(static_cast<plist_t>(tree.get()), "\xC3\xA9", plist_new_string("value"));
    std::string bytes = binaryBytes(tree);
    const size_t key = bytes.find(std::string("\x61\x00\xE9", 3));
    ASSERT_NE(key, std::string::npos);
    ASSERT_TRUE(PropertyList::fromBytes(bytes).has_value());
    bytes[key + 2] = '\0';
    EXPECT_FALSE(PropertyList::fromBytes(bytes).has_value());
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

// A dictionary whose one key is "a" followed by NUL, stored as UTF-16 with its
// length written as an integer 16 bytes wide.
constexpr std::string_view kKeyWithNULAndWideLength =
    "62706c6973743030d101026f1400000000000000000000000000000002006100005178080b2100000000000001010000000000000003000000"
    "00000000000000000000000023";
// The same dictionary in a file whose trailer gives offsets 16 bytes wide.
constexpr std::string_view kKeyWithNULAndWideOffsets =
    "62706c6973743030d1010262006100005178000000000000000000000000000000080000000000000000000000000000000b000000000000"
    "000000000000000000100000000000001001000000000000000300000000000000000000000000000012";

TEST(PropertyListTest, KeyHoldingNULWithAWideLengthIsDamaged)
{
    EXPECT_FALSE(PropertyList::fromBytes(fromHex(kKeyWithNULAndWideLength)).has_value());
}

TEST(PropertyListTest, KeyHoldingNULWithWideOffsetsIsDamaged)
{
    EXPECT_FALSE(PropertyList::fromBytes(fromHex(kKeyWithNULAndWideOffsets)).has_value());
}

TEST(PropertyListTest, DamagedBinaryFilesReadAsNoneFromDisk)
{
    testsupport::TempDir dir;
    testsupport::writeFile(dir.at("wide-length.plist"), fromHex(kKeyWithNULAndWideLength));
    testsupport::writeFile(dir.at("wide-offsets.plist"), fromHex(kKeyWithNULAndWideOffsets));
    EXPECT_FALSE(PropertyList::dictionaryWithContentsOfFile(dir.at("wide-length.plist")).has_value());
    EXPECT_FALSE(PropertyList::dictionaryWithContentsOfFile(dir.at("wide-offsets.plist")).has_value());
}

TEST(PropertyListTest, ASCIIStringHoldingNULIsDamaged)
{
    // {"ab": "v"} with the key's second byte then zeroed.
    PlistHandle tree(plist_new_dict());
    plist_dict_set_item(static_cast<plist_t>(tree.get()), "ab", plist_new_string("v"));
    std::string bytes = binaryBytes(tree);
    const size_t key = bytes.find("\x52"
                                  "ab");
    ASSERT_NE(key, std::string::npos);
    ASSERT_TRUE(PropertyList::fromBytes(bytes).has_value());
    bytes[key + 2] = '\0';
    EXPECT_FALSE(PropertyList::fromBytes(bytes).has_value());
}

TEST(PropertyListTest, XMLStringHoldingNULIsDamaged)
{
    const std::string xml =
        std::string("<plist version=\"1.0\"><dict><key>k</key><string>a") + '\0' + "b</string></dict></plist>";
    EXPECT_FALSE(PropertyList::fromBytes(xml).has_value());
}

TEST(PropertyListTest, UnpairedSurrogateInABinaryStringIsDamaged)
{
    // {"é": "v"}: the key's UTF-16 unit replaced by a lone low surrogate.
    PlistHandle tree(plist_new_dict());
    plist_dict_set_item(static_cast<plist_t>(tree.get()), "\xC3\xA9", plist_new_string("v"));
    std::string bytes = binaryBytes(tree);
    const size_t key = bytes.find(std::string("\x61\x00\xE9", 3));
    ASSERT_NE(key, std::string::npos);
    bytes[key + 1] = '\xDC';
    EXPECT_FALSE(PropertyList::fromBytes(bytes).has_value());
}

TEST(PropertyListTest, BinaryReferenceCycleIsDamaged)
{
    // An array whose one item is the array itself.
    std::string bytes = "bplist00";
    bytes += "\xA1";
    bytes += '\0';
    const char offsetTable = static_cast<char>(bytes.size());
    bytes += '\x08';
    std::string trailer(32, '\0');
    trailer[6] = 1;   // offset size
    trailer[7] = 1;   // reference size
    trailer[15] = 1;  // one object
    trailer[31] = offsetTable;
    bytes += trailer;
    EXPECT_FALSE(PropertyList::fromBytes(bytes).has_value());
}

TEST(PropertyListTest, DeeplyNestedBinaryArraysAreDamagedNotACrash)
{
    // 100,000 arrays each holding the next: far deeper than any real file.
    constexpr uint32_t count = 100000;
    std::string bytes = "bplist00";
    std::vector<uint32_t> offsets;
    for (uint32_t i = 0; i < count; ++i) {
        offsets.push_back(static_cast<uint32_t>(bytes.size()));
        if (i + 1 < count) {
            bytes += '\xA1';
            const uint32_t next = i + 1;
            bytes += static_cast<char>(next >> 24);
            bytes += static_cast<char>(next >> 16);
            bytes += static_cast<char>(next >> 8);
            bytes += static_cast<char>(next);
        } else {
            bytes += '\xA0';
        }
    }
    const auto tableOffset = static_cast<uint64_t>(bytes.size());
    for (const uint32_t offset : offsets) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes += static_cast<char>(offset >> shift);
        }
    }
    std::string trailer(32, '\0');
    trailer[6] = 4;
    trailer[7] = 4;
    for (int i = 0; i < 8; ++i) {
        trailer[8 + i] = static_cast<char>(uint64_t{count} >> (56 - 8 * i));
        trailer[24 + i] = static_cast<char>(tableOffset >> (56 - 8 * i));
    }
    bytes += trailer;
    EXPECT_FALSE(PropertyList::fromBytes(bytes).has_value());
}

TEST(PropertyListTest, DeeplyNestedXMLArraysAreDamagedNotACrash)
{
    constexpr int count = 1000000;
    std::string xml = "<plist version=\"1.0\">";
    for (int i = 0; i < count; ++i) {
        xml += "<array>";
    }
    for (int i = 0; i < count; ++i) {
        xml += "</array>";
    }
    xml += "</plist>";
    EXPECT_FALSE(PropertyList::fromBytes(xml).has_value());
}

// Flips, overwrites, inserts and removes bytes of well-formed binary files:
// every result must read as a value or as none, never end the process.
TEST(PropertyListTest, MutatedBinaryFilesNeverEndTheProcess)
{
    std::vector<std::string> seeds = {binaryBytes(everyKindOfValueAsLibplistTree()), fromHex(kKeyWithNULAndWideLength),
                                      fromHex(kKeyWithNULAndWideOffsets)};
    PlistHandle unicode(plist_new_dict());
    plist_dict_set_item(static_cast<plist_t>(unicode.get()), "\xC3\xA9t\xC3\xA9", plist_new_string("\xE2\x82\xAC"));
    seeds.push_back(binaryBytes(unicode));
    std::mt19937 random(20240521);
    const auto start = std::chrono::steady_clock::now();
    int read = 0;
    int damaged = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string bytes = seeds[random() % seeds.size()];
        const int edits = 1 + static_cast<int>(random() % 4);
        for (int edit = 0; edit < edits && !bytes.empty(); ++edit) {
            const size_t at = random() % bytes.size();
            switch (random() % 5) {
            case 0: bytes[at] = static_cast<char>(bytes[at] ^ (1 << (random() % 8))); break;
            case 1: bytes[at] = static_cast<char>(random()); break;
            case 2: bytes.insert(at, 1, static_cast<char>(random())); break;
            case 3: bytes.erase(at, 1); break;
            // Interesting values: size markers, zero, all ones, big widths.
            default: {
                static constexpr char kInteresting[] = {'\x00', '\x0F', '\x10', '\x13', '\x14', '\x1F',
                                                        '\x6F', '\xD1', '\xFF', '\x09', '\x10', '\x7F'};
                bytes[at] = kInteresting[random() % sizeof kInteresting];
            }
            }
        }
        if (PropertyList::fromBytes(bytes).has_value()) {
            ++read;
        } else {
            ++damaged;
        }
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(read + damaged, 20000);
    // Many mutations leave a readable file, many a damaged one.
    EXPECT_GT(read, 100);
    EXPECT_GT(damaged, 100);
    EXPECT_LT(elapsed, std::chrono::seconds(5));
}

TEST(PropertyListTest, FolderIsNotAPropertyList)
{
    testsupport::TempDir dir;
    EXPECT_FALSE(PropertyList::readFromFile(dir.path()).has_value());
}

TEST(PropertyListTest, DictionaryWithContentsOfFileRequiresADictionaryAtTheTop)
{
    testsupport::TempDir dir;
    ASSERT_TRUE(PropertyList::array({PropertyList::string("x")}).writeToFile(dir.at("array.plist"), true));
    EXPECT_TRUE(PropertyList::readFromFile(dir.at("array.plist")).has_value());
    EXPECT_FALSE(PropertyList::dictionaryWithContentsOfFile(dir.at("array.plist")).has_value());

    ASSERT_TRUE(PropertyList::string("x").writeToFile(dir.at("string.plist"), false));
    EXPECT_FALSE(PropertyList::dictionaryWithContentsOfFile(dir.at("string.plist")).has_value());

    ASSERT_TRUE(everyKindOfValue().writeToFile(dir.at("dict.plist"), false));
    const auto read = PropertyList::dictionaryWithContentsOfFile(dir.at("dict.plist"));
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(*read, everyKindOfValue());
}

TEST(PropertyListTest, AtomicWriteReplacesTheFileAndLeavesNothingElse)
{
    testsupport::TempDir dir;
    testsupport::writeFile(dir.at("prefs.plist"), "old contents");
    ASSERT_TRUE(PropertyList::integer(5).writeToFile(dir.at("prefs.plist"), true));
    EXPECT_EQ(*PropertyList::readFromFile(dir.at("prefs.plist")), PropertyList::integer(5));
    int entries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        (void)entry;
        ++entries;
    }
    EXPECT_EQ(entries, 1);
}

TEST(PropertyListTest, NonAtomicWriteOverwritesALongerFile)
{
    testsupport::TempDir dir;
    testsupport::writeFile(dir.at("prefs.plist"), std::string(10000, 'x'));
    ASSERT_TRUE(PropertyList::integer(5).writeToFile(dir.at("prefs.plist"), false));
    EXPECT_EQ(*PropertyList::readFromFile(dir.at("prefs.plist")), PropertyList::integer(5));
}

TEST(PropertyListTest, WriteIntoAMissingFolderFails)
{
    testsupport::TempDir dir;
    EXPECT_FALSE(PropertyList::integer(5).writeToFile(dir.at("no/such/folder.plist"), true));
    EXPECT_FALSE(PropertyList::integer(5).writeToFile(dir.at("no/such/folder.plist"), false));
    EXPECT_FALSE(std::filesystem::exists(dir.at("no")));
}

// A binary property list of the given objects (each its encoded bytes, the
// first the root), with four-byte offsets and references.
std::string binaryPlistOf(const std::vector<std::string>& objects)
{
    std::string bytes = "bplist00";
    std::vector<uint32_t> offsets;
    for (const std::string& object : objects) {
        offsets.push_back(static_cast<uint32_t>(bytes.size()));
        bytes += object;
    }
    const auto tableOffset = static_cast<uint64_t>(bytes.size());
    for (const uint32_t offset : offsets) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes += static_cast<char>(offset >> shift);
        }
    }
    std::string trailer(32, '\0');
    trailer[6] = 4;
    trailer[7] = 4;
    for (int i = 0; i < 8; ++i) {
        trailer[8 + i] = static_cast<char>(uint64_t{objects.size()} >> (56 - 8 * i));
        trailer[24 + i] = static_cast<char>(tableOffset >> (56 - 8 * i));
    }
    return bytes + trailer;
}

std::string bigEndian32(uint32_t value)
{
    std::string out;
    for (int shift = 24; shift >= 0; shift -= 8) {
        out += static_cast<char>(value >> shift);
    }
    return out;
}

// The marker of a variable-size object of `count` elements, the count
// following as a four-byte integer.
std::string markerWithCount(unsigned kind, uint32_t count)
{
    return std::string(1, static_cast<char>((kind << 4) | 0x0F)) + "\x12" + bigEndian32(count);
}

// A one-byte marker followed by references, each four bytes, appended
// piece by piece (GCC 12 at -O3 warns falsely of an overlap for a literal +
// a temporary string).
std::string markerWithReferences(char marker, std::initializer_list<uint32_t> references)
{
    std::string out(1, marker);
    for (const uint32_t reference : references) {
        out += bigEndian32(reference);
    }
    return out;
}

std::string asciiString(std::size_t length)
{
    return markerWithCount(0x5, static_cast<uint32_t>(length)) + std::string(length, 'k');
}

TEST(PropertyListTest, StringReferredToFromEveryItemOfALargeArrayIsHeldOnce)
{
    // 262,144 references to one 256 KiB string: 64 GiB if each were a copy.
    constexpr uint32_t kItems = 262144;
    std::string array = markerWithCount(0xA, kItems);
    for (uint32_t i = 0; i < kItems; ++i) {
        array += bigEndian32(1);
    }
    const std::string bytes = binaryPlistOf({array, asciiString(std::size_t{256} * 1024)});
    ASSERT_LT(bytes.size(), 2U << 20);
    const std::optional<PropertyList> read = PropertyList::fromBytes(bytes);
    ASSERT_TRUE(read.has_value());
    const PropertyList::Array& items = *read->asArray();
    ASSERT_EQ(items.size(), kItems);
    ASSERT_NE(items.front().asString(), nullptr);
    EXPECT_EQ(items.front().asString()->size(), 256U * 1024U);
    EXPECT_EQ(items.front().asString(), items.back().asString());
}

TEST(PropertyListTest, KeyCopiedIntoManyDictionariesPastTheFilesProportionIsDamaged)
{
    // 10,000 dictionaries, each with the same 64 KiB key: a file of a few
    // hundred KiB that would produce 640 MiB of keys.
    constexpr uint32_t kDictionaries = 10000;
    std::vector<std::string> objects;
    std::string array = markerWithCount(0xA, kDictionaries);
    for (uint32_t i = 0; i < kDictionaries; ++i) {
        array += bigEndian32(2 + i);
    }
    objects.push_back(array);
    objects.push_back(asciiString(std::size_t{64} * 1024));
    for (uint32_t i = 0; i < kDictionaries; ++i) {
        objects.push_back(markerWithReferences('\xD1', {1, 1}));
    }
    const std::string bytes = binaryPlistOf(objects);
    ASSERT_LT(bytes.size(), 512U * 1024U);
    EXPECT_FALSE(PropertyList::fromBytes(bytes).has_value());
}

TEST(PropertyListTest, KeySharedByAFewDictionariesIsRead)
{
    std::vector<std::string> objects;
    std::string array = markerWithCount(0xA, 3);
    for (uint32_t i = 0; i < 3; ++i) {
        array += bigEndian32(2 + i);
    }
    objects.push_back(array);
    objects.push_back(asciiString(100));
    for (uint32_t i = 0; i < 3; ++i) {
        objects.push_back(markerWithReferences('\xD1', {1, 1}));
    }
    const std::optional<PropertyList> read = PropertyList::fromBytes(binaryPlistOf(objects));
    ASSERT_TRUE(read.has_value());
    ASSERT_EQ(read->asArray()->size(), 3U);
    const std::string key(100, 'k');
    EXPECT_EQ(*read->asArray()->at(2).objectForKey(key), PropertyList::string(key));
}

TEST(PropertyListTest, SharedArrayMetDeeperThanTheDepthLimitAllowsIsDamaged)
{
    // Object 1 is a chain of 400 arrays; the root holds it directly and
    // again inside another chain of 200: 600 levels in all.
    std::vector<std::string> objects(602);
    objects[0] = markerWithReferences('\xA2', {1, 401});
    for (uint32_t i = 1; i < 400; ++i) {
        objects[i] = markerWithReferences('\xA1', {i + 1});
    }
    objects[400] = "\xA0";
    for (uint32_t i = 401; i < 601; ++i) {
        objects[i] = markerWithReferences('\xA1', {i + 1});
    }
    objects[601] = markerWithReferences('\xA1', {1});
    EXPECT_FALSE(PropertyList::fromBytes(binaryPlistOf(objects)).has_value());
}

TEST(PropertyListTest, FifoReadsAsNoneAtOnce)
{
    testsupport::TempDir dir;
    ASSERT_EQ(::mkfifo(dir.at("prefs.plist").c_str(), 0600), 0);
    EXPECT_FALSE(PropertyList::readFromFile(dir.at("prefs.plist")).has_value());
}

TEST(PropertyListTest, LinkToDevZeroReadsAsNone)
{
    testsupport::TempDir dir;
    std::filesystem::create_symlink("/dev/zero", dir.at("prefs.plist"));
    EXPECT_FALSE(PropertyList::readFromFile(dir.at("prefs.plist")).has_value());
}

TEST(PropertyListTest, SparseFileLargerThanTheLimitReadsAsNone)
{
    testsupport::TempDir dir;
    testsupport::writeFile(dir.at("prefs.plist"), PropertyList::integer(5).toXML());
    std::filesystem::resize_file(dir.at("prefs.plist"), platform::RegularFile::kSizeLimit + 1);
    EXPECT_FALSE(PropertyList::readFromFile(dir.at("prefs.plist")).has_value());
}

}  // namespace
