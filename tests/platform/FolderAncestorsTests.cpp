#include "platform/FolderAncestors.h"

#include "platform/PosixIO.h"
#include "platform/TreeRemover.h"
#include "tests/support/DeepTree.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <vector>

namespace {

namespace posix = platform::posix;
using platform::FolderAncestors;
using testsupport::makeDirectories;
using testsupport::TempDir;

struct Identity {
    dev_t device;
    ino_t inode;
    bool operator==(const Identity& other) const { return device == other.device && inode == other.inode; }
};

Identity identityOf(const std::string& path)
{
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return {st.st_dev, st.st_ino};
}

std::vector<Identity> climbFrom(int fd, std::error_code* error = nullptr)
{
    std::vector<Identity> seen;
    const std::error_code result = FolderAncestors::climb(fd, [&](int, const struct stat& folder) {
        seen.push_back({folder.st_dev, folder.st_ino});
        return true;
    });
    if (error != nullptr) {
        *error = result;
    }
    return seen;
}

TEST(FolderAncestors, VisitsTheFolderAndEveryFolderAboveItUpToTheRoot)
{
    const TempDir dir;
    makeDirectories(dir.at("a/b"));
    const posix::UniqueFd fd = posix::openFile(dir.at("a/b"), O_RDONLY | O_DIRECTORY);
    ASSERT_TRUE(fd.valid());
    std::error_code error;
    const std::vector<Identity> seen = climbFrom(fd.get(), &error);
    EXPECT_FALSE(error) << error.message();
    ASSERT_GE(seen.size(), 4U);
    EXPECT_EQ(seen[0], identityOf(dir.at("a/b")));
    EXPECT_EQ(seen[1], identityOf(dir.at("a")));
    EXPECT_EQ(seen[2], identityOf(dir.path()));
    EXPECT_EQ(seen.back(), identityOf("/"));
}

TEST(FolderAncestors, ClimbsWhereTheFolderReallyIsNotWhereTheLinkToItWas)
{
    const TempDir dir;
    makeDirectories(dir.at("real/inner"));
    makeDirectories(dir.at("elsewhere"));
    ASSERT_EQ(::symlink(dir.at("real/inner").c_str(), dir.at("elsewhere/link").c_str()), 0);
    const posix::UniqueFd fd = posix::openFile(dir.at("elsewhere/link"), O_RDONLY | O_DIRECTORY);
    ASSERT_TRUE(fd.valid());
    const std::vector<Identity> seen = climbFrom(fd.get());
    ASSERT_GE(seen.size(), 2U);
    EXPECT_EQ(seen[1], identityOf(dir.at("real")));
}

TEST(FolderAncestors, TheVisitorEndsTheClimb)
{
    const TempDir dir;
    makeDirectories(dir.at("a/b/c"));
    const posix::UniqueFd fd = posix::openFile(dir.at("a/b/c"), O_RDONLY | O_DIRECTORY);
    ASSERT_TRUE(fd.valid());
    int visits = 0;
    const std::error_code error =
        FolderAncestors::climb(fd.get(), [&](int, const struct stat&) { return ++visits < 2; });
    EXPECT_FALSE(error);
    EXPECT_EQ(visits, 2);
}

TEST(FolderAncestors, StartsFromTheCurrentFolder)
{
    const TempDir dir;
    makeDirectories(dir.at("cwd"));
    const posix::UniqueFd previous = posix::openFile(".", O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(::chdir(dir.at("cwd").c_str()), 0);
    const std::vector<Identity> seen = climbFrom(AT_FDCWD);
    ASSERT_EQ(::fchdir(previous.get()), 0);
    ASSERT_GE(seen.size(), 2U);
    EXPECT_EQ(seen[0], identityOf(dir.at("cwd")));
    EXPECT_EQ(seen[1], identityOf(dir.path()));
}

TEST(FolderAncestors, AFolderThatCannotBeExaminedIsAnErrorNotTheRoot)
{
    std::error_code error;
    const std::vector<Identity> seen = climbFrom(-1, &error);
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(error, std::errc::bad_file_descriptor);
}

TEST(FolderAncestors, ReachesTheRootFromAFolderDeeperThanAPathCanName)
{
    const TempDir dir;
    // 5,000 levels of "d/": about 10,000 bytes of path, far past PATH_MAX.
    constexpr int kDepth = 5000;
    posix::UniqueFd deepest;
    ASSERT_TRUE(testsupport::buildChain(dir.path(), kDepth, [&](int folder, int level) {
        if (level == kDepth - 1) {
            deepest = posix::openAt(folder, ".", O_RDONLY | O_DIRECTORY);
        }
        return true;
    }));
    ASSERT_TRUE(deepest.valid());
    std::error_code error;
    const std::vector<Identity> seen = climbFrom(deepest.get(), &error);
    deepest.reset();
    EXPECT_TRUE(platform::TreeRemover().removePath(dir.at("d")));
    EXPECT_FALSE(error) << error.message();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), identityOf("/"));
    EXPECT_GT(seen.size(), static_cast<std::size_t>(kDepth));
}

}  // namespace
