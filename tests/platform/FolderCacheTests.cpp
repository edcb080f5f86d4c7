#include "platform/FolderCache.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "platform/FileManager.h"
#include "platform/TreeRemover.h"
#include "platform/Workspace.h"
#include "tests/support/RunCopyOfSelf.h"
#include "tests/support/TempDir.h"

namespace {

using platform::FileManager;
using platform::FolderCache;
using testsupport::makeDirectories;
using testsupport::present;
using testsupport::TempDir;
using testsupport::writeFile;

bool sameFolder(int fd, const std::string& path)
{
    struct stat a {};
    struct stat b {};
    return ::fstat(fd, &a) == 0 && ::stat(path.c_str(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

TEST(FolderCache, AnAbsoluteFolderIsResolvedOnceAndKeptForTheSameText)
{
    TempDir dir;
    makeDirectories(dir.at("a"));
    FolderCache& cache = FolderCache::ofThisThread();
    bool opened = false;
    const FolderCache::Folder first = cache.folder(dir.at("a"), opened);
    ASSERT_TRUE(first);
    EXPECT_TRUE(opened);
    EXPECT_TRUE(sameFolder(first->fd.get(), dir.at("a")));
    const FolderCache::Folder again = cache.folder(dir.at("a"), opened);
    EXPECT_FALSE(opened);
    EXPECT_EQ(again, first);
    // Another spelling is another text.
    const FolderCache::Folder other = cache.folder(dir.at("a/"), opened);
    EXPECT_TRUE(opened);
    EXPECT_NE(other, first);
}

TEST(FolderCache, InvalidationMakesTheNextCallResolveAgain)
{
    TempDir dir;
    makeDirectories(dir.at("a"));
    FolderCache& cache = FolderCache::ofThisThread();
    bool opened = false;
    ASSERT_TRUE(cache.folder(dir.at("a"), opened));
    FolderCache::invalidateAll();
    ASSERT_TRUE(cache.folder(dir.at("a"), opened));
    EXPECT_TRUE(opened);
}

TEST(FolderCache, ARelativeTextIsNeverKept)
{
    TempDir dir;
    makeDirectories(dir.at("a"));
    ASSERT_EQ(::chdir(dir.path().c_str()), 0);
    FolderCache& cache = FolderCache::ofThisThread();
    bool opened = false;
    ASSERT_TRUE(cache.folder("a", opened));
    ASSERT_TRUE(cache.folder("a", opened));
    EXPECT_TRUE(opened);
    ASSERT_EQ(::chdir("/"), 0);
}

TEST(FolderCache, AFolderHandedOutStaysOpenWhenTheCacheMovesOn)
{
    TempDir dir;
    makeDirectories(dir.at("a"));
    makeDirectories(dir.at("b"));
    FolderCache& cache = FolderCache::ofThisThread();
    bool opened = false;
    const FolderCache::Folder held = cache.folder(dir.at("a"), opened);
    ASSERT_TRUE(held);
    ASSERT_TRUE(cache.folder(dir.at("b"), opened));
    FolderCache::invalidateAll();
    EXPECT_TRUE(sameFolder(held->fd.get(), dir.at("a")));
}

TEST(FolderCache, AFolderLongerThanPathMaxIsOpenedPieceByPiece)
{
    TempDir dir;
    // 25 levels of 200-byte names: a path of more than 5,000 bytes.
    const std::string name(200, 'n');
    int fd = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    std::string path = dir.path();
    for (int level = 0; level < 25; ++level) {
        ASSERT_EQ(::mkdirat(fd, name.c_str(), 0755), 0);
        const int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        ASSERT_GE(next, 0);
        fd = next;
        // A repeated slash and a ".." step on the way resolve as the kernel does.
        if (level == 12) {
            path += "//";
            path += name;
            path += "/..";
        }
        path += "/";
        path += name;
    }
    ASSERT_GT(path.size(), 5000U);
    const int leaf = ::openat(fd, "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(leaf, 0);
    ::close(leaf);
    struct stat expected {};
    ASSERT_EQ(::fstat(fd, &expected), 0);
    ::close(fd);

    std::error_code error;
    const platform::posix::UniqueFd opened = platform::posix::openFolderPath(path, &error);
    ASSERT_TRUE(opened.valid()) << error.message();
    struct stat status {};
    ASSERT_EQ(::fstat(opened.get(), &status), 0);
    EXPECT_EQ(status.st_ino, expected.st_ino);
    EXPECT_EQ(status.st_dev, expected.st_dev);

    // The same path through the services that use it.
    EXPECT_TRUE(FileManager::defaultManager().fileExistsAtPath(path + "/file"));
    std::error_code reason;
    EXPECT_TRUE(platform::TreeRemover().removePath(path + "/file", &reason)) << reason.message();
    EXPECT_FALSE(FileManager::defaultManager().fileExistsAtPath(path + "/file"));
}

TEST(FolderCache, AFolderTextThatNowLeadsElsewhereIsResolvedAgain)
{
    TempDir dir;
    writeFile(dir.at("one/item"), "1");
    writeFile(dir.at("two/item"), "2");
    ASSERT_EQ(::symlink("one", dir.at("via").c_str()), 0);
    const FileManager& files = FileManager::defaultManager();
    EXPECT_TRUE(files.fileExistsAtPath(dir.at("via/item")));
    // The link on the way goes (a removal of a link), and another one in
    // its place leads to the other folder.
    ASSERT_TRUE(platform::TreeRemover().removePath(dir.at("via")));
    ASSERT_EQ(::symlink("two", dir.at("via").c_str()), 0);
    EXPECT_TRUE(platform::TreeRemover().removePath(dir.at("via/item")));
    EXPECT_TRUE(present(dir.at("one/item")));
    EXPECT_FALSE(present(dir.at("two/item")));
    // A folder moved away and made anew at the same text.
    writeFile(dir.at("three/item"), "3");
    EXPECT_TRUE(files.fileExistsAtPath(dir.at("three/item")));
    ASSERT_TRUE(files.moveItemAtPath(dir.at("three"), dir.at("moved")));
    writeFile(dir.at("three/other"), "3");
    EXPECT_FALSE(files.fileExistsAtPath(dir.at("three/item")));
    EXPECT_TRUE(files.fileExistsAtPath(dir.at("three/other")));
}

TEST(FolderCache, AFolderRemovedBehindTheCacheIsNotTakenForAnEmptyOne)
{
    TempDir dir;
    writeFile(dir.at("a/item"), "1");
    const FileManager& files = FileManager::defaultManager();
    EXPECT_TRUE(files.fileExistsAtPath(dir.at("a/item")));
    // Removed and made again by someone else: nothing in this process knew.
    ASSERT_EQ(::unlink(dir.at("a/item").c_str()), 0);
    ASSERT_EQ(::rmdir(dir.at("a").c_str()), 0);
    writeFile(dir.at("a/item"), "2");
    EXPECT_TRUE(files.fileExistsAtPath(dir.at("a/item")));
}

// The child half of the count below: 1,000 existence checks and destroys of
// existing files of one folder, between two marker calls.
constexpr const char* kCountChild = "REMOVER_COUNT_CHILD_FOLDER";
constexpr int kCountedFiles = 1000;

void existenceAndDestroyOfEveryFile(const std::string& folder)
{
    const FileManager& files = FileManager::defaultManager();
    platform::Workspace& workspace = platform::Workspace::sharedWorkspace();
    // The set of the process is built first, outside the count.
    static_cast<void>(files.fileExistsAtPath(folder));
    platform::TreeRemover().removePath(folder + "/warm-up");
    ::syscall(SYS_getppid);
    for (int i = 0; i < kCountedFiles; ++i) {
        // Appended piece by piece: GCC 12 at -O3 warns falsely of an overlap
        // for a literal + a temporary string.
        std::string name("f");
        name += std::to_string(i);
        std::string path = folder;
        path += "/";
        path += name;
        if (files.fileExistsAtPath(path)) {
            workspace.performFileOperation(platform::WorkspaceOperation::Destroy, folder, std::nullopt, {name},
                                           nullptr);
        }
    }
    ::syscall(SYS_getppid);
}

TEST(FolderCacheCost, AnExistingListedFileCostsOneLookAndOneUnlink)
{
    const std::string childFolder = testsupport::environmentValue(kCountChild);
    if (!childFolder.empty()) {
        existenceAndDestroyOfEveryFile(childFolder);
        for (int i = 0; i < kCountedFiles; ++i) {
            EXPECT_FALSE(present(childFolder + "/f" + std::to_string(i)));
        }
        return;
    }
    TempDir dir;
    for (int i = 0; i < kCountedFiles; ++i) {
        std::string relative("files/f");
        relative += std::to_string(i);
        writeFile(dir.at(relative), "x");
    }
    writeFile(dir.at("files/warm-up"), "x");
    const std::string trace = dir.at("trace");
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        const std::string variable = std::string(kCountChild) + "=" + dir.at("files");
        ::putenv(const_cast<char*>(variable.c_str()));
        // The leak check of a sanitizer build cannot run under a tracer.
        const char* sanitizer = std::getenv("ASAN_OPTIONS");
        const std::string options =
            std::string("ASAN_OPTIONS=") + (sanitizer != nullptr ? sanitizer : "") + ":detect_leaks=0";
        ::putenv(const_cast<char*>(options.c_str()));
        const std::string self = testsupport::runningExecutable();
        const std::string filter = "--gtest_filter=" + testsupport::runningTestName();
        ::execlp("strace", "strace", "-f", "-o", trace.c_str(), self.c_str(), filter.c_str(),
                 static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0) << "the counted run failed (127: strace is missing; scripts/install-deps.sh "
                                         "installs it)";
    // Every call between the two markers.
    std::ifstream lines(trace);
    std::string line;
    int markers = 0;
    int calls = 0;
    int unlinks = 0;
    while (std::getline(lines, line)) {
        if (line.find("getppid()") != std::string::npos) {
            ++markers;
            continue;
        }
        // The memory allocator's calls (more of them in a sanitizer build)
        // are not the file work counted here.
        const bool memory = line.find("mmap(") != std::string::npos || line.find("munmap(") != std::string::npos ||
                            line.find("madvise(") != std::string::npos || line.find("brk(") != std::string::npos ||
                            line.find("mprotect(") != std::string::npos;
        if (markers == 1 && !memory && line.find("resumed>") == std::string::npos) {
            ++calls;
            unlinks += line.find("unlinkat(") != std::string::npos ? 1 : 0;
        }
    }
    ASSERT_EQ(markers, 2);
    EXPECT_EQ(unlinks, kCountedFiles);
    // Two per file, and a few to open the folder once.
    EXPECT_LE(calls, 2 * kCountedFiles + 5) << calls << " calls for " << kCountedFiles << " files";
    EXPECT_TRUE(testsupport::present(dir.at("files")));
}

}  // namespace
