#include "platform/preview/OverlayRoot.h"

#include "platform/MountPoint.h"
#include "platform/preview/MountTable.h"
#include "platform/preview/OverlayChanges.h"
#include "platform/Task.h"
#include "tests/support/OverlayChangePrinter.h"
#include "tests/support/PrivateMountNamespace.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <optional>
#include <ostream>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

namespace {

using platform::MountEntry;
using platform::MountTable;
using platform::OverlayChange;
using platform::OverlayChanges;
using platform::OverlayRoot;
// Mounts made before enter() are made in the child's own mount namespace,
// so nothing outside it ever sees them.
using testsupport::enterPrivateMountNamespace;
using testsupport::makeDirectories;
using testsupport::present;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;
using Kind = OverlayChange::Kind;
using Type = OverlayChange::Type;

// The exit status of a child whose enter() failed.
constexpr int kEnterFailed = 90;

// Runs `check` (with gtest assertions) in a child process that first runs
// `prepare` and then enters the copy-on-write view, with `workFolder` as
// its working space. enter() moves the calling process into a mount
// namespace of its own and changes its root, so the test process itself
// never calls it. The child's exit status: 0 when every assertion held, 1
// when one failed, kEnterFailed when enter() failed (the failure is
// printed; the child leaves at once, since the old root may still be in
// place), 125 when `prepare` failed.
int runInsideOverlayRoot(
    const std::string& workFolder, const std::function<void(OverlayRoot&)>& check,
    const std::function<bool()>& prepare = [] { return true; })
{
    std::fflush(stdout);
    return testsupport::runInChild(prepare, [&workFolder, &check] {
        OverlayRoot::Failure failure;
        std::optional<OverlayRoot> root = OverlayRoot::enter(workFolder, &failure);
        if (!root) {
            std::fprintf(stderr, "cannot enter the overlay root: %s\n", failure.message().c_str());
            return kEnterFailed;
        }
        check(*root);
        std::fflush(stdout);
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
}

bool bindMount(const std::string& source, const std::string& target)
{
    return ::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

// Whether `path` lies inside `folder` (or is it).
bool liesInside(const std::string& path, const std::string& folder)
{
    if (folder == "/") {
        return true;
    }
    return path == folder ||
           (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == '/');
}

// The layer of the overlaid mount that holds `path`: the one with the
// longest mount point above it.
const OverlayRoot::Layer* layerHolding(const OverlayRoot& root, const std::string& path)
{
    const OverlayRoot::Layer* found = nullptr;
    for (const OverlayRoot::Layer& layer : root.layers()) {
        if (liesInside(path, layer.mountPoint) &&
            (found == nullptr || layer.mountPoint.size() > found->mountPoint.size())) {
            found = &layer;
        }
    }
    return found;
}

const OverlayRoot::Layer* layerAt(const OverlayRoot& root, const std::string& mountPoint)
{
    const auto& layers = root.layers();
    const auto found = std::find_if(layers.begin(), layers.end(), [&mountPoint](const OverlayRoot::Layer& layer) {
        return layer.mountPoint == mountPoint;
    });
    return found == layers.end() ? nullptr : &*found;
}

const OverlayRoot::ReadOnlyMount* readOnlyMountAt(const OverlayRoot& root, const std::string& mountPoint)
{
    const auto& mounts = root.readOnlyMounts();
    const auto found =
        std::find_if(mounts.begin(), mounts.end(),
                     [&mountPoint](const OverlayRoot::ReadOnlyMount& mount) { return mount.mountPoint == mountPoint; });
    return found == mounts.end() ? nullptr : &*found;
}

// The changes a layer holds inside `folder`, sorted; a failure to read
// fails the test.
std::vector<OverlayChange> changesInside(const OverlayRoot::Layer& layer, const std::string& folder)
{
    std::error_code error;
    std::vector<OverlayChange> changes =
        OverlayChanges::read(layer.changes.get(), layer.original.get(), layer.mountPoint, &error);
    EXPECT_FALSE(error) << error.message();
    std::vector<OverlayChange> inside;
    std::copy_if(changes.begin(), changes.end(), std::back_inserter(inside),
                 [&folder](const OverlayChange& change) { return liesInside(change.path, folder); });
    std::sort(inside.begin(), inside.end(), [](const OverlayChange& a, const OverlayChange& b) {
        return std::tie(a.path, a.kind, a.type) < std::tie(b.path, b.kind, b.type);
    });
    return inside;
}

// The entry of this process's mount table for `mountPoint` (the one on top).
std::optional<MountEntry> mountAt(const std::string& mountPoint)
{
    const std::vector<MountEntry> entries = MountTable::ofThisProcess();
    const auto found = std::find_if(entries.rbegin(), entries.rend(),
                                    [&mountPoint](const MountEntry& entry) { return entry.mountPoint == mountPoint; });
    if (found == entries.rend()) {
        return std::nullopt;
    }
    return *found;
}

// errno of opening `path` to write, creating it when missing; 0 when it
// could be opened (it is closed again, nothing written).
int errorOfOpeningToWrite(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        return errno;
    }
    ::close(fd);
    return 0;
}

std::vector<std::string> namesIn(const std::string& folder)
{
    std::vector<std::string> names;
    DIR* dir = ::opendir(folder.c_str());
    if (dir == nullptr) {
        return {"(cannot be listed)"};
    }
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

class OverlayRootTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(::geteuid(), 0U) << "entering the overlay root needs root"; }

    // Made before the child starts, on the host's disk: the parent looks
    // at it again afterwards.
    TempDir theDir;
};

TEST_F(OverlayRootTest, EntersAsRootWithTmpAsTheWorkFolder)
{
    const int status = runInsideOverlayRoot("/tmp", [](OverlayRoot& root) {
        EXPECT_FALSE(root.layers().empty());
        const OverlayRoot::Layer* rootLayer = layerAt(root, "/");
        ASSERT_NE(rootLayer, nullptr);
        EXPECT_TRUE(rootLayer->changes.valid());
        EXPECT_TRUE(rootLayer->original.valid());
        // "/" is now an overlay, and nothing has changed in it yet.
        const std::optional<MountEntry> top = mountAt("/");
        ASSERT_TRUE(top.has_value());
        EXPECT_EQ(top->fileSystemType, "overlay");
        EXPECT_FALSE(top->isReadOnly());
    });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, InsideEveryWritableMountIsAnOverlay)
{
    const int status = runInsideOverlayRoot("/tmp", [](OverlayRoot&) {
        const std::vector<MountEntry> entries = MountTable::ofThisProcess();
        ASSERT_FALSE(entries.empty());
        for (const MountEntry& entry : entries) {
            EXPECT_TRUE(entry.fileSystemType == "overlay" || entry.isReadOnly())
                << entry.mountPoint << " is a writable " << entry.fileSystemType;
        }
    });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, TheWorkFolderIsLeftBehindWithTheOldRoot)
{
    const std::string work = theDir.at("work");
    makeDirectories(work);
    writeFile(theDir.at("work/was-here"), "x");
    const int status = runInsideOverlayRoot(work, [&work](OverlayRoot&) {
        // What is inside is the folder as it was, not the working space
        // that held the layers.
        EXPECT_EQ(namesIn(work), std::vector<std::string>{"was-here"});
        const std::vector<MountEntry> entries = MountTable::ofThisProcess();
        for (const MountEntry& entry : entries) {
            EXPECT_FALSE(liesInside(entry.mountPoint, work)) << entry.mountPoint;
        }
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(namesIn(work), std::vector<std::string>{"was-here"});
}

TEST_F(OverlayRootTest, ChangesInsideStayInsideAndShowInTheirLayer)
{
    const std::string dir = theDir.path();
    writeFile(theDir.at("kept"), "kept");
    writeFile(theDir.at("gone"), "gone");
    writeFile(theDir.at("Folder/inner"), "inner");
    writeFile(theDir.at("Old/a"), "a");
    writeFile(theDir.at("Old/b/c"), "c");
    const int status = runInsideOverlayRoot("/tmp", [&dir](OverlayRoot& root) {
        EXPECT_EQ(readFile(dir + "/kept"), "kept");
        writeFile(dir + "/kept", "changed");
        ASSERT_EQ(::unlink((dir + "/gone").c_str()), 0);
        writeFile(dir + "/new", "new");
        writeFile(dir + "/Folder/added", "added");
        std::error_code ignored;
        ASSERT_EQ(std::filesystem::remove_all(dir + "/Old", ignored), 4U);
        EXPECT_EQ(readFile(dir + "/kept"), "changed");
        EXPECT_FALSE(present(dir + "/gone"));
        EXPECT_FALSE(present(dir + "/Old"));
        EXPECT_EQ(readFile(dir + "/new"), "new");

        const OverlayRoot::Layer* layer = layerHolding(root, dir);
        ASSERT_NE(layer, nullptr);
        // The folders on the way only hold changes: not reported.
        EXPECT_EQ(changesInside(*layer, dir),
                  (std::vector<OverlayChange>{{Kind::Created, dir + "/Folder/added", Type::File, 0},
                                              {Kind::Removed, dir + "/Old", Type::Folder, 3},
                                              {Kind::Removed, dir + "/gone", Type::File, 0},
                                              {Kind::Changed, dir + "/kept", Type::File, 0},
                                              {Kind::Created, dir + "/new", Type::File, 0}}));
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(theDir.at("kept")), "kept");
    EXPECT_EQ(readFile(theDir.at("gone")), "gone");
    EXPECT_EQ(readFile(theDir.at("Old/b/c")), "c");
    EXPECT_FALSE(present(theDir.at("new")));
    EXPECT_FALSE(present(theDir.at("Folder/added")));
}

TEST_F(OverlayRootTest, AFolderRemovedAndMadeAgainShowsItsOldItemsRemovedAndItsNewOnesCreated)
{
    // The overlay marks the folder made again opaque, as the layer is read.
    const std::string dir = theDir.path();
    writeFile(theDir.at("Again/old"), "old");
    writeFile(theDir.at("Again/sub/inner"), "inner");
    ASSERT_EQ(::chmod(theDir.at("Again").c_str(), 0755), 0);
    const int status = runInsideOverlayRoot("/tmp", [&dir](OverlayRoot& root) {
        std::error_code ignored;
        ASSERT_EQ(std::filesystem::remove_all(dir + "/Again", ignored), 4U);
        makeDirectories(dir + "/Again");
        ASSERT_EQ(::chmod((dir + "/Again").c_str(), 0755), 0);
        writeFile(dir + "/Again/fresh", "fresh");
        EXPECT_EQ(namesIn(dir + "/Again"), std::vector<std::string>{"fresh"});
        const OverlayRoot::Layer* layer = layerHolding(root, dir);
        ASSERT_NE(layer, nullptr);
        // Made again with the mode and owner it had: the folder itself is
        // not reported.
        EXPECT_EQ(changesInside(*layer, dir),
                  (std::vector<OverlayChange>{{Kind::Created, dir + "/Again/fresh", Type::File, 0},
                                              {Kind::Removed, dir + "/Again/old", Type::File, 0},
                                              {Kind::Removed, dir + "/Again/sub", Type::Folder, 1}}));
    });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, AWorkFolderThatIsAMountOfItsOwnIsMirroredLikeAnyOther)
{
    // /tmp is a tmpfs of its own on many systems.
    const std::string work = theDir.at("work");
    makeDirectories(work);
    const int status = runInsideOverlayRoot(
        work,
        [&work](OverlayRoot& root) {
            EXPECT_EQ(namesIn(work), std::vector<std::string>{"on-the-mount"});
            EXPECT_EQ(readFile(work + "/on-the-mount"), "x");
            const OverlayRoot::Layer* layer = layerAt(root, work);
            ASSERT_NE(layer, nullptr);
            writeFile(work + "/new", "new");
            EXPECT_EQ(changesInside(*layer, work),
                      (std::vector<OverlayChange>{{Kind::Created, work + "/new", Type::File, 0}}));
        },
        [&work] {
            if (!enterPrivateMountNamespace() || ::mount("tmpfs", work.c_str(), "tmpfs", 0, "size=64k") != 0) {
                return false;
            }
            writeFile(work + "/on-the-mount", "x");
            return true;
        });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, AFolderAndAFileKeepTheirInodeAndDeviceWhenCopiedUp)
{
    const std::string dir = theDir.path();
    writeFile(theDir.at("Folder/a"), "a");
    writeFile(theDir.at("Folder/b"), "b");
    const int status = runInsideOverlayRoot("/tmp", [&dir](OverlayRoot&) {
        struct stat folderBefore {};
        struct stat fileBefore {};
        ASSERT_EQ(::stat((dir + "/Folder").c_str(), &folderBefore), 0);
        ASSERT_EQ(::stat((dir + "/Folder/b").c_str(), &fileBefore), 0);
        // Removing "a" copies the folder up; writing "b" copies the file up.
        ASSERT_EQ(::unlink((dir + "/Folder/a").c_str()), 0);
        writeFile(dir + "/Folder/b", "changed");
        struct stat folderAfter {};
        struct stat fileAfter {};
        ASSERT_EQ(::stat((dir + "/Folder").c_str(), &folderAfter), 0);
        ASSERT_EQ(::stat((dir + "/Folder/b").c_str(), &fileAfter), 0);
        EXPECT_EQ(folderAfter.st_ino, folderBefore.st_ino);
        EXPECT_EQ(folderAfter.st_dev, folderBefore.st_dev);
        EXPECT_EQ(fileAfter.st_ino, fileBefore.st_ino);
        EXPECT_EQ(fileAfter.st_dev, fileBefore.st_dev);
        // Still two items, told apart.
        EXPECT_NE(fileAfter.st_ino, folderAfter.st_ino);
    });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, EveryItemOfAnOverlaidMountHasOneDeviceAsOnADisk)
{
    // A program that stops where the device changes must not stop at each
    // file of the original layer, nor at each new one.
    const std::string dir = theDir.path();
    writeFile(theDir.at("Folder/untouched"), "a");
    writeFile(theDir.at("Folder/changed"), "b");
    const int status = runInsideOverlayRoot("/tmp", [&dir](OverlayRoot&) {
        writeFile(dir + "/Folder/changed", "changed");
        writeFile(dir + "/Folder/new", "new");
        struct stat folder {};
        ASSERT_EQ(::stat((dir + "/Folder").c_str(), &folder), 0);
        for (const char* name : {"untouched", "changed", "new"}) {
            struct stat item {};
            ASSERT_EQ(::stat((dir + "/Folder/" + name).c_str(), &item), 0) << name;
            EXPECT_EQ(item.st_dev, folder.st_dev) << name;
        }
    });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, ASameDiskBindMountIsStillAMountOfItsOwnButReadOnlyAndListed)
{
    // An overlay of its own would be a second, separate copy of files the
    // overlay of its disk already shows.
    const std::string dir = theDir.path();
    writeFile(theDir.at("source/file"), "kept");
    makeDirectories(theDir.at("listed/bound"));
    const int status = runInsideOverlayRoot(
        "/tmp",
        [&dir](OverlayRoot& root) {
            const std::string listed = dir + "/listed";
            const int folder = ::open(listed.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            ASSERT_GE(folder, 0);
            const std::optional<uint64_t> listedId = platform::MountPoint::mountIdOf(folder);
            const std::optional<uint64_t> boundId = platform::MountPoint::mountIdAt(folder, "bound");
            ::close(folder);
            ASSERT_TRUE(listedId && boundId);
            EXPECT_NE(*boundId, *listedId);
            EXPECT_EQ(platform::MountPoint::isMountRoot(listed + "/bound"), std::optional<bool>(true));
            EXPECT_EQ(readFile(listed + "/bound/file"), "kept");
            EXPECT_EQ(errorOfOpeningToWrite(listed + "/bound/new"), EROFS);
            EXPECT_EQ(layerAt(root, listed + "/bound"), nullptr);

            const OverlayRoot::Layer* disk = layerHolding(root, dir + "/source");
            ASSERT_NE(disk, nullptr);
            const OverlayRoot::ReadOnlyMount* bound = readOnlyMountAt(root, listed + "/bound");
            ASSERT_NE(bound, nullptr);
            EXPECT_EQ(bound->reason, "another view of a disk overlaid at " + disk->mountPoint);
            // What the source folder holds is still writable where its disk
            // is overlaid.
            writeFile(dir + "/source/new", "new");
            EXPECT_EQ(changesInside(*disk, dir),
                      (std::vector<OverlayChange>{{Kind::Created, dir + "/source/new", Type::File, 0}}));
        },
        [&dir] { return enterPrivateMountNamespace() && bindMount(dir + "/source", dir + "/listed/bound"); });
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(present(theDir.at("source/new")));
    // The bind mount was the child's alone.
    EXPECT_FALSE(present(theDir.at("listed/bound/file")));
}

TEST_F(OverlayRootTest, AnotherDiskMountedInsideGetsALayerOfItsOwn)
{
    const std::string dir = theDir.path();
    // The mount point's name comes from the kernel's escaped text.
    const std::string mounted = dir + "/listed/with blank";
    makeDirectories(mounted);
    const int status = runInsideOverlayRoot(
        "/tmp",
        [&dir, &mounted](OverlayRoot& root) {
            EXPECT_EQ(readFile(mounted + "/file"), "kept");
            const OverlayRoot::Layer* layer = layerAt(root, mounted);
            ASSERT_NE(layer, nullptr);
            writeFile(mounted + "/new", "new");
            ASSERT_EQ(::unlink((mounted + "/file").c_str()), 0);
            EXPECT_EQ(changesInside(*layer, "/"),
                      (std::vector<OverlayChange>{{Kind::Removed, mounted + "/file", Type::File, 0},
                                                  {Kind::Created, mounted + "/new", Type::File, 0}}));
            // Nothing of it is in the layer of the mount it sits on.
            const OverlayRoot::Layer* around = layerHolding(root, dir);
            ASSERT_NE(around, nullptr);
            EXPECT_NE(around, layer);
            EXPECT_EQ(changesInside(*around, dir), std::vector<OverlayChange>{});
        },
        [&mounted] {
            if (!enterPrivateMountNamespace() || ::mount("tmpfs", mounted.c_str(), "tmpfs", 0, "size=64k") != 0) {
                return false;
            }
            writeFile(mounted + "/file", "kept");
            return true;
        });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(namesIn(mounted), std::vector<std::string>{});
}

TEST_F(OverlayRootTest, BindMountsOfSeparateFoldersOfOneDiskAreEachOverlaid)
{
    // Two binds of folders side by side on a disk not mounted whole show no
    // file twice: each gets a layer. A bind of a folder inside one of them
    // would show its files twice: it is read-only and listed.
    const std::string dir = theDir.path();
    for (const char* folder : {"disk", "first", "second", "inner"}) {
        makeDirectories(theDir.at(folder));
    }
    const int status = runInsideOverlayRoot(
        "/tmp",
        [&dir](OverlayRoot& root) {
            const OverlayRoot::Layer* first = layerAt(root, dir + "/first");
            const OverlayRoot::Layer* second = layerAt(root, dir + "/second");
            ASSERT_NE(first, nullptr);
            ASSERT_NE(second, nullptr);
            writeFile(dir + "/first/new", "1");
            writeFile(dir + "/second/new", "2");
            EXPECT_EQ(changesInside(*first, "/"),
                      (std::vector<OverlayChange>{{Kind::Created, dir + "/first/new", Type::File, 0}}));
            EXPECT_EQ(changesInside(*second, "/"),
                      (std::vector<OverlayChange>{{Kind::Created, dir + "/second/new", Type::File, 0}}));
            EXPECT_EQ(layerAt(root, dir + "/inner"), nullptr);
            const OverlayRoot::ReadOnlyMount* inner = readOnlyMountAt(root, dir + "/inner");
            ASSERT_NE(inner, nullptr);
            EXPECT_EQ(inner->reason, "another view of a disk overlaid at " + dir + "/first");
            EXPECT_EQ(readFile(dir + "/inner/file"), "deep");
            EXPECT_EQ(errorOfOpeningToWrite(dir + "/inner/file"), EROFS);
        },
        [&dir] {
            const std::string disk = dir + "/disk";
            if (!enterPrivateMountNamespace() || ::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k") != 0) {
                return false;
            }
            writeFile(disk + "/a/deeper/file", "deep");
            writeFile(disk + "/b/file", "b");
            return bindMount(disk + "/a", dir + "/first") && bindMount(disk + "/b", dir + "/second") &&
                   bindMount(disk + "/a/deeper", dir + "/inner") && ::umount2(disk.c_str(), MNT_DETACH) == 0;
        });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, AReadOnlyBindMountStaysReadOnlyAndIsNotListed)
{
    const std::string dir = theDir.path();
    writeFile(theDir.at("source/file"), "kept");
    makeDirectories(theDir.at("readonly"));
    const int status = runInsideOverlayRoot(
        "/tmp",
        [&dir](OverlayRoot& root) {
            const std::string readOnly = dir + "/readonly";
            EXPECT_EQ(readFile(readOnly + "/file"), "kept");
            EXPECT_EQ(errorOfOpeningToWrite(readOnly + "/new"), EROFS);
            EXPECT_EQ(errorOfOpeningToWrite(readOnly + "/file"), EROFS);
            // It was read-only before: nothing a program does there differs.
            EXPECT_EQ(readOnlyMountAt(root, readOnly), nullptr);
            EXPECT_EQ(layerAt(root, readOnly), nullptr);
        },
        [&dir] {
            return enterPrivateMountNamespace() && bindMount(dir + "/source", dir + "/readonly") &&
                   ::mount(nullptr, (dir + "/readonly").c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) ==
                       0;
        });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, ProcIsReadOnlyAndListedAsAKernelInterface)
{
    const int status = runInsideOverlayRoot("/tmp", [](OverlayRoot& root) {
        const OverlayRoot::ReadOnlyMount* proc = readOnlyMountAt(root, "/proc");
        ASSERT_NE(proc, nullptr);
        EXPECT_EQ(proc->fileSystemType, "proc");
        EXPECT_EQ(proc->reason, "a kernel interface");
        EXPECT_EQ(layerAt(root, "/proc"), nullptr);
        // Still readable, refused for writing (opened, nothing written).
        EXPECT_TRUE(mountAt("/proc").has_value());
        EXPECT_EQ(errorOfOpeningToWrite("/proc/self/comm"), EROFS);
    });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, AKernelInterfaceInsideAListedOneIsReadOnlyButNotListedAgain)
{
    const std::string dir = theDir.path();
    makeDirectories(theDir.at("kernel"));
    const int status = runInsideOverlayRoot(
        "/tmp",
        [&dir](OverlayRoot& root) {
            const OverlayRoot::ReadOnlyMount* outer = readOnlyMountAt(root, dir + "/kernel");
            ASSERT_NE(outer, nullptr);
            EXPECT_EQ(outer->fileSystemType, "proc");
            EXPECT_EQ(outer->reason, "a kernel interface");
            EXPECT_EQ(readOnlyMountAt(root, dir + "/kernel/sys"), nullptr);
            const std::optional<MountEntry> inner = mountAt(dir + "/kernel/sys");
            ASSERT_TRUE(inner.has_value());
            EXPECT_TRUE(inner->isReadOnly());
            // No listed mount lies inside another listed one.
            for (const OverlayRoot::ReadOnlyMount& a : root.readOnlyMounts()) {
                for (const OverlayRoot::ReadOnlyMount& b : root.readOnlyMounts()) {
                    EXPECT_TRUE(&a == &b || !liesInside(a.mountPoint, b.mountPoint))
                        << a.mountPoint << " inside " << b.mountPoint;
                }
            }
        },
        [&dir] {
            return enterPrivateMountNamespace() &&
                   ::mount("proc", (dir + "/kernel").c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0 &&
                   ::mount("proc", (dir + "/kernel/sys").c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) ==
                       0;
        });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, AMountTheOverlayRefusesIsReadOnlyAndListedWithTheRefusal)
{
    // Overlays stack two deep at most: one over an overlay of an overlay
    // is refused.
    const std::string dir = theDir.path();
    for (const char* folder : {"l1", "u1", "w1", "o1", "u2", "w2", "o2"}) {
        makeDirectories(theDir.at(folder));
    }
    writeFile(theDir.at("l1/file"), "kept");
    const int status = runInsideOverlayRoot(
        "/tmp",
        [&dir](OverlayRoot& root) {
            const OverlayRoot::ReadOnlyMount* refused = readOnlyMountAt(root, dir + "/o2");
            ASSERT_NE(refused, nullptr);
            EXPECT_EQ(refused->fileSystemType, "overlay");
            EXPECT_EQ(refused->reason.rfind("the overlay was refused: ", 0), 0U) << refused->reason;
            EXPECT_EQ(layerAt(root, dir + "/o2"), nullptr);
            EXPECT_EQ(readFile(dir + "/o2/file"), "kept");
            EXPECT_EQ(errorOfOpeningToWrite(dir + "/o2/new"), EROFS);
            // One level less deep is overlaid as usual.
            EXPECT_NE(layerAt(root, dir + "/o1"), nullptr);
            EXPECT_EQ(readOnlyMountAt(root, dir + "/o1"), nullptr);
        },
        [&dir] {
            const std::string first = "lowerdir=" + dir + "/l1,upperdir=" + dir + "/u1,workdir=" + dir + "/w1";
            const std::string second = "lowerdir=" + dir + "/o1,upperdir=" + dir + "/u2,workdir=" + dir + "/w2";
            return enterPrivateMountNamespace() &&
                   ::mount("overlay", (dir + "/o1").c_str(), "overlay", 0, first.c_str()) == 0 &&
                   ::mount("overlay", (dir + "/o2").c_str(), "overlay", 0, second.c_str()) == 0;
        });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, AWritableFileBindMountIsReadOnlyInsideAndListed)
{
    // A file cannot be overlaid: writing it fails inside though it would
    // not outside, which is what the list is for.
    const std::string dir = theDir.path();
    writeFile(theDir.at("source"), "kept");
    writeFile(theDir.at("target"), "covered");
    const int status = runInsideOverlayRoot(
        "/tmp",
        [&dir](OverlayRoot& root) {
            EXPECT_EQ(readFile(dir + "/target"), "kept");
            EXPECT_EQ(errorOfOpeningToWrite(dir + "/target"), EROFS);
            const OverlayRoot::ReadOnlyMount* listed = readOnlyMountAt(root, dir + "/target");
            ASSERT_NE(listed, nullptr);
            EXPECT_FALSE(listed->reason.empty());
        },
        [&dir] { return enterPrivateMountNamespace() && bindMount(dir + "/source", dir + "/target"); });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(theDir.at("target")), "covered");
}

TEST_F(OverlayRootTest, ADeviceBoundOverAFileStillOpensAndIsNotListed)
{
    // A device is no file whose writes could reach the disk: writing to it
    // inside does what it does outside.
    const std::string dir = theDir.path();
    writeFile(theDir.at("null"), "covered");
    const int status = runInsideOverlayRoot(
        "/tmp",
        [&dir](OverlayRoot& root) {
            EXPECT_EQ(errorOfOpeningToWrite(dir + "/null"), 0);
            EXPECT_EQ(readOnlyMountAt(root, dir + "/null"), nullptr);
        },
        [&dir] { return enterPrivateMountNamespace() && bindMount("/dev/null", dir + "/null"); });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(theDir.at("null")), "covered");
}

TEST_F(OverlayRootTest, TheDeviceFileSystemIsAKernelInterfaceAndItsNodesStillOpen)
{
    const std::string dir = theDir.path();
    makeDirectories(theDir.at("devices"));
    const int status = runInsideOverlayRoot(
        "/tmp",
        [&dir](OverlayRoot& root) {
            const OverlayRoot::ReadOnlyMount* devices = readOnlyMountAt(root, dir + "/devices");
            ASSERT_NE(devices, nullptr);
            EXPECT_EQ(devices->fileSystemType, "devtmpfs");
            EXPECT_EQ(devices->reason, "a kernel interface");
            EXPECT_EQ(layerAt(root, dir + "/devices"), nullptr);
            EXPECT_EQ(errorOfOpeningToWrite(dir + "/devices/null"), 0);
            EXPECT_EQ(errorOfOpeningToWrite(dir + "/devices/made-inside"), EROFS);
        },
        [&dir] {
            return enterPrivateMountNamespace() &&
                   ::mount("devtmpfs", (dir + "/devices").c_str(), "devtmpfs", MS_NOSUID, nullptr) == 0;
        });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, ADeviceNodeOnAnOverlaidDiskDoesNotOpen)
{
    // Whatever device a node on the disk names, reached through the overlay
    // it opens nothing (the node here is the harmless null device).
    const std::string dir = theDir.path();
    ASSERT_EQ(::mknod(theDir.at("node").c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
    const int status = runInsideOverlayRoot("/tmp", [&dir](OverlayRoot&) {
        struct stat node {};
        ASSERT_EQ(::lstat((dir + "/node").c_str(), &node), 0);
        EXPECT_TRUE(S_ISCHR(node.st_mode));
        EXPECT_EQ(errorOfOpeningToWrite(dir + "/node"), EACCES);
    });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, AMountCoveredByAnotherOnTheSameFolderIsLeftOut)
{
    const std::string dir = theDir.path();
    makeDirectories(theDir.at("stack"));
    const int status = runInsideOverlayRoot(
        "/tmp",
        [&dir](OverlayRoot& root) {
            EXPECT_EQ(namesIn(dir + "/stack"), std::vector<std::string>{"top"});
            const auto& layers = root.layers();
            EXPECT_EQ(
                std::count_if(layers.begin(), layers.end(),
                              [&dir](const OverlayRoot::Layer& layer) { return layer.mountPoint == dir + "/stack"; }),
                1);
        },
        [&dir] {
            const std::string stack = dir + "/stack";
            if (!enterPrivateMountNamespace() || ::mount("tmpfs", stack.c_str(), "tmpfs", 0, "size=64k") != 0) {
                return false;
            }
            writeFile(stack + "/covered", "x");
            if (::mount("tmpfs", stack.c_str(), "tmpfs", 0, "size=64k") != 0) {
                return false;
            }
            writeFile(stack + "/top", "x");
            return true;
        });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, AnOverlayKeepsTheNoexecAndNosuidOfTheMountItStandsForAndIsNodev)
{
    const std::string dir = theDir.path();
    makeDirectories(theDir.at("noexec"));
    const int status = runInsideOverlayRoot(
        "/tmp",
        [&dir](OverlayRoot&) {
            const std::optional<MountEntry> entry = mountAt(dir + "/noexec");
            ASSERT_TRUE(entry.has_value());
            EXPECT_EQ(entry->fileSystemType, "overlay");
            EXPECT_TRUE(entry->hasMountOption("noexec"));
            EXPECT_TRUE(entry->hasMountOption("nosuid"));
            // And nodev on every overlay, whatever the mount had.
            EXPECT_TRUE(entry->hasMountOption("nodev"));
            EXPECT_EQ(::access((dir + "/noexec/script").c_str(), X_OK), -1);
            EXPECT_EQ(errno, EACCES);
        },
        [&dir] {
            const std::string folder = dir + "/noexec";
            if (!enterPrivateMountNamespace() ||
                ::mount("tmpfs", folder.c_str(), "tmpfs", MS_NOEXEC | MS_NOSUID, "size=64k") != 0) {
                return false;
            }
            writeFile(folder + "/script", "#!/bin/sh\nexit 0\n");
            return ::chmod((folder + "/script").c_str(), 0755) == 0;
        });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, BindFileReadOnlyMakesTheTargetRunAndReadAsTheSource)
{
    const std::string dir = theDir.path();
    writeFile(theDir.at("tool"), "#!/bin/sh\necho real\n");
    writeFile(theDir.at("stand-in"), "#!/bin/sh\necho stand-in\n");
    ASSERT_EQ(::chmod(theDir.at("tool").c_str(), 0755), 0);
    ASSERT_EQ(::chmod(theDir.at("stand-in").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("tool", theDir.at("link-to-tool").c_str()), 0);
    const int status = runInsideOverlayRoot("/tmp", [&dir](OverlayRoot& root) {
        std::error_code error = std::make_error_code(std::errc::io_error);
        // Through a link: the file it leads to is covered.
        ASSERT_TRUE(root.bindFileReadOnly(dir + "/stand-in", dir + "/link-to-tool", &error)) << error.message();
        EXPECT_FALSE(error) << error.message();
        EXPECT_EQ(readFile(dir + "/tool"), "#!/bin/sh\necho stand-in\n");
        platform::TaskOptions options;
        options.captureStandardOutput = true;
        platform::Task task = platform::Task::launchedTaskWithLaunchPath(dir + "/tool", {}, options);
        task.waitUntilExit();
        EXPECT_EQ(task.terminationStatus(), 0);
        EXPECT_EQ(task.standardOutputData(), "stand-in\n");
        EXPECT_EQ(errorOfOpeningToWrite(dir + "/tool"), EROFS);
        // The link itself is still a link.
        struct stat link {};
        ASSERT_EQ(::lstat((dir + "/link-to-tool").c_str(), &link), 0);
        EXPECT_TRUE(S_ISLNK(link.st_mode));
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(theDir.at("tool")), "#!/bin/sh\necho real\n");
    EXPECT_EQ(readFile(theDir.at("stand-in")), "#!/bin/sh\necho stand-in\n");
}

TEST_F(OverlayRootTest, BindFileReadOnlyRefusesAMissingTargetAndAFolder)
{
    const std::string dir = theDir.path();
    writeFile(theDir.at("stand-in"), "stand-in");
    writeFile(theDir.at("target"), "target");
    makeDirectories(theDir.at("Folder"));
    ASSERT_EQ(::symlink("Folder", theDir.at("link-to-folder").c_str()), 0);
    const int status = runInsideOverlayRoot("/tmp", [&dir](OverlayRoot& root) {
        std::error_code error;
        EXPECT_FALSE(root.bindFileReadOnly(dir + "/stand-in", dir + "/missing", &error));
        EXPECT_EQ(error, std::errc::no_such_file_or_directory);
        EXPECT_FALSE(present(dir + "/missing"));
        error.clear();
        EXPECT_FALSE(root.bindFileReadOnly(dir + "/stand-in", dir + "/Folder", &error));
        EXPECT_EQ(error, std::errc::invalid_argument);
        error.clear();
        EXPECT_FALSE(root.bindFileReadOnly(dir + "/stand-in", dir + "/link-to-folder", &error));
        EXPECT_EQ(error, std::errc::invalid_argument);
        error.clear();
        EXPECT_FALSE(root.bindFileReadOnly(dir + "/no-stand-in", dir + "/target", &error));
        EXPECT_EQ(error, std::errc::no_such_file_or_directory);
        EXPECT_EQ(readFile(dir + "/target"), "target");
    });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, PlaceStandInWritesAWritableTargetInItsLayerKeepingItsModeAndTimes)
{
    const std::string dir = theDir.path();
    writeFile(theDir.at("tool"), "#!/bin/sh\necho real\n");
    writeFile(theDir.at("stand-in"), "#!/bin/sh\necho stand-in\n");
    ASSERT_EQ(::chmod(theDir.at("tool").c_str(), 0751), 0);
    ASSERT_EQ(::chmod(theDir.at("stand-in").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("tool", theDir.at("link-to-tool").c_str()), 0);
    const int status = runInsideOverlayRoot("/tmp", [&dir](OverlayRoot& root) {
        struct stat real {};
        ASSERT_EQ(::stat((dir + "/tool").c_str(), &real), 0);
        std::error_code error = std::make_error_code(std::errc::io_error);
        // Through a link: the file it leads to is the one written.
        ASSERT_TRUE(root.placeStandIn(dir + "/stand-in", dir + "/link-to-tool", &error)) << error.message();
        EXPECT_FALSE(error) << error.message();
        platform::TaskOptions options;
        options.captureStandardOutput = true;
        platform::Task task = platform::Task::launchedTaskWithLaunchPath(dir + "/tool", {}, options);
        task.waitUntilExit();
        EXPECT_EQ(task.terminationStatus(), 0);
        EXPECT_EQ(task.standardOutputData(), "stand-in\n");
        struct stat now {};
        ASSERT_EQ(::stat((dir + "/tool").c_str(), &now), 0);
        EXPECT_EQ(now.st_mode, real.st_mode);
        EXPECT_EQ(now.st_ino, real.st_ino);
        EXPECT_EQ(now.st_mtim.tv_sec, real.st_mtim.tv_sec);
        EXPECT_EQ(now.st_mtim.tv_nsec, real.st_mtim.tv_nsec);
        // No mount: it goes as the real file would.
        EXPECT_EQ(platform::MountPoint::isMountRoot(dir + "/tool"), std::optional<bool>(false));
        EXPECT_EQ(root.standInsLeftAsPlaced(), std::vector<std::string>{dir + "/tool"});
        ASSERT_EQ(::unlink((dir + "/tool").c_str()), 0) << std::strerror(errno);
        EXPECT_FALSE(present(dir + "/tool"));
        EXPECT_EQ(root.standInsLeftAsPlaced(), std::vector<std::string>{});
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(theDir.at("tool")), "#!/bin/sh\necho real\n");
    EXPECT_EQ(readFile(theDir.at("stand-in")), "#!/bin/sh\necho stand-in\n");
}

TEST_F(OverlayRootTest, APlacedStandInChangedAfterwardsIsNoLongerLeftAsPlaced)
{
    const std::string dir = theDir.path();
    writeFile(theDir.at("tool"), "real");
    writeFile(theDir.at("stand-in"), "stand-in");
    const int status = runInsideOverlayRoot("/tmp", [&dir](OverlayRoot& root) {
        std::error_code error;
        ASSERT_TRUE(root.placeStandIn(dir + "/stand-in", dir + "/tool", &error)) << error.message();
        ASSERT_EQ(::chmod((dir + "/tool").c_str(), 0600), 0);
        EXPECT_EQ(root.standInsLeftAsPlaced(), std::vector<std::string>{});
    });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, PlaceStandInBindsOverATargetWhoseViewIsReadOnly)
{
    const std::string dir = theDir.path();
    writeFile(theDir.at("source/tool"), "real");
    writeFile(theDir.at("stand-in"), "stand-in");
    makeDirectories(theDir.at("readonly"));
    const int status = runInsideOverlayRoot(
        "/tmp",
        [&dir](OverlayRoot& root) {
            std::error_code error;
            ASSERT_TRUE(root.placeStandIn(dir + "/stand-in", dir + "/readonly/tool", &error)) << error.message();
            EXPECT_EQ(readFile(dir + "/readonly/tool"), "stand-in");
            // A mount, which, like the real file there, cannot be removed.
            EXPECT_EQ(platform::MountPoint::isMountRoot(dir + "/readonly/tool"), std::optional<bool>(true));
            EXPECT_NE(::unlink((dir + "/readonly/tool").c_str()), 0);
            EXPECT_EQ(root.standInsLeftAsPlaced(), std::vector<std::string>{});
        },
        [&dir] {
            return enterPrivateMountNamespace() && bindMount(dir + "/source", dir + "/readonly") &&
                   ::mount(nullptr, (dir + "/readonly").c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) ==
                       0;
        });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(theDir.at("source/tool")), "real");
}

TEST_F(OverlayRootTest, PlaceStandInRefusesAMissingTargetAndAFolderAndWritesNothing)
{
    const std::string dir = theDir.path();
    writeFile(theDir.at("stand-in"), "stand-in");
    writeFile(theDir.at("target"), "target");
    makeDirectories(theDir.at("Folder"));
    const int status = runInsideOverlayRoot("/tmp", [&dir](OverlayRoot& root) {
        std::error_code error;
        EXPECT_FALSE(root.placeStandIn(dir + "/stand-in", dir + "/missing", &error));
        EXPECT_EQ(error, std::errc::no_such_file_or_directory);
        EXPECT_FALSE(present(dir + "/missing"));
        error.clear();
        EXPECT_FALSE(root.placeStandIn(dir + "/stand-in", dir + "/Folder", &error));
        EXPECT_TRUE(error);
        error.clear();
        EXPECT_FALSE(root.placeStandIn(dir + "/no-stand-in", dir + "/target", &error));
        EXPECT_EQ(error, std::errc::no_such_file_or_directory);
        EXPECT_EQ(readFile(dir + "/target"), "target");
        EXPECT_EQ(root.standInsLeftAsPlaced(), std::vector<std::string>{});
    });
    EXPECT_EQ(status, 0);
}

TEST_F(OverlayRootTest, SeparateProcessesMakesTheNextChildTheFirstOfAProcessTableOfItsOwn)
{
    const int status = runInsideOverlayRoot("/tmp", [](OverlayRoot& root) {
        std::error_code error = std::make_error_code(std::errc::io_error);
        ASSERT_TRUE(root.separateProcesses(&error)) << error.message();
        EXPECT_FALSE(error);
        std::fflush(stdout);
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            std::error_code mounted;
            if (::getpid() != 1) {
                ::_exit(11);
            }
            if (!OverlayRoot::mountProcessTable(&mounted) || mounted) {
                ::_exit(12);
            }
            // The table lists this process alone, as process 1.
            std::vector<std::string> processes;
            for (const std::string& name : namesIn("/proc")) {
                if (name.find_first_not_of("0123456789") == std::string::npos) {
                    processes.push_back(name);
                }
            }
            if (processes != std::vector<std::string>{"1"}) {
                ::_exit(13);
            }
            std::optional<MountEntry> proc = mountAt("/proc");
            ::_exit(proc && proc->isReadOnly() ? 0 : 14);
        }
        int childStatus = -1;
        ASSERT_EQ(::waitpid(pid, &childStatus, 0), pid);
        EXPECT_TRUE(WIFEXITED(childStatus));
        EXPECT_EQ(WEXITSTATUS(childStatus), 0);

        // With the first process gone, no process can be made there; back
        // in its own namespace, this process makes children as before.
        ASSERT_TRUE(root.rejoinProcesses(&error)) << error.message();
        std::fflush(stdout);
        const pid_t again = ::fork();
        ASSERT_GE(again, 0) << std::strerror(errno);
        if (again == 0) {
            ::_exit(::getpid() == 1 ? 21 : 0);
        }
        ASSERT_EQ(::waitpid(again, &childStatus, 0), again);
        EXPECT_TRUE(WIFEXITED(childStatus));
        EXPECT_EQ(WEXITSTATUS(childStatus), 0);
    });
    EXPECT_EQ(status, 0);
}

// Enters with `workFolder` in a child, which leaves at once whatever
// happens (it may be in a namespace of its own with the old root still in
// place): 0 when enter() failed as a set-up step naming the folder, for
// `reason`.
int statusOfEnteringWith(const std::string& workFolder, std::errc reason)
{
    std::fflush(stdout);
    return testsupport::runInChild([] { return true; },
                                   [&workFolder, reason] {
                                       OverlayRoot::Failure failure;
                                       if (OverlayRoot::enter(workFolder, &failure)) {
                                           return 1;
                                       }
                                       std::fprintf(stderr, "failure: %s\n", failure.message().c_str());
                                       if (failure.kind != OverlayRoot::FailureKind::SetUp) {
                                           return 2;
                                       }
                                       if (failure.step.find(workFolder) == std::string::npos) {
                                           return 3;
                                       }
                                       return failure.code == reason ? 0 : 4;
                                   });
}

TEST_F(OverlayRootTest, AMissingWorkFolderIsASetUpFailureNamingIt)
{
    EXPECT_EQ(statusOfEnteringWith(theDir.at("missing"), std::errc::no_such_file_or_directory), 0);
}

TEST_F(OverlayRootTest, AWorkFolderThatIsAFileIsASetUpFailureNamingIt)
{
    writeFile(theDir.at("file"), "x");
    EXPECT_EQ(statusOfEnteringWith(theDir.at("file"), std::errc::not_a_directory), 0);
}

TEST(OverlayRootUnprivileged, EnteringWithoutRootIsNoMountNamespace)
{
    const int status = testsupport::runUnprivileged([] {
        OverlayRoot::Failure failure;
        const std::optional<OverlayRoot> root = OverlayRoot::enter("/tmp", &failure);
        if (root) {
            return 1;
        }
        if (failure.kind != OverlayRoot::FailureKind::NoMountNamespace) {
            return 2;
        }
        if (failure.code != std::errc::operation_not_permitted) {
            return 3;
        }
        return failure.message() == failure.step + ": Operation not permitted" ? 0 : 4;
    });
    EXPECT_EQ(status, 0);
}

TEST(OverlayRootFailure, MessageIsTheStepAndTheReason)
{
    const OverlayRoot::Failure failure{OverlayRoot::FailureKind::SetUp, "cannot make /tmp/root",
                                       std::make_error_code(std::errc::permission_denied)};
    EXPECT_EQ(failure.message(), "cannot make /tmp/root: Permission denied");
    const OverlayRoot::Failure noOverlay{OverlayRoot::FailureKind::NoOverlay, "this kernel has no overlay file system",
                                         std::make_error_code(std::errc::no_such_device)};
    EXPECT_EQ(noOverlay.message(), "this kernel has no overlay file system: No such device");
}

}  // namespace
