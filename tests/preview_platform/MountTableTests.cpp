#include "platform/preview/MountTable.h"

#include "platform/MountPoint.h"
#include "tests/support/PrivateMountNamespace.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using platform::MountEntry;
using platform::MountTable;
using testsupport::makeDirectories;
using testsupport::TempDir;

// A mount with no other field set, for the option checks.
MountEntry withOptions(std::string mountOptions, std::string superOptions)
{
    MountEntry entry;
    entry.mountOptions = std::move(mountOptions);
    entry.superOptions = std::move(superOptions);
    return entry;
}

std::vector<std::string> mountPointsOf(const std::vector<MountEntry>& entries)
{
    std::vector<std::string> points;
    for (const MountEntry& entry : entries) {
        points.push_back(entry.mountPoint);
    }
    return points;
}

TEST(MountTableParse, ALineWithOneOptionalFieldGivesEveryField)
{
    const std::vector<MountEntry> entries =
        MountTable::parse("36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue\n");
    ASSERT_EQ(entries.size(), 1U);
    const MountEntry& entry = entries[0];
    EXPECT_EQ(entry.mountId, 36U);
    EXPECT_EQ(entry.parentId, 35U);
    EXPECT_EQ(entry.device, "98:0");
    EXPECT_EQ(entry.root, "/mnt1");
    EXPECT_EQ(entry.mountPoint, "/mnt2");
    EXPECT_EQ(entry.mountOptions, "rw,noatime");
    EXPECT_EQ(entry.fileSystemType, "ext3");
    EXPECT_EQ(entry.source, "/dev/root");
    EXPECT_EQ(entry.superOptions, "rw,errors=continue");
}

TEST(MountTableParse, SeveralOptionalFieldsAreSkippedUpToTheHyphen)
{
    const std::vector<MountEntry> entries = MountTable::parse(
        "512 27 0:44 / /srv/data rw,nosuid shared:7 master:3 propagate_from:2 unbindable - xfs /dev/sdb1 rw,attr2\n");
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].mountId, 512U);
    EXPECT_EQ(entries[0].parentId, 27U);
    EXPECT_EQ(entries[0].device, "0:44");
    EXPECT_EQ(entries[0].mountPoint, "/srv/data");
    EXPECT_EQ(entries[0].mountOptions, "rw,nosuid");
    EXPECT_EQ(entries[0].fileSystemType, "xfs");
    EXPECT_EQ(entries[0].source, "/dev/sdb1");
    EXPECT_EQ(entries[0].superOptions, "rw,attr2");
}

TEST(MountTableParse, ALineWithoutOptionalFieldsHasTheHyphenRightAfterTheOptions)
{
    const std::vector<MountEntry> entries = MountTable::parse("22 1 0:21 / /proc rw,relatime - proc proc rw\n");
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].mountId, 22U);
    EXPECT_EQ(entries[0].parentId, 1U);
    EXPECT_EQ(entries[0].root, "/");
    EXPECT_EQ(entries[0].mountPoint, "/proc");
    EXPECT_EQ(entries[0].mountOptions, "rw,relatime");
    EXPECT_EQ(entries[0].fileSystemType, "proc");
    EXPECT_EQ(entries[0].source, "proc");
    EXPECT_EQ(entries[0].superOptions, "rw");
}

TEST(MountTableParse, EntriesComeInTheOrderOfTheText)
{
    const std::vector<MountEntry> entries =
        MountTable::parse("27 1 254:0 / / rw,relatime - ext4 /dev/vda rw\n"
                          "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
                          "24 27 0:6 / /dev rw,relatime - devtmpfs devtmpfs rw,size=1024k\n"
                          "26 24 0:24 / /dev/pts rw,relatime - devpts devpts rw,mode=600\n");
    EXPECT_EQ(mountPointsOf(entries), (std::vector<std::string>{"/", "/proc", "/dev", "/dev/pts"}));
    ASSERT_EQ(entries.size(), 4U);
    EXPECT_EQ(entries[3].mountId, 26U);
    EXPECT_EQ(entries[3].parentId, 24U);
}

TEST(MountTableParse, TheRootOfABindMountIsTheFolderItShows)
{
    const std::vector<MountEntry> entries =
        MountTable::parse("90 27 254:0 /home/shared/data /mnt/data rw,relatime shared:1 - ext4 /dev/vda rw\n");
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].root, "/home/shared/data");
    EXPECT_EQ(entries[0].mountPoint, "/mnt/data");
}

TEST(MountTableParse, TheKernelsOctalEscapesInAMountPointAreDecoded)
{
    const std::vector<MountEntry> entries = MountTable::parse("40 27 0:50 / /media/My\\040Disk rw - vfat /dev/sdc1 rw\n"
                                                              "41 27 0:51 / /mnt/tab\\011here rw - tmpfs tmpfs rw\n"
                                                              "42 27 0:52 / /mnt/line\\012feed rw - tmpfs tmpfs rw\n"
                                                              "43 27 0:53 / /mnt/back\\134slash rw - tmpfs tmpfs rw\n"
                                                              "44 27 0:54 / /mnt/a\\040-\\040b rw - tmpfs tmpfs rw\n");
    EXPECT_EQ(mountPointsOf(entries), (std::vector<std::string>{"/media/My Disk", "/mnt/tab\there", "/mnt/line\nfeed",
                                                                "/mnt/back\\slash", "/mnt/a - b"}));
    // The escaped hyphen in the last mount point is no separator: the
    // fields after it are still read from the real one.
    ASSERT_EQ(entries.size(), 5U);
    EXPECT_EQ(entries[4].fileSystemType, "tmpfs");
    EXPECT_EQ(entries[4].mountOptions, "rw");
}

TEST(MountTableParse, TheRootFieldIsDecodedToo)
{
    const std::vector<MountEntry> entries =
        MountTable::parse("90 27 254:0 /Shared\\040Items /mnt/shared rw - ext4 /dev/vda rw\n");
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].root, "/Shared Items");
}

TEST(MountTableUnescape, EscapesAtTheStartAndAtTheEndAreDecoded)
{
    EXPECT_EQ(MountTable::unescape("\\040"), " ");
    EXPECT_EQ(MountTable::unescape("\\040a\\040"), " a ");
    EXPECT_EQ(MountTable::unescape("/a\\134"), "/a\\");
}

TEST(MountTableUnescape, ABackslashNotFollowedByThreeOctalDigitsStays)
{
    EXPECT_EQ(MountTable::unescape("/a\\x"), "/a\\x");
    EXPECT_EQ(MountTable::unescape("/a\\"), "/a\\");
    // Two digits only, at the end.
    EXPECT_EQ(MountTable::unescape("/a\\04"), "/a\\04");
    // 8 and 9 are no octal digits.
    EXPECT_EQ(MountTable::unescape("/a\\048"), "/a\\048");
    EXPECT_EQ(MountTable::unescape("/a\\909"), "/a\\909");
    EXPECT_EQ(MountTable::unescape("\\\\040"), "\\ ");
}

TEST(MountTableUnescape, ThreeOctalDigitsAboveAByteStayAsWritten)
{
    // 0777 is 511: no byte, so nothing the kernel would have written.
    EXPECT_EQ(MountTable::unescape("/a\\777"), "/a\\777");
    EXPECT_EQ(MountTable::unescape("/a\\377"), "/a\xff");
}

TEST(MountTableUnescape, ADecodedBackslashIsNotDecodedAgain)
{
    // "\134" is a backslash; the "040" after it is plain text.
    EXPECT_EQ(MountTable::unescape("/a\\134040"), "/a\\040");
}

TEST(MountTableParse, ALastLineWithoutALineFeedIsStillRead)
{
    const std::vector<MountEntry> entries =
        MountTable::parse("27 1 254:0 / / rw,relatime - ext4 /dev/vda rw\n"
                          "22 27 0:21 / /proc rw,relatime - proc proc rw,hidepid=2");
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[1].mountPoint, "/proc");
    EXPECT_EQ(entries[1].superOptions, "rw,hidepid=2");
}

TEST(MountTableParse, EmptyTextHasNoEntries)
{
    EXPECT_TRUE(MountTable::parse("").empty());
    EXPECT_TRUE(MountTable::parse("\n").empty());
    EXPECT_TRUE(MountTable::parse("\n\n\n").empty());
}

// A damaged line between two whole ones: it is passed over, and the lines
// around it are read as if it were not there.
class MountTableDamagedLine : public ::testing::TestWithParam<std::string_view> {};

TEST_P(MountTableDamagedLine, IsPassedOverAndTheLinesAroundItAreRead)
{
    const std::string text = "1 0 254:0 / / rw - ext4 /dev/vda rw\n" + std::string(GetParam()) +
                             "\n"
                             "3 1 0:21 / /proc rw - proc proc rw\n";
    const std::vector<MountEntry> entries = MountTable::parse(text);
    ASSERT_EQ(entries.size(), 2U) << "damaged line: " << GetParam();
    EXPECT_EQ(entries[0].mountId, 1U);
    EXPECT_EQ(entries[0].mountPoint, "/");
    EXPECT_EQ(entries[1].mountId, 3U);
    EXPECT_EQ(entries[1].mountPoint, "/proc");
}

INSTANTIATE_TEST_SUITE_P(MountTable, MountTableDamagedLine,
                         ::testing::Values(
                             // No hyphen between the optional fields and the file system's.
                             "2 1 0:5 / /x rw master:1 ext4 /dev/sda rw",
                             // No hyphen and no optional field.
                             "2 1 0:5 / /x rw ext4 /dev/sda rw",
                             // Identifiers that are not numbers.
                             "x2 1 0:5 / /x rw - ext4 /dev/sda rw", "2 1a 0:5 / /x rw - ext4 /dev/sda rw",
                             "two one 0:5 / /x rw - ext4 /dev/sda rw", "-2 1 0:5 / /x rw - ext4 /dev/sda rw",
                             // An identifier too large for 64 bits.
                             "2 99999999999999999999999 0:5 / /x rw - ext4 /dev/sda rw",
                             // Cut short: no options, no mount point, nothing after the ids, no
                             // type after the hyphen.
                             "2 1 0:5 / /x", "2 1 0:5 /", "2 1", "2", "2 1 0:5 / /x rw -", "2 1 0:5 / /x rw master:1 -",
                             // Nothing at all, or blanks only.
                             "", "   "));

TEST(MountEntry, ReadOnlyWhenTheMountSaysSo)
{
    EXPECT_TRUE(withOptions("ro,relatime", "rw").isReadOnly());
    EXPECT_TRUE(withOptions("nosuid,ro", "rw").isReadOnly());
}

TEST(MountEntry, ReadOnlyWhenItsFileSystemSaysSo)
{
    // A writable bind of a file system mounted read-only elsewhere.
    EXPECT_TRUE(withOptions("rw,relatime", "ro,size=4k").isReadOnly());
    EXPECT_TRUE(withOptions("rw", "size=4k,ro").isReadOnly());
}

TEST(MountEntry, WritableWhenNeitherSaysReadOnly)
{
    EXPECT_FALSE(withOptions("rw,relatime", "rw").isReadOnly());
    // "remount-ro" and "rootcontext" hold "ro" but are other options.
    EXPECT_FALSE(withOptions("rw,relatime", "rw,errors=remount-ro").isReadOnly());
    EXPECT_FALSE(withOptions("rw,rootcontext=system_u", "rw").isReadOnly());
    EXPECT_FALSE(withOptions("", "").isReadOnly());
}

TEST(MountEntry, HasMountOptionMatchesWholeOptionsOnly)
{
    const MountEntry entry = withOptions("rw,noexec,nosuid", "rw");
    EXPECT_TRUE(entry.hasMountOption("rw"));
    EXPECT_TRUE(entry.hasMountOption("noexec"));
    EXPECT_TRUE(entry.hasMountOption("nosuid"));
    EXPECT_FALSE(entry.hasMountOption("exec"));
    EXPECT_FALSE(entry.hasMountOption("suid"));
    EXPECT_FALSE(entry.hasMountOption("noexec,nosuid"));
    EXPECT_FALSE(entry.hasMountOption("nodev"));
    EXPECT_FALSE(entry.hasMountOption(""));
}

TEST(MountEntry, HasMountOptionLooksAtTheMountsOwnOptionsOnly)
{
    const MountEntry entry = withOptions("rw,relatime", "rw,noexec");
    EXPECT_FALSE(entry.hasMountOption("noexec"));
    EXPECT_TRUE(entry.hasMountOption("relatime"));
}

TEST(MountTableOfThisProcess, FindsTheRootMountAsTheKernelNumbersIt)
{
    std::error_code error = std::make_error_code(std::errc::io_error);
    const std::vector<MountEntry> entries = MountTable::ofThisProcess(&error);
    EXPECT_FALSE(error) << error.message();
    const auto root =
        std::find_if(entries.begin(), entries.end(), [](const MountEntry& entry) { return entry.mountPoint == "/"; });
    ASSERT_NE(root, entries.end());
    EXPECT_FALSE(root->fileSystemType.empty());
    // The table's identifier is the one statx reports for "/" (the last
    // entry for "/" is the one on top).
    const auto top =
        std::find_if(entries.rbegin(), entries.rend(), [](const MountEntry& entry) { return entry.mountPoint == "/"; });
    const int rootFd = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(rootFd, 0);
    const std::optional<uint64_t> rootId = platform::MountPoint::mountIdOf(rootFd);
    ::close(rootFd);
    ASSERT_TRUE(rootId.has_value());
    EXPECT_EQ(top->mountId, *rootId);
}

TEST(MountTableOfThisProcess, AMountMadeHereIsListedWithItsDecodedFolderAndOptions)
{
    ASSERT_EQ(::geteuid(), 0U) << "mounting needs root";
    TempDir dir;
    const std::string folder = dir.at("with blank\tand tab");
    makeDirectories(folder);
    // The mount is made in a child of a private mount namespace, so nothing
    // outside it ever sees it.
    const int status = testsupport::runInPrivateMountNamespace([&folder] {
        if (::mount("tmpfs", folder.c_str(), "tmpfs", MS_RDONLY | MS_NOEXEC, "size=64k") != 0) {
            return 101;
        }
        const std::vector<MountEntry> entries = MountTable::ofThisProcess();
        const auto made = std::find_if(entries.begin(), entries.end(),
                                       [&folder](const MountEntry& entry) { return entry.mountPoint == folder; });
        if (made == entries.end()) {
            return 1;
        }
        if (made->fileSystemType != "tmpfs" || made->root != "/") {
            return 2;
        }
        // The device as "major:minor", as stat tells it for the folder.
        struct stat status {};
        if (::stat(folder.c_str(), &status) != 0 ||
            made->device != std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev))) {
            return 5;
        }
        if (!made->isReadOnly() || !made->hasMountOption("noexec") || made->hasMountOption("exec")) {
            return 3;
        }
        // What it is mounted on is listed before it.
        const auto parent = std::find_if(entries.begin(), entries.end(),
                                         [&made](const MountEntry& entry) { return entry.mountId == made->parentId; });
        return parent != entries.end() && parent < made ? 0 : 4;
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
