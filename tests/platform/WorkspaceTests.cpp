#include "platform/Workspace.h"

#include "tests/support/PrivateMountNamespace.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <optional>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using testsupport::present;

using platform::Workspace;
using platform::WorkspaceOperation;
using testsupport::makeDirectories;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

bool destroy(const std::string& source, const std::vector<std::string>& files)
{
    return Workspace::sharedWorkspace().performFileOperation(WorkspaceOperation::Destroy, source, std::nullopt, files,
                                                             nullptr);
}

// Runs `body` in a child process whose root is `root`, so that requests aimed
// at "/" can only ever reach the test's own folder. The child's exit status is
// the body's result; -1 when the child could not be set up.
int runWithRootAt(const std::string& root, const std::function<int()>& body)
{
    const int status =
        testsupport::runInChild([&root] { return ::chroot(root.c_str()) == 0 && ::chdir("/") == 0; }, body);
    return status == 125 ? -1 : status;
}

class RecordingWorkspace : public Workspace {
public:
    bool performFileOperation(WorkspaceOperation, const std::string& source, const std::optional<std::string>&,
                              const std::vector<std::string>&, int32_t*, std::error_code*,
                              const platform::TreeRemover::FailureHandler&) override
    {
        lastSource = source;
        return true;
    }
    std::string lastSource;
};

TEST(WorkspaceDestroy, DestroysAFile)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    EXPECT_TRUE(destroy(dir.path(), {"file"}));
    EXPECT_FALSE(present(dir.at("file")));
}

TEST(WorkspaceDestroy, DestroysAFolderWithEverythingInIt)
{
    TempDir dir;
    writeFile(dir.at("Plugin.bundle/Contents/Info.plist"), "x");
    writeFile(dir.at("Plugin.bundle/Contents/MacOS/Plugin"), "y");
    EXPECT_TRUE(destroy(dir.path(), {"Plugin.bundle"}));
    EXPECT_FALSE(present(dir.at("Plugin.bundle")));
}

TEST(WorkspaceDestroy, DestroysEveryNamedItem)
{
    TempDir dir;
    writeFile(dir.at("one"), "1");
    writeFile(dir.at("two/file"), "2");
    writeFile(dir.at("three"), "3");
    EXPECT_TRUE(destroy(dir.path(), {"one", "two"}));
    EXPECT_FALSE(present(dir.at("one")));
    EXPECT_FALSE(present(dir.at("two")));
    EXPECT_EQ(readFile(dir.at("three")), "3");
}

TEST(WorkspaceDestroy, DestroysALinkToAFolderButNotTheFolder)
{
    TempDir dir;
    writeFile(dir.at("target/keep"), "keep");
    makeDirectories(dir.at("source"));
    ASSERT_EQ(::symlink(dir.at("target").c_str(), dir.at("source/link").c_str()), 0);
    EXPECT_TRUE(destroy(dir.at("source"), {"link"}));
    EXPECT_FALSE(present(dir.at("source/link")));
    EXPECT_EQ(readFile(dir.at("target/keep")), "keep");
}

TEST(WorkspaceDestroy, FolderHoldingALinkToAnOutsideFolderLeavesThatFolderAlone)
{
    TempDir dir;
    writeFile(dir.at("outside/inner/keep"), "keep");
    writeFile(dir.at("item/file"), "x");
    ASSERT_EQ(::symlink(dir.at("outside").c_str(), dir.at("item/link").c_str()), 0);
    ASSERT_EQ(::symlink(dir.at("outside/inner/keep").c_str(), dir.at("item/filelink").c_str()), 0);
    EXPECT_TRUE(destroy(dir.path(), {"item"}));
    EXPECT_FALSE(present(dir.at("item")));
    EXPECT_EQ(readFile(dir.at("outside/inner/keep")), "keep");
}

TEST(WorkspaceDestroy, DestroysATenThousandLevelTree)
{
    TempDir dir;
    int fd = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::mkdirat(fd, "item", 0755), 0);
    const char* name = "item";
    for (int level = 0; level < 10000 && fd >= 0; ++level) {
        const int next = ::openat(fd, name, O_RDONLY | O_DIRECTORY);
        ::close(fd);
        fd = next;
        name = "level";
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::mkdirat(fd, name, 0755), 0);
    }
    ::close(fd);
    EXPECT_TRUE(destroy(dir.path(), {"item"}));
    EXPECT_FALSE(present(dir.at("item")));
}

TEST(WorkspaceDestroy, MissingItemIsFalse)
{
    TempDir dir;
    EXPECT_FALSE(destroy(dir.path(), {"missing"}));
}

TEST(WorkspaceDestroy, MissingItemIsFalseAndTheOthersAreStillDestroyed)
{
    TempDir dir;
    writeFile(dir.at("present"), "x");
    EXPECT_FALSE(destroy(dir.path(), {"missing", "present"}));
    EXPECT_FALSE(present(dir.at("present")));
}

TEST(WorkspaceDestroy, MissingSourceFolderIsFalse)
{
    TempDir dir;
    EXPECT_FALSE(destroy(dir.at("missing"), {"item"}));
}

TEST(WorkspaceDestroy, EmptyListDestroysNothingAndIsFalse)
{
    TempDir dir;
    writeFile(dir.at("source/file"), "x");
    EXPECT_FALSE(destroy(dir.at("source"), {}));
    EXPECT_EQ(readFile(dir.at("source/file")), "x");
}

TEST(WorkspaceDestroy, DotNameIsRefusedAndTheSourceFolderSurvives)
{
    TempDir dir;
    writeFile(dir.at("source/file"), "x");
    writeFile(dir.at("source/sub/file"), "y");
    EXPECT_FALSE(destroy(dir.at("source"), {"."}));
    EXPECT_EQ(readFile(dir.at("source/file")), "x");
    EXPECT_EQ(readFile(dir.at("source/sub/file")), "y");
}

TEST(WorkspaceDestroy, DotDotNameIsRefusedAndTheFolderAboveSurvives)
{
    TempDir dir;
    writeFile(dir.at("above/file"), "x");
    writeFile(dir.at("above/source/file"), "y");
    EXPECT_FALSE(destroy(dir.at("above/source"), {".."}));
    EXPECT_FALSE(destroy(dir.at("above/source"), {"../file"}));
    EXPECT_EQ(readFile(dir.at("above/file")), "x");
    EXPECT_EQ(readFile(dir.at("above/source/file")), "y");
}

TEST(WorkspaceDestroy, EmptyNameIsRefused)
{
    TempDir dir;
    writeFile(dir.at("source/file"), "x");
    EXPECT_FALSE(destroy(dir.at("source"), {""}));
    EXPECT_FALSE(destroy(dir.at("source"), {"/"}));
    EXPECT_EQ(readFile(dir.at("source/file")), "x");
}

TEST(WorkspaceDestroy, NameWithASlashIsAPathUnderTheSource)
{
    TempDir dir;
    writeFile(dir.at("source/sub/item/file"), "x");
    EXPECT_TRUE(destroy(dir.at("source"), {"sub/item"}));
    EXPECT_FALSE(present(dir.at("source/sub/item")));
    EXPECT_TRUE(present(dir.at("source/sub")));
}

TEST(WorkspaceDestroy, RootItselfIsRefusedAndRootEntriesCanBeDestroyed)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to confine the test under chroot";
    }
    TempDir dir;
    writeFile(dir.at("keep"), "keep");
    writeFile(dir.at("sub/keep"), "keep");
    writeFile(dir.at("x/file"), "x");
    const int status = runWithRootAt(dir.path(), [] {
        int refusals = 0;
        refusals += destroy("/", {}) ? 0 : 1;
        refusals += destroy("", {"/"}) ? 0 : 1;
        refusals += destroy("/", {"."}) ? 0 : 1;
        refusals += destroy("/", {".."}) ? 0 : 1;
        refusals += destroy("/", {"/"}) ? 0 : 1;
        refusals += destroy("/sub", {".."}) ? 0 : 1;
        const bool destroyedEntry = destroy("/", {"x"});
        return refusals == 6 && destroyedEntry ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(dir.at("keep")), "keep");
    EXPECT_EQ(readFile(dir.at("sub/keep")), "keep");
    EXPECT_FALSE(present(dir.at("x")));
}

TEST(WorkspaceDestroy, MountPointInsideTheItemStaysAndMakesItFalse)
{
    TempDir dir;
    writeFile(dir.at("item/file"), "x");
    makeDirectories(dir.at("item/sub/mnt"));
    const std::string mountPoint = dir.at("item/sub/mnt");
    testsupport::expectInPrivateMountNamespace([&dir, &mountPoint] {
        ASSERT_EQ(::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=1m"), 0);
        writeFile(dir.at("item/sub/mnt/inside"), "inside");

        EXPECT_FALSE(destroy(dir.path(), {"item"}));
        EXPECT_EQ(readFile(dir.at("item/sub/mnt/inside")), "inside");
        EXPECT_FALSE(present(dir.at("item/file")));
    });
}

TEST(WorkspaceDestroy, FileThatIsItselfAMountPointStaysAndMakesItFalse)
{
    TempDir dir;
    writeFile(dir.at("elsewhere"), "bound");
    writeFile(dir.at("item"), "under the mount");
    const std::string mountPoint = dir.at("item");
    testsupport::expectInPrivateMountNamespace([&dir, &mountPoint] {
        ASSERT_EQ(::mount(dir.at("elsewhere").c_str(), mountPoint.c_str(), nullptr, MS_BIND, nullptr), 0);

        EXPECT_FALSE(destroy(dir.path(), {"item"}));
        EXPECT_EQ(readFile(dir.at("item")), "bound");
    });
}

TEST(WorkspaceDestroy, TagReceivesZero)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    int32_t tag = 42;
    EXPECT_TRUE(Workspace::sharedWorkspace().performFileOperation(WorkspaceOperation::Destroy, dir.path(),
                                                                  std::string("/unused"), {"file"}, &tag));
    EXPECT_EQ(tag, 0);
}

TEST(WorkspaceClearIcon, RemovesTheFolderIconFile)
{
    TempDir dir;
    writeFile(dir.at("folder/Icon\r"), "icon");
    writeFile(dir.at("folder/other"), "other");
    EXPECT_TRUE(Workspace::sharedWorkspace().setIcon(nullptr, dir.at("folder"), 0));
    EXPECT_FALSE(present(dir.at("folder/Icon\r")));
    EXPECT_EQ(readFile(dir.at("folder/other")), "other");
}

TEST(WorkspaceClearIcon, FolderWithoutIconIsTrue)
{
    TempDir dir;
    writeFile(dir.at("folder/Icon"), "not the icon");
    EXPECT_TRUE(Workspace::sharedWorkspace().setIcon(nullptr, dir.at("folder"), 0));
    EXPECT_TRUE(present(dir.at("folder/Icon")));
}

TEST(WorkspaceClearIcon, PlainFileIsTrue)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    EXPECT_TRUE(Workspace::sharedWorkspace().setIcon(nullptr, dir.at("file"), 0));
    EXPECT_EQ(readFile(dir.at("file")), "x");
}

TEST(WorkspaceClearIcon, MissingPathIsFalse)
{
    TempDir dir;
    EXPECT_FALSE(Workspace::sharedWorkspace().setIcon(nullptr, dir.at("missing"), 0));
    EXPECT_FALSE(Workspace::sharedWorkspace().setIcon(nullptr, "", 0));
}

TEST(WorkspaceClearIcon, NeitherFileNorFolderIsFalse)
{
    TempDir dir;
    ASSERT_EQ(::mkfifo(dir.at("fifo").c_str(), 0600), 0);
    EXPECT_FALSE(Workspace::sharedWorkspace().setIcon(nullptr, dir.at("fifo"), 0));
}

TEST(WorkspaceClearIcon, IconThatIsAFolderWithContentsStaysAndIsFalse)
{
    TempDir dir;
    writeFile(dir.at("folder/Icon\r/inside"), "x");
    EXPECT_FALSE(Workspace::sharedWorkspace().setIcon(nullptr, dir.at("folder"), 0));
    EXPECT_EQ(readFile(dir.at("folder/Icon\r/inside")), "x");
}

TEST(WorkspaceClearIcon, ALinkInTheFolderPlaceIsNotFollowedAndItsTargetKeepsItsIcon)
{
    TempDir dir;
    writeFile(dir.at("folder/Icon\r"), "icon");
    ASSERT_EQ(::symlink(dir.at("folder").c_str(), dir.at("link").c_str()), 0);
    ASSERT_EQ(::symlink(dir.path().c_str(), dir.at("folder/up").c_str()), 0);
    // A link has no custom icon of its own: nothing to clear, nothing removed
    // through it.
    EXPECT_TRUE(Workspace::sharedWorkspace().setIcon(nullptr, dir.at("link"), 0));
    EXPECT_TRUE(Workspace::sharedWorkspace().setIcon(nullptr, dir.at("link/"), 0));
    EXPECT_EQ(readFile(dir.at("folder/Icon\r")), "icon");
    EXPECT_TRUE(present(dir.at("link")));
    // A link on the way to the folder is followed as usual: the folder
    // named is the one whose icon goes.
    EXPECT_TRUE(Workspace::sharedWorkspace().setIcon(nullptr, dir.at("folder/up/folder"), 0));
    EXPECT_FALSE(present(dir.at("folder/Icon\r")));
}

TEST(WorkspaceClearIcon, IconThatIsALinkIsUnlinkedNotFollowed)
{
    TempDir dir;
    writeFile(dir.at("target"), "target");
    makeDirectories(dir.at("folder"));
    ASSERT_EQ(::symlink(dir.at("target").c_str(), dir.at("folder/Icon\r").c_str()), 0);
    EXPECT_TRUE(Workspace::sharedWorkspace().setIcon(nullptr, dir.at("folder"), 0));
    EXPECT_FALSE(present(dir.at("folder/Icon\r")));
    EXPECT_EQ(readFile(dir.at("target")), "target");
}

TEST(SharedWorkspace, IsOneInstance)
{
    EXPECT_EQ(&Workspace::sharedWorkspace(), &Workspace::sharedWorkspace());
}

TEST(SharedWorkspace, TestWorkspaceReplacesItUntilRestored)
{
    Workspace& real = Workspace::sharedWorkspace();
    RecordingWorkspace recording;
    Workspace::setSharedWorkspaceForTesting(&recording);
    EXPECT_EQ(&Workspace::sharedWorkspace(), &recording);
    EXPECT_TRUE(destroy("/nowhere", {"item"}));
    EXPECT_EQ(recording.lastSource, "/nowhere");
    Workspace::setSharedWorkspaceForTesting(nullptr);
    EXPECT_EQ(&Workspace::sharedWorkspace(), &real);
}

TEST(WorkspaceDestroyReasons, FirstFailureAndEveryItemThatStayedAreTold)
{
    TempDir dir;
    writeFile(dir.at("source/present"), "x");
    std::error_code error;
    std::vector<std::string> failedPaths;
    const bool destroyed = Workspace::sharedWorkspace().performFileOperation(
        WorkspaceOperation::Destroy, dir.at("source"), std::nullopt, {"missing", "present", "..", "sub/.."}, nullptr,
        &error, [&failedPaths](const std::string& path, std::error_code) { failedPaths.push_back(path); });
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_EQ(failedPaths,
              (std::vector<std::string>{dir.at("source/missing"), dir.at("source/.."), dir.at("source/sub/..")}));
    EXPECT_FALSE(present(dir.at("source/present")));
}

TEST(WorkspaceDestroyReasons, EmptyListIsAnInvalidArgumentAndSuccessClearsTheReason)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    std::error_code error;
    EXPECT_FALSE(Workspace::sharedWorkspace().performFileOperation(WorkspaceOperation::Destroy, dir.path(),
                                                                   std::nullopt, {}, nullptr, &error));
    EXPECT_EQ(error, std::errc::invalid_argument);
    int32_t tag = 5;
    EXPECT_TRUE(Workspace::sharedWorkspace().performFileOperation(WorkspaceOperation::Destroy, dir.path(), std::nullopt,
                                                                  {"file"}, &tag, &error));
    EXPECT_FALSE(error);
    EXPECT_EQ(tag, 0);
}

TEST(WorkspaceDestroy, BindMountOfTheSameDiskInsideTheItemKeepsItsSource)
{
    TempDir dir;
    writeFile(dir.at("source/one"), "1");
    writeFile(dir.at("source/sub/two"), "2");
    writeFile(dir.at("item/file"), "x");
    makeDirectories(dir.at("item/sub/mnt"));
    const std::string mountPoint = dir.at("item/sub/mnt");
    testsupport::expectInPrivateMountNamespace([&dir, &mountPoint] {
        ASSERT_EQ(::mount(dir.at("source").c_str(), mountPoint.c_str(), nullptr, MS_BIND, nullptr), 0);
        struct stat outside {};
        struct stat inside {};
        ASSERT_EQ(::stat(dir.at("item/sub").c_str(), &outside), 0);
        ASSERT_EQ(::stat(mountPoint.c_str(), &inside), 0);
        ASSERT_EQ(outside.st_dev, inside.st_dev);  // the device number cannot tell them apart

        std::vector<std::pair<std::string, std::error_code>> failures;
        std::error_code error;
        EXPECT_FALSE(Workspace::sharedWorkspace().performFileOperation(
            WorkspaceOperation::Destroy, dir.path(), std::nullopt, {"item", "item/sub/mnt"}, nullptr, &error,
            [&failures](const std::string& path, std::error_code reason) { failures.emplace_back(path, reason); }));
        EXPECT_EQ(error, std::errc::device_or_resource_busy);
        ASSERT_EQ(failures.size(), 2U);
        EXPECT_EQ(failures[0].first, mountPoint);
        EXPECT_EQ(failures[0].second.message(), "a mount point");
        EXPECT_EQ(failures[1].first, mountPoint);
        EXPECT_EQ(readFile(dir.at("source/one")), "1");
        EXPECT_EQ(readFile(dir.at("source/sub/two")), "2");
        EXPECT_FALSE(present(dir.at("item/file")));
    });
}

}  // namespace
