#include "fsutil/QELSecurity.h"

#include <dirent.h>
#include <sys/stat.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <string>

#include "tests/support/ByteStream.h"
#include "tests/support/Digests.h"
#include "tests/support/OpensslDigests.h"
#include "tests/support/Settings.h"
#include "tests/support/TempDir.h"

namespace {

using testsupport::openDescriptorCount;

const std::string kSixtyFourZeros(64, '0');

class QELSecurityHashTest : public testing::Test {
protected:
    void SetUp() override { testsupport::useCommandLineSettings({"-AppType", "Digest Test"}); }

    // A file of the test with the given contents.
    std::string fileWith(const std::string& name, const std::string& contents)
    {
        testsupport::writeFile(dir.at(name), contents);
        return dir.at(name);
    }

    static std::string opensslSha256Of(const std::string& path)
    {
        return testsupport::opensslDigestsOfFiles("sha256", {path})[0];
    }

    testsupport::TempDir dir;
};

std::string upperCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

TEST_F(QELSecurityHashTest, HashForFileGivesTheFileSha256AndStatusZero)
{
    const std::string path = fileWith("a", "abc");
    int32_t status = -7;
    EXPECT_EQ(QELSecurity::hashForFile(path, &status),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(status, 0);
}

TEST_F(QELSecurityHashTest, HashForFileMatchesOpensslOnFilesOfSeveralPages)
{
    for (size_t length : {1U, 4095U, 4096U, 4097U, (3U << 20) + 5U}) {
        const std::string path = fileWith(std::to_string(length) + ".bin", testsupport::messageBytes(length));
        int32_t status = -7;
        EXPECT_EQ(QELSecurity::hashForFile(path, &status), opensslSha256Of(path)) << "length " << length;
        EXPECT_EQ(status, 0);
    }
}

TEST_F(QELSecurityHashTest, HashForFileOfAMissingFileGivesStatusTwoAndSixtyFourZeros)
{
    int32_t status = -7;
    EXPECT_EQ(QELSecurity::hashForFile(dir.at("missing"), &status), kSixtyFourZeros);
    EXPECT_EQ(status, 2);
}

TEST_F(QELSecurityHashTest, HashForFileOfAnEmptyFileGivesStatusFourAndSixtyFourZeros)
{
    const std::string path = fileWith("empty", "");
    int32_t status = -7;
    EXPECT_EQ(QELSecurity::hashForFile(path, &status), kSixtyFourZeros);
    EXPECT_EQ(status, 4);
}

TEST_F(QELSecurityHashTest, HashForFileOfADirectoryGivesStatusFourAndSixtyFourZeros)
{
    int32_t status = -7;
    EXPECT_EQ(QELSecurity::hashForFile(dir.path(), &status), kSixtyFourZeros);
    EXPECT_EQ(status, 4);
}

// What is not a regular file is never mapped, and opening it never waits.
class QELSecurityHashOfNonRegularTest : public QELSecurityHashTest, public testing::WithParamInterface<const char*> {};

TEST_P(QELSecurityHashOfNonRegularTest, GivesStatusFourAtOnce)
{
    const std::string path = dir.at("item");
    const std::string kind = GetParam();
    if (kind == "fifo") {
        ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    } else if (kind == "link-to-dev-zero") {
        ASSERT_EQ(::symlink("/dev/zero", path.c_str()), 0);
    } else {
        ASSERT_EQ(::symlink("/dev/urandom", path.c_str()), 0);
    }
    int32_t status = -7;
    EXPECT_EQ(QELSecurity::hashForFile(path, &status), kSixtyFourZeros);
    EXPECT_EQ(status, 4);
}

INSTANTIATE_TEST_SUITE_P(Items, QELSecurityHashOfNonRegularTest,
                         testing::Values("fifo", "link-to-dev-zero", "link-to-dev-urandom"),
                         [](const testing::TestParamInfo<const char*>& info) {
                             std::string name = info.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST_F(QELSecurityHashTest, HashForFileOfAFileThatReportsNoSizeGivesStatusFour)
{
    // The file has contents when read, but its size is 0: only the mapping
    // counts, there is no reading.
    ASSERT_FALSE(testsupport::readFile("/proc/version").empty());
    int32_t status = -7;
    EXPECT_EQ(QELSecurity::hashForFile("/proc/version", &status), kSixtyFourZeros);
    EXPECT_EQ(status, 4);
}

TEST_F(QELSecurityHashTest, HashForFileTakesTheFileSizeAsAThirtyTwoBitLength)
{
    // A sparse file of 2^32 + 3 bytes beginning with "abc" maps 3 bytes.
    const std::string path = fileWith("large", "abc");
    ASSERT_EQ(truncate(path.c_str(), (off_t{1} << 32) + 3), 0);
    int32_t status = -7;
    EXPECT_EQ(QELSecurity::hashForFile(path, &status),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(status, 0);
}

TEST_F(QELSecurityHashTest, HashForFileOfExactlyFourGibibytesMapsNothingAndGivesStatusFour)
{
    const std::string path = fileWith("large", "abc");
    ASSERT_EQ(truncate(path.c_str(), off_t{1} << 32), 0);
    int32_t status = -7;
    EXPECT_EQ(QELSecurity::hashForFile(path, &status), kSixtyFourZeros);
    EXPECT_EQ(status, 4);
}

TEST_F(QELSecurityHashTest, HashForFileAcceptsNoStatus)
{
    EXPECT_EQ(QELSecurity::hashForFile(dir.at("missing"), nullptr), kSixtyFourZeros);
}

TEST_F(QELSecurityHashTest, HashMatchesFileWithTheCorrectHashReturnsZero)
{
    const std::string path = fileWith("a", testsupport::messageBytes(1000));
    EXPECT_EQ(QELSecurity::hashMatchesFile(opensslSha256Of(path), path), 0);
}

TEST_F(QELSecurityHashTest, HashMatchesFileWithTheCorrectHashInUpperCaseReturnsOne)
{
    const std::string path = fileWith("a", testsupport::messageBytes(1000));
    EXPECT_EQ(QELSecurity::hashMatchesFile(upperCase(opensslSha256Of(path)), path), 1);
}

TEST_F(QELSecurityHashTest, HashMatchesFileWithAnotherHashReturnsOne)
{
    const std::string path = fileWith("a", "abc");
    std::string other = opensslSha256Of(path);
    other[63] = other[63] == '0' ? '1' : '0';
    EXPECT_EQ(QELSecurity::hashMatchesFile(other, path), 1);
    EXPECT_EQ(QELSecurity::hashMatchesFile(opensslSha256Of(path).substr(0, 63), path), 1);
    EXPECT_EQ(QELSecurity::hashMatchesFile("", path), 1);
}

TEST_F(QELSecurityHashTest, HashMatchesFileOfAMissingFileReturnsTwo)
{
    EXPECT_EQ(QELSecurity::hashMatchesFile(kSixtyFourZeros, dir.at("missing")), 2);
}

TEST_F(QELSecurityHashTest, HashMatchesFileOfAnEmptyFileReturnsFourEvenForTheZeroDigest)
{
    const std::string path = fileWith("empty", "");
    EXPECT_EQ(QELSecurity::hashMatchesFile(kSixtyFourZeros, path), 4);
    EXPECT_EQ(QELSecurity::hashMatchesFile("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", path),
              4);
}

// How many mappings of the process name the path.
int mappingsOf(const std::string& path)
{
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        if (line.find(path) != std::string::npos) {
            ++count;
        }
    }
    return count;
}

TEST_F(QELSecurityHashTest, HashForFileLeavesNoDescriptorOrMappingBehind)
{
    const std::string file = fileWith("data", std::string(100000, 'd'));
    const std::string empty = fileWith("empty", "");
    const int before = openDescriptorCount();
    int32_t status = -1;
    EXPECT_EQ(QELSecurity::hashForFile(file, &status).size(), 64U);
    EXPECT_EQ(status, QELSecurity::kHashOK);
    EXPECT_EQ(QELSecurity::hashForFile(empty, &status), kSixtyFourZeros);
    EXPECT_EQ(status, QELSecurity::kHashCannotMap);
    EXPECT_EQ(QELSecurity::hashForFile(dir.path(), &status), kSixtyFourZeros);
    EXPECT_EQ(status, QELSecurity::kHashCannotMap);
    EXPECT_EQ(openDescriptorCount(), before);
    EXPECT_EQ(mappingsOf(file), 0);
}

}  // namespace
