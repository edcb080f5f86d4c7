#include "platform/DirectoryEntries.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>

#include "tests/support/TempDir.h"

namespace {

using platform::DirectoryEntries;
using Type = DirectoryEntries::Type;
using testsupport::makeDirectories;
using testsupport::TempDir;
using testsupport::writeFile;

class DirectoryEntriesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        writeFile(theDir.at("file"), "x");
        makeDirectories(theDir.at("folder"));
        ASSERT_EQ(::symlink("folder", theDir.at("link").c_str()), 0);
        ASSERT_EQ(::mkfifo(theDir.at("fifo").c_str(), 0600), 0);
        theFd = ::open(theDir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(theFd, 0);
    }
    void TearDown() override { ::close(theFd); }

    std::map<std::string, Type> read()
    {
        std::map<std::string, Type> found;
        DirectoryEntries entries(theFd);
        while (const auto entry = entries.next()) {
            found.emplace(std::string(entry->name), entry->type);
        }
        EXPECT_FALSE(entries.error());
        return found;
    }

    TempDir theDir;
    int theFd = -1;
};

TEST_F(DirectoryEntriesTest, GivesEveryEntryWithItsTypeAndNeitherDotNorDotDot)
{
    const std::map<std::string, Type> expected = {
        {"file", Type::File}, {"folder", Type::Folder}, {"link", Type::Link}, {"fifo", Type::Other}};
    EXPECT_EQ(read(), expected);
}

TEST_F(DirectoryEntriesTest, TheCallersDescriptorKeepsItsPlaceAndStaysOpen)
{
    EXPECT_EQ(read().size(), 4U);
    EXPECT_EQ(read().size(), 4U);  // read again from the start
    struct stat status {};
    EXPECT_EQ(::fstat(theFd, &status), 0);
}

TEST_F(DirectoryEntriesTest, GivesEachEntrysInodeNumberSoThatLinksToOneFileShareIt)
{
    ASSERT_EQ(::link(theDir.at("file").c_str(), theDir.at("second name").c_str()), 0);
    std::map<std::string, ino_t> inodes;
    DirectoryEntries entries(theFd);
    while (const auto entry = entries.next()) {
        inodes.emplace(std::string(entry->name), entry->inode);
    }
    ASSERT_FALSE(entries.error());
    for (const auto& [name, inode] : inodes) {
        struct stat status {};
        ASSERT_EQ(::fstatat(theFd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW), 0) << name;
        EXPECT_EQ(inode, status.st_ino) << name;
    }
    EXPECT_EQ(inodes.at("file"), inodes.at("second name"));
    EXPECT_NE(inodes.at("file"), inodes.at("folder"));
}

TEST_F(DirectoryEntriesTest, AnEntryOfUnknownTypeIsExaminedWithoutFollowingIt)
{
    // What next() does for a file system that gives no type in its entries.
    EXPECT_EQ(DirectoryEntries::typeOf(theFd, "link", DT_UNKNOWN), Type::Link);
    EXPECT_EQ(DirectoryEntries::typeOf(theFd, "folder", DT_UNKNOWN), Type::Folder);
    EXPECT_EQ(DirectoryEntries::typeOf(theFd, "file", DT_UNKNOWN), Type::File);
    EXPECT_EQ(DirectoryEntries::typeOf(theFd, "fifo", DT_UNKNOWN), Type::Other);
    EXPECT_EQ(DirectoryEntries::typeOf(theFd, "gone", DT_UNKNOWN), std::nullopt);
    // A type the entry gives is taken as it is.
    EXPECT_EQ(DirectoryEntries::typeOf(theFd, "file", DT_DIR), Type::Folder);
}

TEST(DirectoryEntriesFailures, ADescriptorThatIsNoFolderIsAnError)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    const int fd = ::open(dir.at("file").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    DirectoryEntries entries(fd);
    EXPECT_FALSE(entries.next().has_value());
    EXPECT_EQ(entries.error(), std::errc::not_a_directory);
    ::close(fd);
}

}  // namespace
