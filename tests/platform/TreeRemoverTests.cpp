#include "platform/TreeRemover.h"

#include "platform/ProtectedFolders.h"
#include "platform/RemovalRefusal.h"

#include "tests/support/DeepTree.h"
#include "tests/support/FileModes.h"
#include "tests/support/PrivateMountNamespace.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <linux/fs.h>
#include <string>
#include <sys/mount.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using testsupport::present;

using testsupport::openDescriptorCount;

using platform::TreeRemover;
using testsupport::makeDirectories;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

// folder/d/d/.../d, `depth` levels, with a file in every tenth level.
bool buildChainWithFiles(const std::string& folder, int depth)
{
    return testsupport::buildChain(
        folder, depth, [](int fd, int level) { return level % 10 != 0 || testsupport::makeFileAt(fd, "f"); });
}

// Makes folder/name impossible to remove: the immutable flag for root (whom
// permissions do not stop), a read-only folder for anyone else. Undone by
// unpin(). False when neither is possible here.
class Pin {
public:
    Pin(std::string folder, std::string name) : theFolder(std::move(folder)), theName(std::move(name)) {}
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;
    ~Pin() { unpin(); }

    bool pin()
    {
        if (::geteuid() != 0) {
            thePinned = ::chmod(theFolder.c_str(), 0555) == 0;
            return thePinned;
        }
        thePinned = setImmutable(true);
        return thePinned;
    }
    void unpin()
    {
        if (!thePinned) {
            return;
        }
        if (::geteuid() != 0) {
            ::chmod(theFolder.c_str(), 0755);
        } else {
            setImmutable(false);
        }
        thePinned = false;
    }

private:
    bool setImmutable(bool on) const { return testsupport::setImmutableFlag(theFolder + "/" + theName, on); }

    std::string theFolder;
    std::string theName;
    bool thePinned = false;
};

TEST(TreeRemover, RemovesAFile)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    EXPECT_TRUE(TreeRemover().removePath(dir.at("file")));
    EXPECT_FALSE(present(dir.at("file")));
}

TEST(TreeRemover, RemovesAFolderWithEverythingInIt)
{
    TempDir dir;
    writeFile(dir.at("item/a/b/c/file"), "x");
    writeFile(dir.at("item/top"), "y");
    makeDirectories(dir.at("item/empty"));
    ASSERT_EQ(::symlink("a", dir.at("item/link").c_str()), 0);
    ASSERT_EQ(::mkfifo(dir.at("item/a/fifo").c_str(), 0600), 0);
    EXPECT_TRUE(TreeRemover().removePath(dir.at("item")));
    EXPECT_FALSE(present(dir.at("item")));
    EXPECT_TRUE(present(dir.path()));
}

TEST(TreeRemover, RemovesALinkToAFolderButNotTheFolder)
{
    TempDir dir;
    writeFile(dir.at("target/keep"), "keep");
    ASSERT_EQ(::symlink(dir.at("target").c_str(), dir.at("link").c_str()), 0);
    EXPECT_TRUE(TreeRemover().removePath(dir.at("link")));
    EXPECT_FALSE(present(dir.at("link")));
    EXPECT_EQ(readFile(dir.at("target/keep")), "keep");
}

TEST(TreeRemover, TrailingSlashRemovesTheLinkNotTheLinkedFolder)
{
    TempDir dir;
    writeFile(dir.at("target/keep"), "keep");
    ASSERT_EQ(::symlink(dir.at("target").c_str(), dir.at("link").c_str()), 0);
    EXPECT_TRUE(TreeRemover().removePath(dir.at("link") + "/"));
    EXPECT_FALSE(present(dir.at("link")));
    EXPECT_EQ(readFile(dir.at("target/keep")), "keep");
}

TEST(TreeRemover, LinkInsideTheFolderIsUnlinkedNotFollowed)
{
    TempDir dir;
    writeFile(dir.at("outside/keep"), "keep");
    writeFile(dir.at("item/file"), "x");
    ASSERT_EQ(::symlink(dir.at("outside").c_str(), dir.at("item/link").c_str()), 0);
    EXPECT_TRUE(TreeRemover().removePath(dir.at("item")));
    EXPECT_FALSE(present(dir.at("item")));
    EXPECT_EQ(readFile(dir.at("outside/keep")), "keep");
}

TEST(TreeRemover, MissingItemIsFalse)
{
    TempDir dir;
    EXPECT_FALSE(TreeRemover().removePath(dir.at("missing")));
    EXPECT_FALSE(TreeRemover().removeRelative(dir.path(), "missing"));
}

TEST(TreeRemover, RefusesEmptyDotAndDotDotNames)
{
    TempDir dir;
    writeFile(dir.at("a/b/file"), "x");
    const int fd = ::open(dir.at("a/b").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(fd, 0);
    const TreeRemover remover;
    EXPECT_FALSE(remover.removeEntry(fd, ""));
    EXPECT_FALSE(remover.removeEntry(fd, "."));
    EXPECT_FALSE(remover.removeEntry(fd, ".."));
    EXPECT_FALSE(remover.removeEntry(fd, "x/y"));
    ::close(fd);
    EXPECT_FALSE(remover.removePath(dir.at("a/b/.")));
    EXPECT_FALSE(remover.removePath(dir.at("a/b/..")));
    EXPECT_FALSE(remover.removePath(""));
    EXPECT_EQ(readFile(dir.at("a/b/file")), "x");
}

TEST(TreeRemover, RelativePathWithDotDotComponentIsRefused)
{
    TempDir dir;
    writeFile(dir.at("source/sub/file"), "x");
    writeFile(dir.at("above"), "y");
    const TreeRemover remover;
    EXPECT_FALSE(remover.removeRelative(dir.at("source"), "sub/../../above"));
    EXPECT_FALSE(remover.removeRelative(dir.at("source"), "sub/.."));
    EXPECT_FALSE(remover.removeRelative(dir.at("source"), "./sub"));
    EXPECT_FALSE(remover.removeRelative(dir.at("source"), "//"));
    EXPECT_EQ(readFile(dir.at("above")), "y");
    EXPECT_EQ(readFile(dir.at("source/sub/file")), "x");
}

TEST(TreeRemover, RelativePathReachesItsItemThroughRealFoldersOnly)
{
    TempDir dir;
    writeFile(dir.at("source/sub/item/file"), "x");
    writeFile(dir.at("outside/item/keep"), "keep");
    ASSERT_EQ(::symlink(dir.at("outside").c_str(), dir.at("source/link").c_str()), 0);
    const TreeRemover remover;
    EXPECT_FALSE(remover.removeRelative(dir.at("source"), "link/item"));
    EXPECT_EQ(readFile(dir.at("outside/item/keep")), "keep");
    EXPECT_TRUE(remover.removeRelative(dir.at("source"), "sub//item/"));
    EXPECT_FALSE(present(dir.at("source/sub/item")));
    EXPECT_TRUE(present(dir.at("source/sub")));
}

TEST(TreeRemover, TenThousandLevelTreeIsRemovedWithFewDescriptors)
{
    TempDir dir;
    makeDirectories(dir.at("item"));
    ASSERT_TRUE(buildChainWithFiles(dir.at("item"), 10000));
    const int before = openDescriptorCount();
    // Far fewer descriptors than levels: the walk must not hold one per level.
    struct rlimit saved {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    struct rlimit tight = saved;
    tight.rlim_cur = 64;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    const bool removed = TreeRemover().removePath(dir.at("item"));
    ::setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_TRUE(removed);
    EXPECT_FALSE(present(dir.at("item")));
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST(TreeRemover, WhatCannotBeRemovedStaysAndTheRestGoes)
{
    TempDir dir;
    writeFile(dir.at("item/a/file"), "a");
    writeFile(dir.at("item/b/pinned"), "pinned");
    writeFile(dir.at("item/b/c/file"), "c");
    writeFile(dir.at("item/d"), "d");
    Pin pin(dir.at("item/b"), "pinned");
    if (!pin.pin()) {
        GTEST_SKIP() << "cannot make a file undeletable on this file system";
    }
    EXPECT_FALSE(TreeRemover().removePath(dir.at("item")));
    pin.unpin();
    EXPECT_EQ(readFile(dir.at("item/b/pinned")), "pinned");
    EXPECT_FALSE(present(dir.at("item/a")));
    EXPECT_FALSE(present(dir.at("item/d")));
    if (::geteuid() == 0) {
        // Only the pinned file held anything back.
        EXPECT_FALSE(present(dir.at("item/b/c")));
    }
}

TEST(TreeRemover, FolderSwappedForALinkDuringTheWalkIsNotFollowed)
{
    TempDir dir;
    writeFile(dir.at("outside/keep"), "keep");
    writeFile(dir.at("item/victim/file"), "x");
    writeFile(dir.at("item/other/file"), "y");
    TreeRemover remover;
    bool swapped = false;
    const std::string outside = dir.at("outside");
    const std::string moved = dir.at("moved");
    remover.setBeforeOpeningFolder([&](int folderFd, const std::string& name) {
        if (name != "victim" || swapped) {
            return;
        }
        // The folder was read as a folder; now it becomes a link to the outside.
        swapped = ::renameat(folderFd, "victim", AT_FDCWD, moved.c_str()) == 0 &&
                  ::symlinkat(outside.c_str(), folderFd, "victim") == 0;
    });
    EXPECT_TRUE(remover.removePath(dir.at("item")));
    EXPECT_TRUE(swapped);
    EXPECT_FALSE(present(dir.at("item")));
    EXPECT_EQ(readFile(dir.at("outside/keep")), "keep");
    EXPECT_EQ(readFile(dir.at("moved/file")), "x");
}

TEST(TreeRemover, FolderMovedOutOfTheItemDuringTheWalkDoesNotLeadTheWalkOutside)
{
    TempDir dir;
    writeFile(dir.at("outside/keep"), "keep");
    // Named like the folders of the chain: a walk that climbed into the wrong
    // folder would remove it.
    makeDirectories(dir.at("outside/d"));
    makeDirectories(dir.at("item"));
    ASSERT_TRUE(buildChainWithFiles(dir.at("item"), 12));
    // Two open ancestors: the folders high above the deepest one are reopened
    // through "..", which must be the folder the walk came down from.
    TreeRemover remover(2);
    bool moved = false;
    const std::string deep = dir.at("item/d/d/d");
    const std::string target = dir.at("outside/moved");
    int openings = 0;
    remover.setBeforeOpeningFolder([&](int, const std::string&) {
        if (++openings == 11 && !moved) {
            moved = ::rename(deep.c_str(), target.c_str()) == 0;
        }
    });
    EXPECT_FALSE(remover.removePath(dir.at("item")));
    EXPECT_TRUE(moved);
    EXPECT_EQ(readFile(dir.at("outside/keep")), "keep");
    EXPECT_TRUE(present(dir.at("outside/moved")));
    EXPECT_TRUE(present(dir.at("outside/d")));
    EXPECT_TRUE(present(dir.at("item/d/d")));
}

TEST(TreeRemover, RemovingAFolderLeavesNoDescriptorOpen)
{
    TempDir dir;
    for (int i = 0; i < 50; ++i) {
        writeFile(dir.at("item/folder" + std::to_string(i) + "/sub/file"), "x");
    }
    const int before = openDescriptorCount();
    EXPECT_TRUE(TreeRemover().removePath(dir.at("item")));
    EXPECT_EQ(openDescriptorCount(), before);
}

// Every failure the walk reports, in order.
struct Failures {
    std::vector<std::pair<std::string, std::error_code>> seen;

    void attachTo(TreeRemover& remover)
    {
        remover.setFailureHandler(
            [this](const std::string& path, std::error_code reason) { seen.emplace_back(path, reason); });
    }
};

void giveToUnprivilegedUser(const std::string& path)
{
    ASSERT_EQ(::chown(path.c_str(), testsupport::kUnprivilegedUser, testsupport::kUnprivilegedGroup), 0);
}

TEST(TreeRemoverReasons, RefusedNamesAreInvalidArguments)
{
    TempDir dir;
    writeFile(dir.at("a/file"), "x");
    TreeRemover remover;
    Failures failures;
    failures.attachTo(remover);
    std::error_code error;
    EXPECT_FALSE(remover.removePath("", &error));
    EXPECT_EQ(error, std::errc::invalid_argument);
    EXPECT_FALSE(remover.removePath("/", &error));
    EXPECT_EQ(error, std::errc::invalid_argument);
    EXPECT_FALSE(remover.removePath(dir.at("a/.."), &error));
    EXPECT_EQ(error, std::errc::invalid_argument);
    EXPECT_FALSE(remover.removeEntry(AT_FDCWD, ".", &error));
    EXPECT_EQ(error, std::errc::invalid_argument);
    EXPECT_FALSE(remover.removeRelative(dir.path(), "a/../a", &error));
    EXPECT_EQ(error, std::errc::invalid_argument);
    ASSERT_EQ(failures.seen.size(), 5U);
    EXPECT_EQ(failures.seen[4].first, dir.at("a/../a"));
    EXPECT_EQ(readFile(dir.at("a/file")), "x");
}

TEST(TreeRemoverReasons, MissingItemIsNoSuchFile)
{
    TempDir dir;
    TreeRemover remover;
    Failures failures;
    failures.attachTo(remover);
    std::error_code error;
    EXPECT_FALSE(remover.removePath(dir.at("missing"), &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_FALSE(remover.removeRelative(dir.path(), "missing", &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_FALSE(remover.removeRelative(dir.path(), "no/such/item", &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    ASSERT_EQ(failures.seen.size(), 3U);
    EXPECT_EQ(failures.seen[0].first, dir.at("missing"));
    EXPECT_EQ(failures.seen[2].first, dir.at("no/such/item"));
}

TEST(TreeRemoverReasons, SuccessClearsTheError)
{
    TempDir dir;
    writeFile(dir.at("item/file"), "x");
    std::error_code error = std::make_error_code(std::errc::permission_denied);
    EXPECT_TRUE(TreeRemover().removePath(dir.at("item"), &error));
    EXPECT_FALSE(error);
}

TEST(TreeRemoverReasons, ReadOnlyFolderGivesPermissionDeniedForEachItemThatStayed)
{
    TempDir dir;
    writeFile(dir.at("item/gone/file"), "x");
    writeFile(dir.at("item/locked/one"), "1");
    writeFile(dir.at("item/locked/two"), "2");
    writeFile(dir.at("item/locked/sub/three"), "3");
    ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
    giveToUnprivilegedUser(dir.at("item"));
    giveToUnprivilegedUser(dir.at("item/gone"));
    giveToUnprivilegedUser(dir.at("item/gone/file"));
    ASSERT_EQ(::chmod(dir.at("item/locked").c_str(), 0555), 0);
    ASSERT_EQ(::chmod(dir.at("item/locked/sub").c_str(), 0555), 0);
    const std::string item = dir.at("item");
    const int status = testsupport::runUnprivileged([&item] {
        TreeRemover remover;
        Failures failures;
        failures.attachTo(remover);
        std::error_code error;
        if (remover.removePath(item, &error)) {
            return 1;
        }
        if (error != std::errc::permission_denied) {
            return 2;
        }
        // Each item that stayed, once: the folders that stay because of
        // them are not reported again.
        std::vector<std::string> paths;
        for (const auto& [path, reason] : failures.seen) {
            if (reason != std::errc::permission_denied) {
                return 3;
            }
            paths.push_back(path);
        }
        std::sort(paths.begin(), paths.end());
        const std::vector<std::string> expected = {item + "/locked/one", item + "/locked/sub/three",
                                                   item + "/locked/two"};
        return paths == expected ? 0 : 4;
    });
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(present(dir.at("item/gone")));
    EXPECT_EQ(readFile(dir.at("item/locked/one")), "1");
    EXPECT_EQ(readFile(dir.at("item/locked/sub/three")), "3");
    ::chmod(dir.at("item/locked/sub").c_str(), 0755);
    ::chmod(dir.at("item/locked").c_str(), 0755);
}

TEST(TreeRemoverReasons, MountPointIsBusyAndAReadOnlyFileSystemSaysSo)
{
    TempDir dir;
    writeFile(dir.at("item/file"), "x");
    makeDirectories(dir.at("item/mnt"));
    makeDirectories(dir.at("ro"));
    const std::string item = dir.at("item");
    const std::string readOnly = dir.at("ro");
    const int status = testsupport::runInPrivateMountNamespace([&item, &readOnly] {
        if (::mount("tmpfs", (item + "/mnt").c_str(), "tmpfs", 0, "size=1m") != 0 ||
            ::mount("tmpfs", readOnly.c_str(), "tmpfs", 0, "size=1m") != 0) {
            return 101;
        }
        writeFile(readOnly + "/kept/file", "x");
        if (::mount(nullptr, readOnly.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
            return 102;
        }
        TreeRemover remover;
        Failures failures;
        failures.attachTo(remover);
        std::error_code error;
        if (remover.removePath(item, &error) || error != std::errc::device_or_resource_busy) {
            return 1;
        }
        if (failures.seen.size() != 1 || failures.seen[0].first != item + "/mnt") {
            return 2;
        }
        if (remover.removePath(item + "/mnt", &error) || error != std::errc::device_or_resource_busy) {
            return 3;
        }
        if (remover.removePath(readOnly + "/kept", &error) || error != std::errc::read_only_file_system) {
            return 4;
        }
        if (failures.seen.back().first != readOnly + "/kept/file") {
            return 5;
        }
        return 0;
    });
    EXPECT_EQ(status, 0);
}

// A protected set made of folders of the test's own.
platform::ProtectedFolders protectedSet(const std::vector<std::string>& systemFolders,
                                        const std::vector<std::string>& systemTrees = {})
{
    platform::ProtectedFolders::Lists lists;
    lists.systemFolders = systemFolders;
    lists.systemTrees = systemTrees;
    return platform::ProtectedFolders(lists);
}

TEST(TreeRemoverGuard, ProtectedFolderIsRefusedWithItsReasonAndLeftUntouched)
{
    TempDir dir;
    writeFile(dir.at("System Like/file"), "x");
    writeFile(dir.at("System Like/sub/file"), "y");
    const platform::ProtectedFolders folders = protectedSet({dir.at("System Like")});
    TreeRemover remover;
    remover.setProtectedFolders(folders);
    Failures failures;
    failures.attachTo(remover);
    std::error_code error;
    EXPECT_FALSE(remover.removePath(dir.at("System Like"), &error));
    EXPECT_EQ(error, platform::RemovalRefusal::SystemFolder);
    EXPECT_EQ(error, std::errc::operation_not_permitted);
    EXPECT_EQ(error.message(), "a protected system folder");
    EXPECT_FALSE(remover.removeRelative(dir.path(), "System Like", &error));
    EXPECT_EQ(error, platform::RemovalRefusal::SystemFolder);
    EXPECT_FALSE(remover.removeEntry(AT_FDCWD, dir.at("System Like"), &error));
    ASSERT_EQ(failures.seen.size(), 3U);
    EXPECT_EQ(failures.seen[0].first, dir.at("System Like"));
    EXPECT_EQ(readFile(dir.at("System Like/file")), "x");
    EXPECT_EQ(readFile(dir.at("System Like/sub/file")), "y");
}

TEST(TreeRemoverGuard, ProtectedFolderReachedThroughALinkOrDotDotIsRefused)
{
    TempDir dir;
    writeFile(dir.at("Protected/file"), "x");
    makeDirectories(dir.at("Other"));
    ASSERT_EQ(::symlink(dir.path().c_str(), dir.at("Other/RootLink").c_str()), 0);
    const platform::ProtectedFolders folders = protectedSet({dir.at("Protected")});
    TreeRemover remover;
    remover.setProtectedFolders(folders);
    EXPECT_FALSE(remover.removePath(dir.at("Other/../Protected")));
    EXPECT_FALSE(remover.removePath(dir.at("Other/RootLink/Protected")));
    EXPECT_FALSE(remover.removeRelative(dir.at("Other/RootLink"), "Protected"));
    EXPECT_FALSE(remover.removeRelative(dir.at("Other/.."), "Protected"));
    EXPECT_EQ(readFile(dir.at("Protected/file")), "x");
}

TEST(TreeRemoverGuard, ALinkToAProtectedFolderGoesAsALinkButAProtectedLinkStays)
{
    TempDir dir;
    writeFile(dir.at("Protected/file"), "x");
    ASSERT_EQ(::symlink(dir.at("Protected").c_str(), dir.at("ToProtected").c_str()), 0);
    ASSERT_EQ(::symlink(dir.at("Protected").c_str(), dir.at("lib").c_str()), 0);
    const platform::ProtectedFolders folders = protectedSet({dir.at("Protected"), dir.at("lib")});
    TreeRemover remover;
    remover.setProtectedFolders(folders);
    std::error_code error;
    EXPECT_TRUE(remover.removeRelative(dir.path(), "ToProtected", &error)) << error.message();
    EXPECT_FALSE(present(dir.at("ToProtected")));
    EXPECT_FALSE(remover.removeRelative(dir.path(), "lib", &error));
    EXPECT_EQ(error, platform::RemovalRefusal::SystemFolder);
    EXPECT_FALSE(remover.removePath(dir.at("lib"), &error));
    EXPECT_TRUE(present(dir.at("lib")));
    EXPECT_EQ(readFile(dir.at("Protected/file")), "x");
}

TEST(TreeRemoverGuard, OnlyTheFolderItselfIsProtectedNotWhatIsInside)
{
    TempDir dir;
    writeFile(dir.at("Protected/ours/file"), "x");
    writeFile(dir.at("Protected/loose"), "y");
    const platform::ProtectedFolders folders = protectedSet({dir.at("Protected")});
    TreeRemover remover;
    remover.setProtectedFolders(folders);
    EXPECT_TRUE(remover.removePath(dir.at("Protected/ours")));
    EXPECT_TRUE(remover.removeRelative(dir.at("Protected"), "loose"));
    EXPECT_FALSE(remover.removePath(dir.at("Protected")));
    EXPECT_TRUE(present(dir.at("Protected")));
    EXPECT_FALSE(present(dir.at("Protected/ours")));
}

TEST(TreeRemoverGuard, EverythingBelowAProtectedTreeIsRefused)
{
    TempDir dir;
    writeFile(dir.at("System/Library/file"), "x");
    const platform::ProtectedFolders folders = protectedSet({}, {dir.at("System")});
    TreeRemover remover;
    remover.setProtectedFolders(folders);
    std::error_code error;
    EXPECT_FALSE(remover.removePath(dir.at("System/Library/file"), &error));
    EXPECT_EQ(error, platform::RemovalRefusal::SystemFolder);
    EXPECT_FALSE(remover.removeRelative(dir.at("System/Library"), "file", &error));
    EXPECT_EQ(error, platform::RemovalRefusal::SystemFolder);
    EXPECT_FALSE(remover.removePath(dir.at("System"), &error));
    EXPECT_EQ(readFile(dir.at("System/Library/file")), "x");
}

TEST(TreeRemoverGuard, DotDotInTheMiddleOfTheFolderLeadingToAnUnprotectedItemIsFollowed)
{
    TempDir dir;
    writeFile(dir.at("a/item/file"), "x");
    makeDirectories(dir.at("b"));
    TreeRemover remover;
    std::error_code error;
    EXPECT_TRUE(remover.removeRelative(dir.at("b/../a"), "item", &error)) << error.message();
    EXPECT_FALSE(present(dir.at("a/item")));
    writeFile(dir.at("a/item/file"), "x");
    EXPECT_TRUE(remover.removePath(dir.at("b/../a/item"), &error)) << error.message();
    EXPECT_FALSE(present(dir.at("a/item")));
}

TEST(TreeRemoverGuard, BindMountOfTheSameDiskInsideTheItemStaysAndTheItemItselfIsRefused)
{
    TempDir dir;
    writeFile(dir.at("source/one"), "1");
    writeFile(dir.at("source/sub/two"), "2");
    writeFile(dir.at("item/file"), "x");
    makeDirectories(dir.at("item/deep/mnt"));
    makeDirectories(dir.at("bound"));
    const std::string& root = dir.path();
    const int status = testsupport::runInPrivateMountNamespace([&root] {
        if (::mount((root + "/source").c_str(), (root + "/item/deep/mnt").c_str(), nullptr, MS_BIND, nullptr) != 0 ||
            ::mount((root + "/source").c_str(), (root + "/bound").c_str(), nullptr, MS_BIND, nullptr) != 0) {
            return 101;
        }
        TreeRemover remover;
        Failures failures;
        failures.attachTo(remover);
        std::error_code error;
        if (remover.removePath(root + "/item", &error) || error != platform::RemovalRefusal::MountPoint ||
            error != std::errc::device_or_resource_busy) {
            return 1;
        }
        if (failures.seen.size() != 1 || failures.seen[0].first != root + "/item/deep/mnt") {
            return 2;
        }
        if (present(root + "/item/file")) {
            return 3;
        }
        if (remover.removeRelative(root, "bound", &error) || error != platform::RemovalRefusal::MountPoint) {
            return 4;
        }
        if (readFile(root + "/source/one") != "1" || readFile(root + "/source/sub/two") != "2") {
            return 5;
        }
        return 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(dir.at("source/one")), "1");
    EXPECT_EQ(readFile(dir.at("source/sub/two")), "2");
}

// A folder being removed that holds a protected folder two levels down.
struct NestedCase {
    const char* name;
    platform::RemovalRefusal reason;
};

class TreeRemoverGuardAtEveryLevel : public ::testing::TestWithParam<NestedCase> {
protected:
    void SetUp() override
    {
        writeFile(theDir.at("item/a/Kept/Contents/file"), "kept");
        writeFile(theDir.at("item/a/other/file"), "x");
        writeFile(theDir.at("item/a/loose"), "x");
        writeFile(theDir.at("item/b/file"), "x");
        writeFile(theDir.at("item/top"), "x");
    }

    platform::ProtectedFolders set() const
    {
        platform::ProtectedFolders::Lists lists;
        const std::string kept = theDir.at("item/a/Kept");
        switch (GetParam().reason) {
        case platform::RemovalRefusal::RunningBundle: lists.bundles = {kept}; break;
        case platform::RemovalRefusal::HomeFolder: lists.homeFolders = {kept}; break;
        case platform::RemovalRefusal::HomeStandardFolder: lists.homeStandardFolders = {kept}; break;
        default: lists.systemFolders = {kept}; break;
        }
        return platform::ProtectedFolders(lists);
    }

    void expectOnlyTheProtectedFolderAndItsParentsStayed() const
    {
        EXPECT_EQ(readFile(theDir.at("item/a/Kept/Contents/file")), "kept");
        EXPECT_FALSE(present(theDir.at("item/a/other")));
        EXPECT_FALSE(present(theDir.at("item/a/loose")));
        EXPECT_FALSE(present(theDir.at("item/b")));
        EXPECT_FALSE(present(theDir.at("item/top")));
    }

    TempDir theDir;
};

TEST_P(TreeRemoverGuardAtEveryLevel, AProtectedFolderInsideStaysWithTheFoldersAboveIt)
{
    const platform::ProtectedFolders folders = set();
    TreeRemover remover;
    remover.setProtectedFolders(folders);
    Failures failures;
    failures.attachTo(remover);
    std::error_code error;
    EXPECT_FALSE(remover.removePath(theDir.at("item"), &error));
    EXPECT_EQ(error, GetParam().reason);
    EXPECT_EQ(error, std::errc::operation_not_permitted);
    // Named once, by its own path; the folders above it are not reported.
    ASSERT_EQ(failures.seen.size(), 1U);
    EXPECT_EQ(failures.seen[0].first, theDir.at("item/a/Kept"));
    EXPECT_EQ(failures.seen[0].second, GetParam().reason);
    expectOnlyTheProtectedFolderAndItsParentsStayed();
}

TEST_P(TreeRemoverGuardAtEveryLevel, TheSameThroughTheDestroyOfAFolderAndAName)
{
    const platform::ProtectedFolders folders = set();
    TreeRemover remover;
    remover.setProtectedFolders(folders);
    Failures failures;
    failures.attachTo(remover);
    EXPECT_FALSE(remover.removeRelative(theDir.path(), "item"));
    ASSERT_EQ(failures.seen.size(), 1U);
    EXPECT_EQ(failures.seen[0].first, theDir.at("item/a/Kept"));
    expectOnlyTheProtectedFolderAndItsParentsStayed();
}

INSTANTIATE_TEST_SUITE_P(Reasons, TreeRemoverGuardAtEveryLevel,
                         ::testing::Values(NestedCase{"SystemFolder", platform::RemovalRefusal::SystemFolder},
                                           NestedCase{"RunningBundle", platform::RemovalRefusal::RunningBundle},
                                           NestedCase{"HomeFolder", platform::RemovalRefusal::HomeFolder},
                                           NestedCase{"HomeStandardFolder",
                                                      platform::RemovalRefusal::HomeStandardFolder}),
                         [](const ::testing::TestParamInfo<NestedCase>& info) { return info.param.name; });

TEST(TreeRemoverGuard, AFileNamedInsideAProtectedTreeByALongWayIsRefused)
{
    TempDir dir;
    writeFile(dir.at("System/Library/file"), "x");
    makeDirectories(dir.at("elsewhere"));
    ASSERT_EQ(::symlink(dir.at("System").c_str(), dir.at("elsewhere/link").c_str()), 0);
    const platform::ProtectedFolders folders = protectedSet({}, {dir.at("System")});
    TreeRemover remover;
    remover.setProtectedFolders(folders);
    std::error_code error;
    EXPECT_FALSE(remover.removeRelative(dir.at("elsewhere/link/Library"), "file", &error));
    EXPECT_EQ(error, platform::RemovalRefusal::SystemFolder);
    EXPECT_FALSE(remover.removePath(dir.at("elsewhere/../elsewhere/link/Library/file"), &error));
    EXPECT_EQ(error, platform::RemovalRefusal::SystemFolder);
    EXPECT_EQ(readFile(dir.at("System/Library/file")), "x");
}

TEST(TreeRemoverGuard, AnItemWhosePlaceCannotBeToldIsRefused)
{
    // The folders above cannot be read by the user removing: the climb to
    // tell whether the item lies in the protected tree cannot go on, so the
    // item stays, with that reason.
    TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    writeFile(dir.at("locked/open/item"), "x");
    makeDirectories(dir.at("System"));
    ASSERT_EQ(::chmod(dir.at("locked/open").c_str(), 0777), 0);
    ASSERT_EQ(::chmod(dir.at("locked/open/item").c_str(), 0666), 0);
    ASSERT_EQ(::chmod(dir.at("locked").c_str(), 0711), 0);
    const platform::ProtectedFolders folders = protectedSet({}, {dir.at("System")});
    const std::string item = dir.at("locked/open/item");
    const int status = testsupport::runUnprivileged([&] {
        TreeRemover remover;
        remover.setProtectedFolders(folders);
        std::error_code error;
        if (remover.removePath(item, &error)) {
            return 1;
        }
        if (error != std::errc::permission_denied) {
            return 2;
        }
        return present(item) ? 0 : 3;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(item), "x");
}

TEST(TreeRemover, AnItemBehindAPathLongerThanPathMaxIsRemoved)
{
    TempDir dir;
    std::string folder;
    {
        const testsupport::Descriptor deepest = testsupport::buildLongPath(dir.path(), 5000, folder);
        ASSERT_TRUE(deepest.isOpen());
        ASSERT_TRUE(testsupport::makeFileAt(deepest.get(), "file"));
        ASSERT_EQ(::mkdirat(deepest.get(), "sub", 0755), 0);
    }
    ASSERT_GT(folder.size(), 5000U);
    std::error_code error;
    EXPECT_TRUE(TreeRemover().removeRelative(folder, "file", &error)) << error.message();
    EXPECT_TRUE(TreeRemover().removePath(folder + "/sub", &error)) << error.message();
    EXPECT_FALSE(TreeRemover().removePath(folder + "/sub", &error));
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    // The whole chain, from its top folder down.
    const std::string top = folder.substr(0, dir.path().size() + 251);
    EXPECT_TRUE(TreeRemover().removePath(top, &error)) << error.message();
    EXPECT_FALSE(present(top));
}

}  // namespace
