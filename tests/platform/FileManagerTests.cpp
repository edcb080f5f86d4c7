#include "platform/FileManager.h"

#include "tests/support/RunUnprivileged.h"
#include "tests/support/FileModes.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <pwd.h>
#include <string>
#include <string_view>
#include <system_error>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using testsupport::modeOf;
using testsupport::ScopedUmask;
using testsupport::setImmutableFlag;

using testsupport::present;

using platform::FileManager;
using platform::FileType;
using testsupport::makeDirectories;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

FileManager& fm()
{
    return FileManager::defaultManager();
}

using Names = std::vector<std::string>;

TEST(FileManager, DefaultManagerIsOneInstance)
{
    EXPECT_EQ(&FileManager::defaultManager(), &FileManager::defaultManager());
}

TEST(FileManagerExistence, FileExistsAndIsNotAFolder)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    bool isDirectory = true;
    EXPECT_TRUE(fm().fileExistsAtPath(dir.at("file")));
    EXPECT_TRUE(fm().fileExistsAtPath(dir.at("file"), &isDirectory));
    EXPECT_FALSE(isDirectory);
}

TEST(FileManagerExistence, FolderExistsAndIsAFolder)
{
    TempDir dir;
    bool isDirectory = false;
    EXPECT_TRUE(fm().fileExistsAtPath(dir.path(), &isDirectory));
    EXPECT_TRUE(isDirectory);
}

TEST(FileManagerExistence, MissingPathDoesNotExist)
{
    TempDir dir;
    bool isDirectory = true;
    EXPECT_FALSE(fm().fileExistsAtPath(dir.at("missing")));
    EXPECT_FALSE(fm().fileExistsAtPath(dir.at("missing"), &isDirectory));
    EXPECT_FALSE(isDirectory);
    EXPECT_FALSE(fm().fileExistsAtPath(""));
}

TEST(FileManagerExistence, FinalLinkIsFollowed)
{
    TempDir dir;
    makeDirectories(dir.at("folder"));
    ASSERT_EQ(::symlink(dir.at("folder").c_str(), dir.at("link").c_str()), 0);
    ASSERT_EQ(::symlink(dir.at("missing").c_str(), dir.at("dangling").c_str()), 0);
    bool isDirectory = false;
    EXPECT_TRUE(fm().fileExistsAtPath(dir.at("link"), &isDirectory));
    EXPECT_TRUE(isDirectory);
    EXPECT_FALSE(fm().fileExistsAtPath(dir.at("dangling")));
}

TEST(FileManagerAttributes, RegularFileSizePermissionsAndOwner)
{
    TempDir dir;
    writeFile(dir.at("file"), "12345");
    ASSERT_EQ(::chmod(dir.at("file").c_str(), 04751), 0);
    const auto attributes = fm().attributesOfItemAtPath(dir.at("file"));
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->type, FileType::Regular);
    EXPECT_EQ(attributes->size, 5U);
    EXPECT_EQ(attributes->posixPermissions, 04751U);
    EXPECT_EQ(attributes->ownerAccountID, ::geteuid());
    const passwd* me = ::getpwuid(::geteuid());
    ASSERT_NE(me, nullptr);
    EXPECT_EQ(attributes->ownerAccountName, std::string(me->pw_name));
    EXPECT_FALSE(attributes->immutable);
}

TEST(FileManagerAttributes, FolderWithStickyBit)
{
    TempDir dir;
    makeDirectories(dir.at("folder"));
    ASSERT_EQ(::chmod(dir.at("folder").c_str(), 01777), 0);
    const auto attributes = fm().attributesOfItemAtPath(dir.at("folder"));
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->type, FileType::Directory);
    EXPECT_EQ(attributes->posixPermissions, 01777U);
}

TEST(FileManagerAttributes, LinkIsDescribedItselfNotItsTarget)
{
    TempDir dir;
    makeDirectories(dir.at("folder"));
    ASSERT_EQ(::symlink("folder", dir.at("link").c_str()), 0);
    const auto attributes = fm().attributesOfItemAtPath(dir.at("link"));
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->type, FileType::SymbolicLink);
    EXPECT_EQ(attributes->size, 6U);  // the length of "folder"
    EXPECT_FALSE(attributes->immutable);
}

TEST(FileManagerAttributes, FifoAndMissingPath)
{
    TempDir dir;
    ASSERT_EQ(::mkfifo(dir.at("fifo").c_str(), 0600), 0);
    const auto attributes = fm().attributesOfItemAtPath(dir.at("fifo"));
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->type, FileType::Fifo);
    EXPECT_FALSE(fm().attributesOfItemAtPath(dir.at("missing")));
    EXPECT_FALSE(fm().attributesOfItemAtPath(""));
}

TEST(FileManagerAttributes, CharacterDeviceType)
{
    const auto attributes = fm().attributesOfItemAtPath("/dev/null");
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->type, FileType::CharacterSpecial);
}

TEST(FileManagerAttributes, OwnerWithoutAccountHasNoName)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "changing the owner needs root";
    }
    uid_t unknown = 54321;
    while (::getpwuid(unknown) != nullptr) {
        ++unknown;
    }
    TempDir dir;
    writeFile(dir.at("file"), "x");
    ASSERT_EQ(::chown(dir.at("file").c_str(), unknown, 0), 0);
    const auto attributes = fm().attributesOfItemAtPath(dir.at("file"));
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->ownerAccountID, unknown);
    EXPECT_FALSE(attributes->ownerAccountName);
}

TEST(FileManagerAttributes, ImmutableFlagIsReported)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    if (!setImmutableFlag(dir.at("file"), true)) {
        GTEST_SKIP() << "the immutable flag cannot be set here";
    }
    const auto attributes = fm().attributesOfItemAtPath(dir.at("file"));
    setImmutableFlag(dir.at("file"), false);
    ASSERT_TRUE(attributes);
    EXPECT_TRUE(attributes->immutable);
}

TEST(FileManagerPermissions, SetsTheModeWithSpecialBits)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    EXPECT_TRUE(fm().setPosixPermissions(dir.at("file"), 02640));
    EXPECT_EQ(modeOf(dir.at("file")), 02640U);
    EXPECT_FALSE(fm().setPosixPermissions(dir.at("missing"), 0644));
}

TEST(FileManagerRemove, RemovesAFolderWithEverythingInIt)
{
    TempDir dir;
    writeFile(dir.at("folder/a/b/file"), "x");
    writeFile(dir.at("folder/top"), "y");
    EXPECT_TRUE(fm().removeItemAtPath(dir.at("folder")));
    EXPECT_FALSE(present(dir.at("folder")));
}

TEST(FileManagerRemove, RemovesAnEmptyFolderAndAFile)
{
    TempDir dir;
    makeDirectories(dir.at("empty"));
    writeFile(dir.at("file"), "x");
    EXPECT_TRUE(fm().removeItemAtPath(dir.at("empty")));
    EXPECT_TRUE(fm().removeItemAtPath(dir.at("file")));
    EXPECT_FALSE(present(dir.at("empty")));
    EXPECT_FALSE(present(dir.at("file")));
}

TEST(FileManagerRemove, RemovesALinkButNotItsTarget)
{
    TempDir dir;
    writeFile(dir.at("target/keep"), "keep");
    ASSERT_EQ(::symlink(dir.at("target").c_str(), dir.at("link").c_str()), 0);
    EXPECT_TRUE(fm().removeItemAtPath(dir.at("link")));
    EXPECT_FALSE(present(dir.at("link")));
    EXPECT_EQ(readFile(dir.at("target/keep")), "keep");
}

TEST(FileManagerRemoveEmptyFolder, AnEmptyFolderGoesAndAFolderThatIsNotEmptyStaysWithEverythingInIt)
{
    TempDir dir;
    makeDirectories(dir.at("empty"));
    writeFile(dir.at("full/.hidden"), "x");
    std::error_code error;
    EXPECT_TRUE(fm().removeEmptyFolderAtPath(dir.at("empty"), &error));
    EXPECT_FALSE(error);
    EXPECT_FALSE(present(dir.at("empty")));
    EXPECT_FALSE(fm().removeEmptyFolderAtPath(dir.at("full"), &error));
    EXPECT_EQ(error, std::errc::directory_not_empty);
    EXPECT_EQ(readFile(dir.at("full/.hidden")), "x");
}

TEST(FileManagerRemoveEmptyFolder, ALinkGoesItselfAndAFileStays)
{
    TempDir dir;
    makeDirectories(dir.at("target"));
    writeFile(dir.at("file"), "x");
    ASSERT_EQ(::symlink(dir.at("target").c_str(), dir.at("link").c_str()), 0);
    std::error_code error;
    EXPECT_TRUE(fm().removeEmptyFolderAtPath(dir.at("link"), &error));
    EXPECT_FALSE(present(dir.at("link")));
    EXPECT_TRUE(present(dir.at("target")));
    EXPECT_FALSE(fm().removeEmptyFolderAtPath(dir.at("file"), &error));
    EXPECT_EQ(error, std::errc::not_a_directory);
    EXPECT_TRUE(present(dir.at("file")));
}

TEST(FileManagerRemoveEmptyFolder, DotDotIsRefused)
{
    TempDir dir;
    makeDirectories(dir.at("folder/sub"));
    std::error_code error;
    EXPECT_FALSE(fm().removeEmptyFolderAtPath(dir.at("folder/sub/.."), &error));
    EXPECT_EQ(error, std::errc::invalid_argument);
    EXPECT_TRUE(present(dir.at("folder/sub")));
}

TEST(FileManagerRemove, MissingPathIsFalse)
{
    TempDir dir;
    EXPECT_FALSE(fm().removeItemAtPath(dir.at("missing")));
}

TEST(FileManagerRemove, DotAndDotDotLastComponentsAreRefused)
{
    TempDir dir;
    writeFile(dir.at("folder/sub/file"), "x");
    EXPECT_FALSE(fm().removeItemAtPath(dir.at("folder/sub/.")));
    EXPECT_FALSE(fm().removeItemAtPath(dir.at("folder/sub/..")));
    EXPECT_FALSE(fm().removeItemAtPath(""));
    EXPECT_EQ(readFile(dir.at("folder/sub/file")), "x");
}

TEST(FileManagerMove, MovesAFile)
{
    TempDir dir;
    writeFile(dir.at("from"), "x");
    EXPECT_TRUE(fm().moveItemAtPath(dir.at("from"), dir.at("to")));
    EXPECT_FALSE(present(dir.at("from")));
    EXPECT_EQ(readFile(dir.at("to")), "x");
}

TEST(FileManagerMove, MovesAFolder)
{
    TempDir dir;
    writeFile(dir.at("from/file"), "x");
    EXPECT_TRUE(fm().moveItemAtPath(dir.at("from"), dir.at("to")));
    EXPECT_EQ(readFile(dir.at("to/file")), "x");
}

TEST(FileManagerMove, MissingSourceIsFalse)
{
    TempDir dir;
    EXPECT_FALSE(fm().moveItemAtPath(dir.at("missing"), dir.at("to")));
    EXPECT_FALSE(present(dir.at("to")));
}

TEST(FileManagerCreateDirectory, ModeGivenIsSetExactlyDespiteTheUmask)
{
    const ScopedUmask umask(077);
    TempDir dir;
    EXPECT_TRUE(fm().createDirectoryAtPath(dir.at("folder"), 0775));
    EXPECT_EQ(modeOf(dir.at("folder")), 0775U);
    EXPECT_TRUE(fm().createDirectoryAtPath(dir.at("sticky"), 01777));
    EXPECT_EQ(modeOf(dir.at("sticky")), 01777U);
}

TEST(FileManagerCreateDirectory, DefaultModeFollowsTheUmask)
{
    const ScopedUmask umask(027);
    TempDir dir;
    EXPECT_TRUE(fm().createDirectoryAtPath(dir.at("folder")));
    EXPECT_EQ(modeOf(dir.at("folder")), 0750U);
    bool isDirectory = false;
    EXPECT_TRUE(fm().fileExistsAtPath(dir.at("folder"), &isDirectory));
    EXPECT_TRUE(isDirectory);
}

TEST(FileManagerCreateDirectory, MissingParentOrExistingPathIsFalse)
{
    TempDir dir;
    EXPECT_FALSE(fm().createDirectoryAtPath(dir.at("missing/folder")));
    EXPECT_FALSE(present(dir.at("missing")));
    EXPECT_FALSE(fm().createDirectoryAtPath(dir.path()));
}

TEST(FileManagerCreateDirectory, DotDotOrTheRootNamesAFolderThatExistsAlready)
{
    TempDir dir;
    makeDirectories(dir.at("folder/sub"));
    std::error_code error;
    EXPECT_FALSE(fm().createDirectoryAtPath(dir.at("folder/sub/.."), 0700, &error));
    EXPECT_EQ(error, std::errc::file_exists);
    EXPECT_FALSE(fm().createDirectoryAtPath("/", 0700, &error));
    EXPECT_EQ(error, std::errc::file_exists);
    EXPECT_NE(modeOf(dir.at("folder")), 0700U);
}

TEST(FileManagerCreateDirectory, ALinkPlantedWhereTheFolderIsToBeMadeIsNeitherFollowedNorChanged)
{
    TempDir dir;
    makeDirectories(dir.at("target"));
    ASSERT_EQ(::chmod(dir.at("target").c_str(), 0755), 0);
    ASSERT_EQ(::symlink(dir.at("target").c_str(), dir.at("new").c_str()), 0);
    std::error_code error;
    EXPECT_FALSE(fm().createDirectoryAtPath(dir.at("new"), 0700, &error));
    EXPECT_EQ(error, std::errc::file_exists);
    EXPECT_EQ(modeOf(dir.at("target")), 0755U);
}

TEST(FileManagerMove, APathThatNamesNoEntryOfAFolderIsNotMoved)
{
    TempDir dir;
    makeDirectories(dir.at("folder/sub"));
    std::error_code error;
    EXPECT_FALSE(fm().moveItemAtPath(dir.at("folder/sub/.."), dir.at("moved"), &error));
    EXPECT_EQ(error, std::errc::invalid_argument);
    EXPECT_FALSE(fm().moveItemAtPath(dir.at("folder/sub"), dir.at("folder/sub/.."), &error));
    EXPECT_EQ(error, std::errc::invalid_argument);
    EXPECT_TRUE(present(dir.at("folder/sub")));
    EXPECT_FALSE(present(dir.at("moved")));
}

TEST(FileManagerMove, AnItemMovesBetweenFoldersAndALinkMovesItself)
{
    TempDir dir;
    writeFile(dir.at("a/file"), "x");
    makeDirectories(dir.at("b"));
    ASSERT_EQ(::symlink("file", dir.at("a/link").c_str()), 0);
    EXPECT_TRUE(fm().moveItemAtPath(dir.at("a/file"), dir.at("b/file")));
    EXPECT_TRUE(fm().moveItemAtPath(dir.at("a/link"), dir.at("b/link")));
    EXPECT_EQ(readFile(dir.at("b/file")), "x");
    EXPECT_EQ(readFile(dir.at("b/link")), "x");
    EXPECT_FALSE(present(dir.at("a/file")));
}

TEST(FileManagerCreateFile, WritesTheContents)
{
    TempDir dir;
    const std::string contents("binary\0data\n", 12);
    EXPECT_TRUE(fm().createFileAtPath(dir.at("file"), contents));
    EXPECT_EQ(readFile(dir.at("file")), contents);
}

TEST(FileManagerCreateFile, ReplacesAnExistingFile)
{
    TempDir dir;
    writeFile(dir.at("file"), "a much longer old content");
    EXPECT_TRUE(fm().createFileAtPath(dir.at("file"), "new"));
    EXPECT_EQ(readFile(dir.at("file")), "new");
}

TEST(FileManagerCreateFile, ModeGivenIsSetExactlyDespiteTheUmask)
{
    const ScopedUmask umask(077);
    TempDir dir;
    EXPECT_TRUE(fm().createFileAtPath(dir.at("file"), "x", 0664));
    EXPECT_EQ(modeOf(dir.at("file")), 0664U);
}

TEST(FileManagerCreateFile, DefaultModeFollowsTheUmask)
{
    const ScopedUmask umask(022);
    TempDir dir;
    EXPECT_TRUE(fm().createFileAtPath(dir.at("file"), "x"));
    EXPECT_EQ(modeOf(dir.at("file")), 0644U);
}

TEST(FileManagerCreateFile, MissingParentIsFalse)
{
    TempDir dir;
    EXPECT_FALSE(fm().createFileAtPath(dir.at("missing/file"), "x"));
}

TEST(FileManagerContentsOfDirectory, SortedNamesWithoutDots)
{
    TempDir dir;
    writeFile(dir.at("folder/b"), "");
    writeFile(dir.at("folder/a/inner"), "");
    writeFile(dir.at("folder/.hidden"), "");
    writeFile(dir.at("folder/C"), "");
    EXPECT_EQ(fm().contentsOfDirectoryAtPath(dir.at("folder")), (Names{".hidden", "C", "a", "b"}));
}

TEST(FileManagerContentsOfDirectory, EmptyFolderIsAnEmptyList)
{
    TempDir dir;
    const auto names = fm().contentsOfDirectoryAtPath(dir.path());
    ASSERT_TRUE(names);
    EXPECT_TRUE(names->empty());
}

TEST(FileManagerContentsOfDirectory, NonFolderOrMissingPathIsNone)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    EXPECT_FALSE(fm().contentsOfDirectoryAtPath(dir.at("file")));
    EXPECT_FALSE(fm().contentsOfDirectoryAtPath(dir.at("missing")));
    EXPECT_FALSE(fm().contentsOfDirectoryAtPath(""));
}

TEST(FileManagerContentsOfDirectory, UnreadableFolderIsNone)
{
    TempDir dir;
    makeDirectories(dir.at("locked"));
    writeFile(dir.at("open/file"), "");
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(dir.at("locked").c_str(), 0), 0);
    // Root reads every folder: the check runs as a user who may not.
    const std::string locked = dir.at("locked");
    const std::string open = dir.at("open");
    const int status = testsupport::runUnprivileged([&locked, &open] {
        if (fm().contentsOfDirectoryAtPath(locked)) {
            return 1;
        }
        // The same user lists a folder it may read.
        return fm().contentsOfDirectoryAtPath(open) == Names{"file"} ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
    ::chmod(dir.at("locked").c_str(), 0755);
}

TEST(FileManagerEnumerator, EachFolderBeforeItsContentsSortedWithinAFolder)
{
    TempDir dir;
    writeFile(dir.at("root/b"), "");
    writeFile(dir.at("root/a/z"), "");
    writeFile(dir.at("root/a/y/deep"), "");
    writeFile(dir.at("root/a.b"), "");
    makeDirectories(dir.at("root/c"));
    EXPECT_EQ(fm().enumeratorAtPath(dir.at("root")), (Names{"a", "a/y", "a/y/deep", "a/z", "a.b", "b", "c"}));
}

TEST(FileManagerEnumerator, LinksAreListedButNotEntered)
{
    TempDir dir;
    writeFile(dir.at("outside/secret"), "");
    makeDirectories(dir.at("root"));
    ASSERT_EQ(::symlink(dir.at("outside").c_str(), dir.at("root/link").c_str()), 0);
    EXPECT_EQ(fm().enumeratorAtPath(dir.at("root")), (Names{"link"}));
}

TEST(FileManagerEnumerator, NonFolderIsNone)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    EXPECT_FALSE(fm().enumeratorAtPath(dir.at("file")));
    EXPECT_FALSE(fm().enumeratorAtPath(dir.at("missing")));
    makeDirectories(dir.at("empty"));
    const auto empty = fm().enumeratorAtPath(dir.at("empty"));
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->empty());
}

TEST(FileManagerContents, WholeFile)
{
    TempDir dir;
    std::string big(1 << 20, '\0');
    for (std::size_t i = 0; i < big.size(); ++i) {
        big[i] = static_cast<char>(i * 7);
    }
    writeFile(dir.at("big"), big);
    EXPECT_EQ(fm().contentsAtPath(dir.at("big")), big);
    writeFile(dir.at("empty"), "");
    EXPECT_EQ(fm().contentsAtPath(dir.at("empty")), std::string());
}

TEST(FileManagerContents, MissingOrFolderIsNone)
{
    TempDir dir;
    EXPECT_FALSE(fm().contentsAtPath(dir.at("missing")));
    EXPECT_FALSE(fm().contentsAtPath(dir.path()));
}

TEST(FileManagerReasons, ChangesGiveTheReasonOfAFailure)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    std::error_code error;
    EXPECT_FALSE(fm().setPosixPermissions(dir.at("missing"), 0644, &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_FALSE(fm().moveItemAtPath(dir.at("missing"), dir.at("other"), &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_FALSE(fm().createDirectoryAtPath(dir.at("file"), std::nullopt, &error));
    EXPECT_EQ(error, std::errc::file_exists);
    EXPECT_FALSE(fm().createFileAtPath(dir.at("no/such/folder"), "x", std::nullopt, &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_FALSE(fm().contentsAtPath(dir.at("missing"), &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_FALSE(fm().contentsAtPath(dir.path(), &error));
    EXPECT_EQ(error, std::errc::is_a_directory);
    EXPECT_FALSE(fm().removeItemAtPath(dir.at("missing"), &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_FALSE(fm().removeItemAtPath("", &error));
    EXPECT_EQ(error, std::errc::invalid_argument);
    EXPECT_FALSE(fm().createFileAtPath("", "x", std::nullopt, &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
}

TEST(FileManagerReasons, SuccessClearsTheReason)
{
    TempDir dir;
    std::error_code error = std::make_error_code(std::errc::permission_denied);
    EXPECT_TRUE(fm().createDirectoryAtPath(dir.at("folder"), 0700, &error));
    EXPECT_FALSE(error);
    error = std::make_error_code(std::errc::permission_denied);
    EXPECT_TRUE(fm().createFileAtPath(dir.at("folder/file"), "x", 0600, &error));
    EXPECT_FALSE(error);
    error = std::make_error_code(std::errc::permission_denied);
    EXPECT_EQ(fm().contentsAtPath(dir.at("folder/file"), &error), "x");
    EXPECT_FALSE(error);
    error = std::make_error_code(std::errc::permission_denied);
    EXPECT_TRUE(fm().removeItemAtPath(dir.at("folder"), &error));
    EXPECT_FALSE(error);
}

TEST(FileManagerReasons, ReadOnlyFolderRefusesAnotherUserWithPermissionDenied)
{
    TempDir dir;
    writeFile(dir.at("locked/file"), "x");
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    const std::string locked = dir.at("locked");
    const int status = testsupport::runUnprivileged([&locked] {
        std::error_code error;
        if (fm().removeItemAtPath(locked + "/file", &error) || error != std::errc::permission_denied) {
            return 1;
        }
        if (fm().createDirectoryAtPath(locked + "/new", std::nullopt, &error) ||
            error != std::errc::permission_denied) {
            return 2;
        }
        if (fm().setPosixPermissions(locked, 0777, &error) || error != std::errc::operation_not_permitted) {
            return 3;
        }
        return 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(dir.at("locked/file")), "x");
}

TEST(FileManagerWriteFileAtomically, ReplacesTheWholeFileAndLeavesNothingBeside)
{
    TempDir dir;
    writeFile(dir.at("folder/file"), "old contents");
    std::error_code error = std::make_error_code(std::errc::permission_denied);
    EXPECT_TRUE(fm().writeFileAtomically(dir.at("folder/file"), "new", &error));
    EXPECT_FALSE(error);
    EXPECT_EQ(readFile(dir.at("folder/file")), "new");
    EXPECT_EQ(fm().contentsOfDirectoryAtPath(dir.at("folder")), Names{"file"});
    EXPECT_TRUE(fm().writeFileAtomically(dir.at("folder/created"), std::string_view("a\0b", 3)));
    EXPECT_EQ(readFile(dir.at("folder/created")), std::string("a\0b", 3));
}

TEST(FileManagerWriteFileAtomically, FailureLeavesThePathAsItWasAndSaysWhy)
{
    TempDir dir;
    makeDirectories(dir.at("folder/target"));
    std::error_code error;
    EXPECT_FALSE(fm().writeFileAtomically(dir.at("missing/file"), "x", &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    // Renaming a file over a folder fails: the temporary file goes again.
    EXPECT_FALSE(fm().writeFileAtomically(dir.at("folder/target"), "x", &error));
    EXPECT_EQ(error, std::errc::is_a_directory);
    EXPECT_EQ(fm().contentsOfDirectoryAtPath(dir.at("folder")), Names{"target"});
}

}  // namespace
