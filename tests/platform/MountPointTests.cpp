#include "platform/MountPoint.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/Descriptor.h"
#include "tests/support/PrivateMountNamespace.h"
#include "tests/support/TempDir.h"

namespace {

using platform::MountPoint;
using testsupport::makeDirectories;
using testsupport::TempDir;
using testsupport::writeFile;

TEST(MountPoint, AnOrdinarySubFolderIsNoMountRoot)
{
    TempDir dir;
    makeDirectories(dir.at("plain/inner"));
    const testsupport::Descriptor folder = testsupport::openFolder(dir.path());
    ASSERT_GE(folder.get(), 0);
    EXPECT_EQ(MountPoint::isMountRoot(folder.get(), "plain"), std::optional<bool>(false));
    EXPECT_EQ(MountPoint::isMountRoot(dir.at("plain/inner")), std::optional<bool>(false));
    EXPECT_EQ(MountPoint::mountIdAt(folder.get(), "plain"), MountPoint::mountIdOf(folder.get()));
    EXPECT_TRUE(MountPoint::mountIdOf(folder.get()).has_value());
}

TEST(MountPoint, TheRootFolderIsAMountRoot)
{
    EXPECT_EQ(MountPoint::isMountRoot("/"), std::optional<bool>(true));
}

TEST(MountPoint, AMissingNameCannotBeTold)
{
    TempDir dir;
    const testsupport::Descriptor folder = testsupport::openFolder(dir.path());
    EXPECT_FALSE(MountPoint::isMountRoot(folder.get(), "missing").has_value());
    EXPECT_FALSE(MountPoint::mountIdAt(folder.get(), "missing").has_value());
    EXPECT_FALSE(MountPoint::isMountRoot(dir.at("missing/deeper")).has_value());
}

TEST(MountPoint, ALinkToAMountIsNoMountRoot)
{
    TempDir dir;
    ASSERT_EQ(::symlink("/", dir.at("to-root").c_str()), 0);
    const testsupport::Descriptor folder = testsupport::openFolder(dir.path());
    EXPECT_EQ(MountPoint::isMountRoot(folder.get(), "to-root"), std::optional<bool>(false));
}

// The mounts are made in a child in a private mount namespace, so nothing
// outside it ever sees them and they go away with it.
TEST(MountPoint, AnotherFileSystemMountedInsideIsAMountRoot)
{
    TempDir dir;
    makeDirectories(dir.at("mnt"));
    testsupport::expectInPrivateMountNamespace([&dir] {
        ASSERT_EQ(::mount("tmpfs", dir.at("mnt").c_str(), "tmpfs", 0, "size=1m"), 0);
        writeFile(dir.at("mnt/inside/file"), "x");

        const testsupport::Descriptor folder = testsupport::openFolder(dir.path());
        EXPECT_EQ(MountPoint::isMountRoot(folder.get(), "mnt"), std::optional<bool>(true));
        EXPECT_EQ(MountPoint::isMountRoot(dir.at("mnt")), std::optional<bool>(true));
        EXPECT_EQ(MountPoint::isMountRoot(dir.at("mnt/inside")), std::optional<bool>(false));
        EXPECT_NE(MountPoint::mountIdAt(folder.get(), "mnt"), MountPoint::mountIdOf(folder.get()));
    });
}

TEST(MountPoint, ABindMountOfTheSameDiskIsAMountRootThoughItsDeviceIsTheSame)
{
    TempDir dir;
    writeFile(dir.at("source/file"), "kept");
    makeDirectories(dir.at("listed/bound"));
    makeDirectories(dir.at("listed/plain"));
    testsupport::expectInPrivateMountNamespace([&dir] {
        ASSERT_EQ(::mount(dir.at("source").c_str(), dir.at("listed/bound").c_str(), nullptr, MS_BIND, nullptr), 0);

        // The device number alone cannot tell it from an ordinary folder.
        struct stat bound {};
        struct stat listed {};
        ASSERT_EQ(::stat(dir.at("listed/bound").c_str(), &bound), 0);
        ASSERT_EQ(::stat(dir.at("listed").c_str(), &listed), 0);
        EXPECT_EQ(bound.st_dev, listed.st_dev);

        const testsupport::Descriptor folder = testsupport::openFolder(dir.at("listed"));
        EXPECT_EQ(MountPoint::isMountRoot(folder.get(), "bound"), std::optional<bool>(true));
        EXPECT_EQ(MountPoint::isMountRoot(folder.get(), "plain"), std::optional<bool>(false));
        EXPECT_EQ(MountPoint::isMountRoot(dir.at("listed/bound")), std::optional<bool>(true));
        EXPECT_NE(MountPoint::mountIdAt(folder.get(), "bound"), MountPoint::mountIdOf(folder.get()));
        const testsupport::Descriptor inside = testsupport::openFolder(dir.at("listed/bound"));
        EXPECT_EQ(MountPoint::mountIdOf(inside.get()), MountPoint::mountIdAt(folder.get(), "bound"));
        EXPECT_EQ(MountPoint::isMountRoot(inside.get(), "file"), std::optional<bool>(false));
    });
}

}  // namespace
