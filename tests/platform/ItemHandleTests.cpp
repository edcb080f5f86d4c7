// An item opened once: what is read of it and what is changed on it stays of
// that item when its path is made to lead elsewhere, a final link is never
// followed, and nothing that could block or act on a device is opened.
#include "platform/ItemHandle.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "platform/FileAttributeDictionary.h"
#include "platform/FileManager.h"
#include "tests/support/DeepTree.h"
#include "tests/support/FileModes.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/TempDir.h"

namespace {

using platform::ItemHandle;
using testsupport::modeOf;
using testsupport::TempDir;
using testsupport::writeFile;

platform::FileAttributeDictionary permissions(uint64_t mode)
{
    return {{platform::kFilePosixPermissions, platform::FileAttributeValue(mode)}};
}

// A folder "a" holding "file" (mode 0666), and beside it "other" holding a
// file of the same name (mode 0600) that a change must never reach.
class ItemHandleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        writeFile(theDir.at("a/file"), "judged");
        writeFile(theDir.at("other/file"), "elsewhere");
        ASSERT_EQ(::chmod(theDir.at("a/file").c_str(), 0666), 0);
        ASSERT_EQ(::chmod(theDir.at("other/file").c_str(), 0600), 0);
    }

    // Moves "a" away to "moved" and puts a link to "other" in its place, so
    // that the path "a/file" now leads to other/file.
    void swapFolderForLink()
    {
        ASSERT_EQ(std::rename(theDir.at("a").c_str(), theDir.at("moved").c_str()), 0);
        ASSERT_EQ(::symlink(theDir.at("other").c_str(), theDir.at("a").c_str()), 0);
    }

    TempDir theDir;
};

TEST_F(ItemHandleTest, AChangedModeReachesTheFileFirstMetWhenItsFolderIsSwappedForALink)
{
    const auto item = ItemHandle::open(theDir.at("a/file"));
    ASSERT_TRUE(item);
    swapFolderForLink();
    // The folder first met went to "moved" with the file in it.
    EXPECT_FALSE(item->changeMode(0644));
    EXPECT_EQ(modeOf(theDir.at("moved/file")), 0644U);
    EXPECT_EQ(modeOf(theDir.at("other/file")), 0600U);
}

TEST_F(ItemHandleTest, AChangedModeReachesTheFolderFirstMetWhenItIsSwappedForALink)
{
    const auto item = ItemHandle::open(theDir.at("a"));
    ASSERT_TRUE(item);
    ASSERT_EQ(::chmod(theDir.at("other").c_str(), 0700), 0);
    swapFolderForLink();
    EXPECT_FALSE(item->changeMode(0750));
    EXPECT_EQ(modeOf(theDir.at("moved")), 0750U);
    EXPECT_EQ(modeOf(theDir.at("other")), 0700U);
}

TEST_F(ItemHandleTest, AFileReplacedUnderItsNameIsNotChanged)
{
    const auto item = ItemHandle::open(theDir.at("a/file"));
    ASSERT_TRUE(item);
    ASSERT_EQ(std::rename(theDir.at("other/file").c_str(), theDir.at("a/file").c_str()), 0);
    EXPECT_EQ(item->changeMode(0644), std::errc::no_such_file_or_directory);
    EXPECT_EQ(modeOf(theDir.at("a/file")), 0600U);
}

TEST_F(ItemHandleTest, TheFileManagersChangeOfAnOpenItemReachesThatItemOnly)
{
    const auto item = ItemHandle::open(theDir.at("a"));
    ASSERT_TRUE(item);
    swapFolderForLink();
    EXPECT_TRUE(platform::FileManager::defaultManager().changeFileAttributes(permissions(0711), *item));
    EXPECT_EQ(modeOf(theDir.at("moved")), 0711U);
    EXPECT_NE(modeOf(theDir.at("other")), 0711U);
}

TEST_F(ItemHandleTest, TheStatusIsReadFromTheItemNotFromThePath)
{
    const auto item = ItemHandle::open(theDir.at("a/file"));
    ASSERT_TRUE(item);
    ASSERT_EQ(::chmod(theDir.at("a/file").c_str(), 0640), 0);
    swapFolderForLink();
    struct stat status {};
    ASSERT_FALSE(item->status(status));
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    EXPECT_EQ(item->statusWhenOpened().st_mode & 07777, 0666U);
}

TEST_F(ItemHandleTest, AFinalLinkIsTheItemAndItsModeCannotBeChanged)
{
    ASSERT_EQ(::symlink(theDir.at("other/file").c_str(), theDir.at("link").c_str()), 0);
    const auto item = ItemHandle::open(theDir.at("link"));
    ASSERT_TRUE(item);
    EXPECT_TRUE(S_ISLNK(item->statusWhenOpened().st_mode));
    EXPECT_EQ(item->changeMode(0777), std::errc::operation_not_supported);
    EXPECT_EQ(modeOf(theDir.at("other/file")), 0600U);
}

TEST_F(ItemHandleTest, ATrailingSlashNamesTheFolderALinkLeadsTo)
{
    ASSERT_EQ(::symlink(theDir.at("other").c_str(), theDir.at("link").c_str()), 0);
    const auto item = ItemHandle::open(theDir.at("link/"));
    ASSERT_TRUE(item);
    EXPECT_TRUE(S_ISDIR(item->statusWhenOpened().st_mode));
}

TEST_F(ItemHandleTest, DotDotNamesTheFolderAbove)
{
    const auto item = ItemHandle::open(theDir.at("a/.."));
    ASSERT_TRUE(item);
    struct stat expected {};
    ASSERT_EQ(::stat(theDir.path().c_str(), &expected), 0);
    EXPECT_EQ(item->statusWhenOpened().st_ino, expected.st_ino);
}

TEST_F(ItemHandleTest, AFifoIsChangedWithoutWaitingForAWriter)
{
    ASSERT_EQ(::mkfifo(theDir.at("fifo").c_str(), 0622), 0);
    const auto item = ItemHandle::open(theDir.at("fifo"));
    ASSERT_TRUE(item);
    EXPECT_FALSE(item->changeMode(0600));
    EXPECT_EQ(modeOf(theDir.at("fifo")), 0600U);
}

TEST_F(ItemHandleTest, ADeviceIsNeitherOpenedNorChanged)
{
    ASSERT_EQ(::geteuid(), 0U) << "making a device node needs root; the suite runs as root";
    // A device node of the null device in the test's own folder.
    ASSERT_EQ(::mknod(theDir.at("null").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    ASSERT_EQ(::chmod(theDir.at("null").c_str(), 0666), 0);
    const auto item = ItemHandle::open(theDir.at("null"));
    ASSERT_TRUE(item);
    std::error_code error;
    EXPECT_FALSE(item->openForReading(&error).valid());
    EXPECT_EQ(error, std::errc::operation_not_supported);
    EXPECT_EQ(item->changeMode(0600), std::errc::operation_not_supported);
    EXPECT_EQ(modeOf(theDir.at("null")), 0666U);
}

TEST_F(ItemHandleTest, AMissingItemOrAnEmptyPathIsNotOpened)
{
    std::error_code error;
    EXPECT_FALSE(ItemHandle::open(theDir.at("a/missing"), &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_FALSE(ItemHandle::open(theDir.at("missing/file"), &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_FALSE(ItemHandle::open("", &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
}

TEST_F(ItemHandleTest, AnItemBelowAPathLongerThanTheSystemLimitIsOpenedAndChanged)
{
    // Made through descriptors, which no path length limits.
    std::string path;
    const testsupport::Descriptor folder = testsupport::buildLongPath(theDir.path(), 5000, path);
    ASSERT_TRUE(folder.isOpen());
    const int file = ::openat(folder.get(), "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    ::close(file);

    const auto item = ItemHandle::open(path + "/file");
    ASSERT_TRUE(item);
    EXPECT_FALSE(item->changeMode(0640));
    struct stat status {};
    ASSERT_EQ(::fstatat(folder.get(), "file", &status, AT_SYMLINK_NOFOLLOW), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST(ItemHandle, TheModeOfAProtectedFolderOrOfAnItemInTheSystemsTreesIsLeftAlone)
{
    // Read only: nothing of the real system is changed by asking.
    const auto temporary = ItemHandle::open("/tmp");
    ASSERT_TRUE(temporary);
    EXPECT_TRUE(temporary->reasonToLeaveModeAlone());
    const auto program = ItemHandle::open("/usr/bin/env");
    ASSERT_TRUE(program);
    EXPECT_EQ(program->reasonToLeaveModeAlone(), std::optional<std::string>("it lies in the system's tree /usr"));
}

TEST_F(ItemHandleTest, TheModeOfAnOrdinaryItemMayBeChanged)
{
    const auto item = ItemHandle::open(theDir.at("a/file"));
    ASSERT_TRUE(item);
    EXPECT_EQ(item->reasonToLeaveModeAlone(), std::nullopt);
}

TEST_F(ItemHandleTest, AnItemItsUserMayNotReadCannotBeChanged)
{
    ASSERT_EQ(::chmod(theDir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(theDir.at("a").c_str(), 0755), 0);
    ASSERT_EQ(::chown(theDir.at("a/file").c_str(), testsupport::kUnprivilegedUser, testsupport::kUnprivilegedGroup), 0);
    ASSERT_EQ(::chmod(theDir.at("a/file").c_str(), 0200), 0);
    const std::string path = theDir.at("a/file");
    EXPECT_EQ(testsupport::runUnprivileged([&] {
                  const auto item = ItemHandle::open(path);
                  return item && item->changeMode(0600) == std::errc::permission_denied ? 0 : 1;
              }),
              0);
    EXPECT_EQ(modeOf(path), 0200U);
}

}  // namespace
