#include "platform/preview/OverlayChanges.h"

#include "tests/support/OverlayChangePrinter.h"
#include "tests/support/FileModes.h"
#include "tests/support/PrivateMountNamespace.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/DeepTree.h"
#include "tests/support/Descriptor.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <ostream>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

namespace {

using testsupport::buildChain;
using testsupport::makeFileAt;

using platform::OverlayChange;
using platform::OverlayChanges;
using testsupport::makeDirectories;
using testsupport::TempDir;
using testsupport::writeFile;
using Kind = OverlayChange::Kind;
using Type = OverlayChange::Type;

constexpr Kind kRemoved = Kind::Removed;
constexpr Kind kCreated = Kind::Created;
constexpr Kind kChanged = Kind::Changed;

// Changes in one order, so that lists are compared whatever order the
// layers were read in.
std::vector<OverlayChange> sorted(std::vector<OverlayChange> changes)
{
    std::sort(changes.begin(), changes.end(), [](const OverlayChange& a, const OverlayChange& b) {
        return std::tie(a.path, a.kind, a.type, a.itemsInside) < std::tie(b.path, b.kind, b.type, b.itemsInside);
    });
    return changes;
}

// What the overlay leaves in its writable layer for a removed item.
void makeWhiteout(const std::string& path)
{
    ASSERT_EQ(::mknod(path.c_str(), S_IFCHR | 0000, makedev(0, 0)), 0) << path;
}

void makeFolder(const std::string& path, mode_t mode = 0755)
{
    makeDirectories(path);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

void makeLink(const std::string& target, const std::string& path)
{
    ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0) << path;
}

bool setOpaque(const std::string& folder)
{
    return ::setxattr(folder.c_str(), "trusted.overlay.opaque", "y", 1, 0) == 0;
}

// Whether the file system of `folder` takes the overlay's trusted
// attributes (those of root on ext4, xfs and tmpfs do).
bool takesTrustedAttributes(const std::string& folder)
{
    const std::string probe = folder + "/attribute-probe";
    if (::mkdir(probe.c_str(), 0700) != 0) {
        return false;
    }
    const bool taken = setOpaque(probe);
    ::rmdir(probe.c_str());
    return taken;
}

// Layers made by hand as an overlay keeps them: the writable one ("upper")
// over the original ("lower").
class OverlayChangesTest : public ::testing::Test {
protected:
    void SetUp() override { makeLayers(); }

    // Made again over a tmpfs mounted on the layers' folder.
    void makeLayers()
    {
        makeFolder(upper(""));
        makeFolder(lower(""));
    }

    std::string upper(const std::string& relative) const { return theDir.at("layers/upper/" + relative); }
    std::string lower(const std::string& relative) const { return theDir.at("layers/lower/" + relative); }

    // Every change, sorted; a failure to read anything fails the test.
    std::vector<OverlayChange> changes(const std::string& mountPoint = "/")
    {
        const testsupport::Descriptor changed = testsupport::openFolder(upper(""));
        const testsupport::Descriptor original = testsupport::openFolder(lower(""));
        EXPECT_GE(changed.get(), 0);
        EXPECT_GE(original.get(), 0);
        // Set beforehand, so that a read without failures must clear it.
        std::error_code error = std::make_error_code(std::errc::io_error);
        std::vector<OverlayChange> found = OverlayChanges::read(changed.get(), original.get(), mountPoint, &error);
        EXPECT_FALSE(error) << error.message();
        return sorted(std::move(found));
    }

    // Runs `check` where the trusted attribute of an opaque folder can be
    // set: here, when the temporary folder's file system takes it, or else
    // in a child process over a tmpfs mounted on the layers' folder in a
    // private mount namespace (gone with the child). The check's
    // assertions count either way.
    void whereOpaqueFoldersCanBeMade(const std::function<void()>& check)
    {
        if (takesTrustedAttributes(theDir.path())) {
            check();
            return;
        }
        const std::string layers = theDir.at("layers");
        std::fflush(stdout);
        const int status = testsupport::runInChild(
            [&layers] {
                return testsupport::enterPrivateMountNamespace() &&
                       ::mount("tmpfs", layers.c_str(), "tmpfs", 0, "size=16m") == 0;
            },
            [this, &check] {
                makeLayers();
                check();
                std::fflush(stdout);
                return ::testing::Test::HasFailure() ? 1 : 0;
            });
        EXPECT_EQ(status, 0) << "the check over a tmpfs failed (what it found is above)";
    }

    // Folders made in both layers get the same mode, as the overlay's copies
    // up do, whatever umask the tests run under.
    testsupport::ScopedUmask theUmask{022};
    TempDir theDir;
};

TEST_F(OverlayChangesTest, NothingChangedIsNothingReported)
{
    writeFile(lower("file"), "x");
    makeFolder(lower("Folder"));
    EXPECT_EQ(changes(), std::vector<OverlayChange>{});
}

TEST_F(OverlayChangesTest, AWhiteoutOverAFileIsOneRemovedFile)
{
    writeFile(lower("old.txt"), "old");
    writeFile(lower("kept.txt"), "kept");
    makeWhiteout(upper("old.txt"));
    EXPECT_EQ(changes(), sorted({{kRemoved, "/old.txt", Type::File, 0}}));
}

TEST_F(OverlayChangesTest, AWhiteoutOverAFolderIsOneRemovedFolderWithItsCount)
{
    // a, b, b/c, b/d, b/d/e, b/d/empty, link: 7 items at three depths.
    writeFile(lower("Old/a"), "a");
    writeFile(lower("Old/b/c"), "c");
    writeFile(lower("Old/b/d/e"), "e");
    makeFolder(lower("Old/b/d/empty"));
    // A link back up to the whole layer: counted as one, never followed.
    makeLink("..", lower("Old/link"));
    makeWhiteout(upper("Old"));
    EXPECT_EQ(changes(), sorted({{kRemoved, "/Old", Type::Folder, 7}}));
}

TEST_F(OverlayChangesTest, AWhiteoutOverAnEmptyFolderCountsNothingInside)
{
    makeFolder(lower("Empty"));
    makeWhiteout(upper("Empty"));
    EXPECT_EQ(changes(), sorted({{kRemoved, "/Empty", Type::Folder, 0}}));
}

TEST_F(OverlayChangesTest, AWhiteoutWithNothingBelowIsNotReported)
{
    // Left by an item made and removed again while the overlay was up.
    makeWhiteout(upper("ghost"));
    writeFile(lower("other"), "x");
    EXPECT_EQ(changes(), std::vector<OverlayChange>{});
}

TEST_F(OverlayChangesTest, ANewFileIsCreated)
{
    writeFile(upper("new.txt"), "new");
    EXPECT_EQ(changes(), sorted({{kCreated, "/new.txt", Type::File, 0}}));
}

TEST_F(OverlayChangesTest, ANewFolderIsOneCreatedFolderWithEverythingBelowItCounted)
{
    // x, y, y/z, y/deeper, y/deeper/w: five items, reported as one.
    writeFile(upper("New/x"), "x");
    writeFile(upper("New/y/z"), "z");
    writeFile(upper("New/y/deeper/w"), "w");
    makeFolder(upper("NewEmpty"));
    EXPECT_EQ(changes(), sorted({{kCreated, "/New", Type::Folder, 5}, {kCreated, "/NewEmpty", Type::Folder, 0}}));
}

TEST_F(OverlayChangesTest, ACopiedUpFileIsChanged)
{
    writeFile(lower("settings.plist"), "before");
    writeFile(upper("settings.plist"), "after");
    EXPECT_EQ(changes(), sorted({{kChanged, "/settings.plist", Type::File, 0}}));
}

TEST_F(OverlayChangesTest, AFolderInBothLayersIsNotReportedButWhatChangedBelowItIs)
{
    writeFile(lower("A/B/changed"), "before");
    writeFile(lower("A/B/removed"), "x");
    writeFile(lower("A/B/kept"), "kept");
    writeFile(lower("A/kept"), "kept");
    // The overlay copies each folder up with its mode and owner.
    makeFolder(upper("A/B"));
    writeFile(upper("A/B/changed"), "after");
    makeWhiteout(upper("A/B/removed"));
    writeFile(upper("A/B/created"), "new");
    EXPECT_EQ(changes(), sorted({{kChanged, "/A/B/changed", Type::File, 0},
                                 {kCreated, "/A/B/created", Type::File, 0},
                                 {kRemoved, "/A/B/removed", Type::File, 0}}));
}

TEST_F(OverlayChangesTest, EachSiblingFolderIsWalkedAfterTheDeeperOneBeforeIt)
{
    // After three levels down in A, the walk must be back at the top to
    // find B and C.
    writeFile(lower("A/A1/A2/changed"), "before");
    writeFile(lower("B/removed"), "x");
    makeFolder(lower("C"));
    makeFolder(upper("A/A1/A2"));
    writeFile(upper("A/A1/A2/changed"), "after");
    makeFolder(upper("B"));
    makeWhiteout(upper("B/removed"));
    writeFile(upper("C/created"), "new");
    EXPECT_EQ(changes(), sorted({{kChanged, "/A/A1/A2/changed", Type::File, 0},
                                 {kRemoved, "/B/removed", Type::File, 0},
                                 {kCreated, "/C/created", Type::File, 0}}));
}

TEST_F(OverlayChangesTest, AFolderWhoseModeChangedIsAChangedFolder)
{
    makeFolder(lower("Shared"), 0755);
    writeFile(lower("Shared/inside"), "x");
    makeFolder(upper("Shared"), 0700);
    EXPECT_EQ(changes(), sorted({{kChanged, "/Shared", Type::Folder, 0}}));
}

TEST_F(OverlayChangesTest, AFolderWhoseOwnerOrGroupChangedIsAChangedFolder)
{
    makeFolder(lower("Owned"));
    makeFolder(lower("Grouped"));
    makeFolder(upper("Owned"));
    makeFolder(upper("Grouped"));
    ASSERT_EQ(::chown(upper("Owned").c_str(), testsupport::kUnprivilegedUser, static_cast<gid_t>(-1)), 0);
    ASSERT_EQ(::chown(upper("Grouped").c_str(), static_cast<uid_t>(-1), testsupport::kUnprivilegedGroup), 0);
    EXPECT_EQ(changes(), sorted({{kChanged, "/Grouped", Type::Folder, 0}, {kChanged, "/Owned", Type::Folder, 0}}));
}

TEST_F(OverlayChangesTest, AChangedFolderIsStillWalkedForWhatChangedBelowIt)
{
    makeFolder(lower("Shared"), 0755);
    writeFile(lower("Shared/gone"), "x");
    makeFolder(upper("Shared"), 0750);
    makeWhiteout(upper("Shared/gone"));
    EXPECT_EQ(changes(), sorted({{kChanged, "/Shared", Type::Folder, 0}, {kRemoved, "/Shared/gone", Type::File, 0}}));
}

TEST_F(OverlayChangesTest, AnOpaqueFolderIsEveryLowerItemRemovedAndEveryUpperItemCreated)
{
    whereOpaqueFoldersCanBeMade([this] {
        writeFile(lower("A/old"), "old");
        writeFile(lower("A/same"), "before");
        writeFile(lower("A/oldsub/x"), "x");
        writeFile(lower("A/oldsub/deeper/y"), "y");
        makeFolder(upper("A"));
        ASSERT_TRUE(setOpaque(upper("A")));
        writeFile(upper("A/new"), "new");
        writeFile(upper("A/same"), "after");
        writeFile(upper("A/newsub/p"), "p");
        writeFile(upper("A/newsub/q"), "q");
        // The folder itself was made again with the same mode: not reported.
        EXPECT_EQ(changes(), sorted({{kCreated, "/A/new", Type::File, 0},
                                     {kCreated, "/A/newsub", Type::Folder, 2},
                                     {kRemoved, "/A/old", Type::File, 0},
                                     {kRemoved, "/A/oldsub", Type::Folder, 3},
                                     {kCreated, "/A/same", Type::File, 0},
                                     {kRemoved, "/A/same", Type::File, 0}}));
    });
}

TEST_F(OverlayChangesTest, AnEmptyOpaqueFolderIsEveryLowerItemRemoved)
{
    whereOpaqueFoldersCanBeMade([this] {
        writeFile(lower("Deep/Cleared/one"), "1");
        writeFile(lower("Deep/Cleared/two"), "2");
        makeFolder(upper("Deep/Cleared"));
        ASSERT_TRUE(setOpaque(upper("Deep/Cleared")));
        EXPECT_EQ(changes(), sorted({{kRemoved, "/Deep/Cleared/one", Type::File, 0},
                                     {kRemoved, "/Deep/Cleared/two", Type::File, 0}}));
    });
}

TEST_F(OverlayChangesTest, AnOpaqueFolderWhoseModeChangedIsAlsoAChangedFolder)
{
    whereOpaqueFoldersCanBeMade([this] {
        makeFolder(lower("A"), 0755);
        writeFile(lower("A/old"), "old");
        makeFolder(upper("A"), 0700);
        ASSERT_TRUE(setOpaque(upper("A")));
        EXPECT_EQ(changes(), sorted({{kChanged, "/A", Type::Folder, 0}, {kRemoved, "/A/old", Type::File, 0}}));
    });
}

TEST_F(OverlayChangesTest, AFileReplacedByAFolderIsRemovedAndCreated)
{
    writeFile(lower("item"), "file");
    writeFile(upper("item/one"), "1");
    writeFile(upper("item/two"), "2");
    EXPECT_EQ(changes(), sorted({{kCreated, "/item", Type::Folder, 2}, {kRemoved, "/item", Type::File, 0}}));
}

TEST_F(OverlayChangesTest, AFolderReplacedByAFileIsRemovedWithItsCountAndCreated)
{
    writeFile(lower("item/one"), "1");
    writeFile(lower("item/sub/two"), "2");
    writeFile(upper("item"), "file");
    EXPECT_EQ(changes(), sorted({{kCreated, "/item", Type::File, 0}, {kRemoved, "/item", Type::Folder, 3}}));
}

TEST_F(OverlayChangesTest, LinksAreReportedAsLinks)
{
    writeFile(lower("Target/a"), "a");
    writeFile(lower("Target/b"), "b");
    makeLink("Target", lower("removed-link"));
    makeLink("Target", lower("changed-link"));
    makeWhiteout(upper("removed-link"));
    makeLink("Target", upper("changed-link"));
    makeLink("Target", upper("new-link"));
    EXPECT_EQ(changes(), sorted({{kChanged, "/changed-link", Type::Link, 0},
                                 {kCreated, "/new-link", Type::Link, 0},
                                 {kRemoved, "/removed-link", Type::Link, 0}}));
}

TEST_F(OverlayChangesTest, ALinkToAFolderInBothLayersIsNeverFollowed)
{
    // Followed, both links would be folders: the walk would go into the
    // original "Target" and into the folder that holds both layers.
    writeFile(lower("Target/a"), "a");
    makeLink("Target", lower("link"));
    makeFolder(upper("Target"));
    makeWhiteout(upper("Target/a"));
    makeLink("..", upper("link"));
    EXPECT_EQ(changes(), sorted({{kRemoved, "/Target/a", Type::File, 0}, {kChanged, "/link", Type::Link, 0}}));
}

TEST_F(OverlayChangesTest, ALinkWhereAFolderWasIsTheFolderRemovedAndALinkCreated)
{
    writeFile(lower("Folder/a"), "a");
    writeFile(lower("Folder/b"), "b");
    makeLink(lower(""), upper("Folder"));
    EXPECT_EQ(changes(), sorted({{kCreated, "/Folder", Type::Link, 0}, {kRemoved, "/Folder", Type::Folder, 2}}));
}

TEST_F(OverlayChangesTest, AFolderWhereALinkToAFolderWasIsTheLinkRemovedAndAFolderCreated)
{
    writeFile(lower("Target/a"), "a");
    makeLink("Target", lower("Folder"));
    writeFile(upper("Folder/new"), "new");
    EXPECT_EQ(changes(), sorted({{kCreated, "/Folder", Type::Folder, 1}, {kRemoved, "/Folder", Type::Link, 0}}));
}

TEST_F(OverlayChangesTest, OtherItemsAreOfTheOtherTypeAndOnlyADeviceZeroZeroIsAWhiteout)
{
    writeFile(lower("null"), "was a file");
    ASSERT_EQ(::mkfifo(upper("pipe").c_str(), 0600), 0);
    // A character device of other numbers is an item like any other.
    ASSERT_EQ(::mknod(upper("device").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    ASSERT_EQ(::mknod(upper("null").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    EXPECT_EQ(changes(), sorted({{kCreated, "/device", Type::Other, 0},
                                 {kCreated, "/null", Type::Other, 0},
                                 {kRemoved, "/null", Type::File, 0},
                                 {kCreated, "/pipe", Type::Other, 0}}));
}

TEST_F(OverlayChangesTest, WhiteoutsLinkedToOneDeviceAreEachARemovedItemBesideOtherDevices)
{
    // The overlay links every whiteout to one device 0/0 of its own.
    writeFile(lower("first"), "1");
    writeFile(lower("Folder/second"), "2");
    makeFolder(lower("Folder/Old"));
    writeFile(lower("Folder/Old/inside"), "3");
    writeFile(lower("Folder/null"), "was a file");
    makeFolder(upper("Folder"));
    makeWhiteout(upper("first"));
    ASSERT_EQ(::link(upper("first").c_str(), upper("Folder/second").c_str()), 0);
    ASSERT_EQ(::link(upper("first").c_str(), upper("Folder/Old").c_str()), 0);
    ASSERT_EQ(::mknod(upper("Folder/null").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    EXPECT_EQ(changes(), sorted({{kRemoved, "/first", Type::File, 0},
                                 {kRemoved, "/Folder/second", Type::File, 0},
                                 {kRemoved, "/Folder/Old", Type::Folder, 1},
                                 {kCreated, "/Folder/null", Type::Other, 0},
                                 {kRemoved, "/Folder/null", Type::File, 0}}));
}

// Where the overlay is mounted, and the paths its changes then have.
struct MountPointCase {
    std::string name;
    std::string mountPoint;
    std::vector<OverlayChange> expected;
};

class OverlayChangesMountPoint : public OverlayChangesTest, public ::testing::WithParamInterface<MountPointCase> {};

TEST_P(OverlayChangesMountPoint, PathsBeginWithTheMountPointJoinedByOneSlash)
{
    writeFile(lower("old"), "x");
    writeFile(lower("Folder/inner"), "x");
    makeWhiteout(upper("old"));
    makeFolder(upper("Folder"));
    writeFile(upper("Folder/new"), "new");
    EXPECT_EQ(changes(GetParam().mountPoint), sorted(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    OverlayChanges, OverlayChangesMountPoint,
    ::testing::Values(
        MountPointCase{"Root", "/", {{kRemoved, "/old", Type::File, 0}, {kCreated, "/Folder/new", Type::File, 0}}},
        MountPointCase{"Library",
                       "/Library",
                       {{kRemoved, "/Library/old", Type::File, 0}, {kCreated, "/Library/Folder/new", Type::File, 0}}},
        MountPointCase{"FolderWithABlank",
                       "/Volumes/Data Disk",
                       {{kRemoved, "/Volumes/Data Disk/old", Type::File, 0},
                        {kCreated, "/Volumes/Data Disk/Folder/new", Type::File, 0}}}),
    [](const ::testing::TestParamInfo<MountPointCase>& info) { return info.param.name; });

TEST_F(OverlayChangesTest, ReadingLeavesNoDescriptorOpen)
{
    writeFile(lower("A/B/C/file"), "x");
    writeFile(lower("Old/a/b"), "x");
    makeFolder(upper("A/B/C"));
    writeFile(upper("A/B/C/file"), "y");
    makeWhiteout(upper("Old"));
    writeFile(upper("New/a/b"), "x");
    const int before = testsupport::openDescriptorCount();
    EXPECT_EQ(changes().size(), 3U);
    EXPECT_EQ(testsupport::openDescriptorCount(), before);
}

TEST(OverlayChangesFailures, ALayerThatIsNotOpenIsReportedAndNothingIsRead)
{
    TempDir dir;
    makeFolder(dir.at("lower"));
    writeFile(dir.at("upper/new"), "x");
    const testsupport::Descriptor lower = testsupport::openFolder(dir.at("lower"));
    const testsupport::Descriptor upper = testsupport::openFolder(dir.at("upper"));
    std::error_code error;
    EXPECT_TRUE(OverlayChanges::read(-1, lower.get(), "/", &error).empty());
    EXPECT_EQ(error, std::errc::bad_file_descriptor);
    error.clear();
    EXPECT_TRUE(OverlayChanges::read(upper.get(), -1, "/", &error).empty());
    EXPECT_EQ(error, std::errc::bad_file_descriptor);
}

TEST(OverlayChangesFailures, ALayerThatIsAFileIsNotAFolder)
{
    TempDir dir;
    makeFolder(dir.at("lower"));
    writeFile(dir.at("upper"), "not a folder");
    const testsupport::Descriptor lower = testsupport::openFolder(dir.at("lower"));
    const int file = ::open(dir.at("upper").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    std::error_code error;
    EXPECT_TRUE(OverlayChanges::read(file, lower.get(), "/", &error).empty());
    EXPECT_EQ(error, std::errc::not_a_directory);
    ::close(file);
}

TEST(OverlayChangesCount, CountsEveryItemAtAnyDepthAndDoesNotFollowLinks)
{
    TempDir dir;
    writeFile(dir.at("top/a"), "a");
    writeFile(dir.at("top/b/c"), "c");
    makeFolder(dir.at("top/b/d/e"));
    makeLink("/", dir.at("top/b/d/e/to-root"));
    ASSERT_EQ(::mkfifo(dir.at("top/pipe").c_str(), 0600), 0);
    const testsupport::Descriptor top = testsupport::openFolder(dir.at("top"));
    std::error_code error = std::make_error_code(std::errc::io_error);
    // a, b, b/c, b/d, b/d/e, b/d/e/to-root, pipe.
    EXPECT_EQ(OverlayChanges::countItemsBelow(top.get(), &error), 7U);
    EXPECT_FALSE(error) << error.message();
}

TEST(OverlayChangesCount, AnEmptyFolderHasNothingBelowIt)
{
    TempDir dir;
    const testsupport::Descriptor top = testsupport::openFolder(dir.path());
    std::error_code error;
    EXPECT_EQ(OverlayChanges::countItemsBelow(top.get(), &error), 0U);
    EXPECT_FALSE(error);
}

TEST(OverlayChangesCount, AFolderThatIsNotOpenCountsNothingAndSaysWhy)
{
    std::error_code error;
    EXPECT_EQ(OverlayChanges::countItemsBelow(-1, &error), 0U);
    EXPECT_EQ(error, std::errc::bad_file_descriptor);
}

// Runs `body` in a child process whose temporary folder `folder` is
// covered by a tmpfs of a private mount namespace: a tree too deep to remove
// by path goes with the child.
int runOverPrivateTmpfs(const std::string& folder, const std::function<int()>& body)
{
    return testsupport::runInChild(
        [&folder] {
            return testsupport::enterPrivateMountNamespace() &&
                   ::mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=64m") == 0;
        },
        body);
}

// Far fewer descriptors than levels: the walk must not hold one per level.
bool limitDescriptorsTo(rlim_t count)
{
    struct rlimit limit {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    limit.rlim_cur = count;
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

constexpr int kDeepLevels = 3000;

TEST(OverlayChangesCount, CountsATreeThreeThousandLevelsDeepWithSixtyFourDescriptors)
{
    ASSERT_EQ(::geteuid(), 0U) << "mounting needs root";
    TempDir dir;
    const std::string folder = dir.path();
    const int status = runOverPrivateTmpfs(folder, [&folder] {
        const int top = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        // A file in every tenth level besides the folders: 3000 + 300 items.
        if (top < 0 ||
            !buildChain(top, kDeepLevels, [](int fd, int level) { return level % 10 != 0 || makeFileAt(fd, "f"); })) {
            return 101;
        }
        if (!limitDescriptorsTo(64)) {
            return 102;
        }
        std::error_code error = std::make_error_code(std::errc::io_error);
        const uint64_t count = OverlayChanges::countItemsBelow(top, &error);
        if (error) {
            std::fprintf(stderr, "count failed: %s\n", error.message().c_str());
            return 1;
        }
        if (count != 3300U) {
            std::fprintf(stderr, "counted %llu\n", static_cast<unsigned long long>(count));
            return 2;
        }
        return 0;
    });
    EXPECT_EQ(status, 0);
}

TEST(OverlayChangesRead, ReachesChangesThreeThousandLevelsDownWithSixtyFourDescriptors)
{
    ASSERT_EQ(::geteuid(), 0U) << "mounting needs root";
    TempDir dir;
    const std::string folder = dir.path();
    const int status = runOverPrivateTmpfs(folder, [&folder] {
        if (::mkdirat(AT_FDCWD, (folder + "/upper").c_str(), 0755) != 0 ||
            ::mkdirat(AT_FDCWD, (folder + "/lower").c_str(), 0755) != 0) {
            return 101;
        }
        const int upper = ::open((folder + "/upper").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const int lower = ::open((folder + "/lower").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        // Below: a file "f" in every tenth level. Above: the same folders,
        // "f" removed in level 1500 and changed in level 2990.
        if (upper < 0 || lower < 0 ||
            !buildChain(lower, kDeepLevels, [](int fd, int level) { return level % 10 != 0 || makeFileAt(fd, "f"); }) ||
            !buildChain(upper, kDeepLevels, [](int fd, int level) {
                if (level == 1500) {
                    return ::mknodat(fd, "f", S_IFCHR | 0000, makedev(0, 0)) == 0;
                }
                return level != 2990 || makeFileAt(fd, "f");
            })) {
            return 101;
        }
        if (!limitDescriptorsTo(64)) {
            return 102;
        }
        std::string removedFolder;
        for (int level = 0; level < 1500; ++level) {
            removedFolder += "/d";
        }
        std::string changedFolder = removedFolder;
        for (int level = 1500; level < 2990; ++level) {
            changedFolder += "/d";
        }
        const std::vector<OverlayChange> expected = {{kChanged, changedFolder + "/f", Type::File, 0},
                                                     {kRemoved, removedFolder + "/f", Type::File, 0}};
        std::error_code error = std::make_error_code(std::errc::io_error);
        const std::vector<OverlayChange> found = sorted(OverlayChanges::read(upper, lower, "/", &error));
        if (error) {
            std::fprintf(stderr, "read failed: %s\n", error.message().c_str());
            return 1;
        }
        if (found != sorted(expected)) {
            std::fprintf(stderr, "found %zu changes\n", found.size());
            return 2;
        }
        return 0;
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
