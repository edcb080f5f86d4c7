// The file manager's attributes as values of several kinds, changing them
// without following a final link, and creating items with given attributes.
#include "platform/FileAttributeDictionary.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/FileManager.h"
#include "platform/User.h"
#include "tests/support/FileModes.h"
#include "tests/support/TempDir.h"

namespace {

using platform::FileAttributeDictionary;
using platform::FileAttributeValue;
using platform::FileManager;
using testsupport::TempDir;
using testsupport::writeFile;

using testsupport::modeOf;
using testsupport::ScopedUmask;
using testsupport::setImmutableFlag;

using testsupport::present;

FileManager& fm()
{
    return FileManager::defaultManager();
}

FileAttributeDictionary permissions(uint64_t mode)
{
    return {{platform::kFilePosixPermissions, FileAttributeValue(mode)}};
}

TEST(FileAttributeDictionary, AFileHasEachAttributeAsAValueOfItsKind)
{
    TempDir dir;
    writeFile(dir.at("file"), "12345");
    ASSERT_EQ(::chmod(dir.at("file").c_str(), 04751), 0);
    const auto attributes = fm().fileAttributesAtPath(dir.at("file"));
    ASSERT_TRUE(attributes);
    EXPECT_EQ(platform::stringForKey(*attributes, platform::kFileType), platform::kFileTypeRegular);
    EXPECT_EQ(platform::numberForKey(*attributes, platform::kFileSize), 5U);
    EXPECT_EQ(platform::numberForKey(*attributes, platform::kFilePosixPermissions), 04751U);
    EXPECT_EQ(platform::numberForKey(*attributes, platform::kFileOwnerAccountID), uint64_t{::geteuid()});
    EXPECT_EQ(platform::stringForKey(*attributes, platform::kFileOwnerAccountName), platform::userName());
    ASSERT_TRUE(attributes->contains(platform::kFileImmutable));
    EXPECT_TRUE(std::holds_alternative<bool>(attributes->at(platform::kFileImmutable)));
    EXPECT_FALSE(std::get<bool>(attributes->at(platform::kFileImmutable)));
    ASSERT_TRUE(attributes->contains(platform::kFileModificationDate));
    EXPECT_TRUE(std::holds_alternative<platform::Date>(attributes->at(platform::kFileModificationDate)));
}

TEST(FileAttributeDictionary, AValueOfAnotherKindIsNoNumberAndNoText)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    const auto attributes = fm().fileAttributesAtPath(dir.at("file"));
    ASSERT_TRUE(attributes);
    EXPECT_FALSE(platform::numberForKey(*attributes, platform::kFileType));
    EXPECT_FALSE(platform::stringForKey(*attributes, platform::kFileSize));
    EXPECT_FALSE(platform::numberForKey(*attributes, platform::kFileImmutable));
    EXPECT_FALSE(platform::numberForKey(*attributes, "NSFileNoSuchKey"));
}

TEST(FileAttributeDictionary, TheImmutableFlagIsTrueWhileTheFileSystemHasItSet)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    ASSERT_TRUE(setImmutableFlag(dir.at("file"), true));
    const auto attributes = fm().fileAttributesAtPath(dir.at("file"));
    ASSERT_TRUE(setImmutableFlag(dir.at("file"), false));
    ASSERT_TRUE(attributes);
    ASSERT_TRUE(std::holds_alternative<bool>(attributes->at(platform::kFileImmutable)));
    EXPECT_TRUE(std::get<bool>(attributes->at(platform::kFileImmutable)));
}

TEST(FileAttributeDictionary, ALinkHasItsOwnAttributesNotItsTargets)
{
    TempDir dir;
    writeFile(dir.at("target"), "a longer target");
    ASSERT_EQ(::symlink("target", dir.at("link").c_str()), 0);
    const auto attributes = fm().fileAttributesAtPath(dir.at("link"));
    ASSERT_TRUE(attributes);
    EXPECT_EQ(platform::stringForKey(*attributes, platform::kFileType), platform::kFileTypeSymbolicLink);
    EXPECT_EQ(platform::numberForKey(*attributes, platform::kFileSize), 6U);
    EXPECT_EQ(platform::numberForKey(*attributes, platform::kFilePosixPermissions), 0777U);
}

TEST(FileAttributeDictionary, ADirectoryAndAPipeHaveTheirTypeNames)
{
    TempDir dir;
    ASSERT_EQ(::mkdir(dir.at("folder").c_str(), 0755), 0);
    ASSERT_EQ(::mkfifo(dir.at("pipe").c_str(), 0644), 0);
    EXPECT_EQ(platform::stringForKey(*fm().fileAttributesAtPath(dir.at("folder")), platform::kFileType),
              platform::kFileTypeDirectory);
    EXPECT_EQ(platform::stringForKey(*fm().fileAttributesAtPath(dir.at("pipe")), platform::kFileType),
              platform::kFileTypeUnknown);
}

TEST(FileAttributeDictionary, AMissingPathHasNoAttributes)
{
    TempDir dir;
    EXPECT_FALSE(fm().fileAttributesAtPath(dir.at("missing")));
    EXPECT_FALSE(fm().fileAttributesAtPath(""));
}

TEST(FileManagerChangeAttributes, PermissionsAreSetWithTheSetIdAndStickyBits)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    EXPECT_TRUE(fm().changeFileAttributes(permissions(06711), dir.at("file")));
    EXPECT_EQ(modeOf(dir.at("file")), 06711U);
    EXPECT_TRUE(fm().changeFileAttributes(permissions(01700), dir.at("file")));
    EXPECT_EQ(modeOf(dir.at("file")), 01700U);
}

TEST(FileManagerChangeAttributes, ALinkIsNotFollowedAndItsTargetKeepsItsMode)
{
    TempDir dir;
    writeFile(dir.at("target"), "x");
    ASSERT_EQ(::chmod(dir.at("target").c_str(), 0644), 0);
    ASSERT_EQ(::symlink("target", dir.at("link").c_str()), 0);
    EXPECT_FALSE(fm().changeFileAttributes(permissions(0777), dir.at("link")));
    EXPECT_EQ(modeOf(dir.at("target")), 0644U);
}

TEST(FileManagerChangeAttributes, AValueOfTheWrongKindOrAnUnknownKeyChangesNothing)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    ASSERT_EQ(::chmod(dir.at("file").c_str(), 0644), 0);
    EXPECT_FALSE(fm().changeFileAttributes({{platform::kFilePosixPermissions, FileAttributeValue(std::string("0777"))}},
                                           dir.at("file")));
    EXPECT_FALSE(fm().changeFileAttributes({{platform::kFileSize, FileAttributeValue(uint64_t{0})}}, dir.at("file")));
    EXPECT_FALSE(fm().changeFileAttributes(permissions(010000), dir.at("file")));
    EXPECT_EQ(modeOf(dir.at("file")), 0644U);
}

TEST(FileManagerChangeAttributes, AMissingPathFails)
{
    TempDir dir;
    EXPECT_FALSE(fm().changeFileAttributes(permissions(0700), dir.at("missing")));
}

TEST(FileManagerCreateWithAttributes, ADirectoryGetsExactlyMode0700UnderUmask0277)
{
    const ScopedUmask umask(0277);
    TempDir dir;
    EXPECT_TRUE(fm().createDirectoryWithAttributes(dir.at("folder"), permissions(0700)));
    EXPECT_EQ(modeOf(dir.at("folder")), 0700U);
}

TEST(FileManagerCreateWithAttributes, AFileGetsExactlyMode0700UnderUmask0277)
{
    const ScopedUmask umask(0277);
    TempDir dir;
    EXPECT_TRUE(fm().createFileWithAttributes(dir.at("file"), "contents", permissions(0700)));
    EXPECT_EQ(modeOf(dir.at("file")), 0700U);
    EXPECT_EQ(testsupport::readFile(dir.at("file")), "contents");
}

TEST(FileManagerCreateWithAttributes, ADirectoryNeedsItsParent)
{
    TempDir dir;
    EXPECT_FALSE(fm().createDirectoryWithAttributes(dir.at("no/folder"), permissions(0700)));
    EXPECT_FALSE(present(dir.at("no")));
}

TEST(FileManagerCreateWithAttributes, AFileIsNeverCreatedThroughALinkOrOverAnItem)
{
    TempDir dir;
    writeFile(dir.at("existing"), "kept");
    ASSERT_EQ(::symlink("elsewhere", dir.at("link").c_str()), 0);
    EXPECT_FALSE(fm().createFileWithAttributes(dir.at("existing"), "new", permissions(0700)));
    EXPECT_FALSE(fm().createFileWithAttributes(dir.at("link"), "new", permissions(0700)));
    EXPECT_EQ(testsupport::readFile(dir.at("existing")), "kept");
    EXPECT_FALSE(present(dir.at("elsewhere")));
}

TEST(FileManagerCreateWithAttributes, AttributesThatCannotBeSetCreateNothing)
{
    TempDir dir;
    const FileAttributeDictionary wrongKind{{platform::kFilePosixPermissions, FileAttributeValue(true)}};
    EXPECT_FALSE(fm().createDirectoryWithAttributes(dir.at("folder"), wrongKind));
    EXPECT_FALSE(fm().createFileWithAttributes(dir.at("file"), "", wrongKind));
    EXPECT_FALSE(present(dir.at("folder")));
    EXPECT_FALSE(present(dir.at("file")));
}

TEST(UserSearchPath, AUserWithoutAPasswordEntryHasNoLibraryFolder)
{
    // A child takes an id that the password database does not know.
    const uid_t unknown = 43210;
    ASSERT_EQ(::getpwuid(unknown), nullptr);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::setresuid(unknown, unknown, unknown) != 0) {
            ::_exit(2);
        }
        const auto found = platform::searchPathForDirectoriesInDomains(platform::SearchPathDirectory::Library,
                                                                       platform::SearchPathDomainMask::User, true);
        ::_exit(found.empty() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
