#include "platform/PosixIO.h"

#include "platform/FileManager.h"
#include "platform/TreeRemover.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace posix = platform::posix;
using testsupport::makeDirectories;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

using testsupport::openDescriptorCount;

bool isOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

bool isCloseOnExec(int fd)
{
    const int flags = ::fcntl(fd, F_GETFD);
    return flags != -1 && (flags & FD_CLOEXEC) != 0;
}

TEST(PosixUniqueFd, ClosesWhatItOwnsWhenItGoes)
{
    int fd = -1;
    {
        const posix::UniqueFd owner(::open("/dev/null", O_RDONLY));
        fd = owner.get();
        ASSERT_TRUE(owner.valid());
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST(PosixUniqueFd, ReleaseGivesUpOwnershipAndResetClosesTheOldOne)
{
    posix::UniqueFd owner(::open("/dev/null", O_RDONLY));
    const int first = owner.release();
    EXPECT_FALSE(owner.valid());
    EXPECT_TRUE(isOpen(first));
    owner.reset(first);
    const int second = ::open("/dev/null", O_RDONLY);
    owner.reset(second);
    EXPECT_FALSE(isOpen(first));
    EXPECT_TRUE(isOpen(second));
    EXPECT_FALSE(owner.close());
    EXPECT_FALSE(isOpen(second));
    EXPECT_FALSE(owner.valid());
}

TEST(PosixUniqueFd, MovingHandsTheDescriptorOver)
{
    posix::UniqueFd source(::open("/dev/null", O_RDONLY));
    const int fd = source.get();
    posix::UniqueFd target(std::move(source));
    EXPECT_EQ(target.get(), fd);
    posix::UniqueFd other;
    other = std::move(target);
    EXPECT_EQ(other.get(), fd);
    EXPECT_TRUE(isOpen(fd));
    other = posix::UniqueFd();
    EXPECT_FALSE(isOpen(fd));
}

TEST(PosixOpen, EveryDescriptorIsCloseOnExec)
{
    TempDir dir;
    writeFile(dir.at("file"), "x");
    const posix::UniqueFd file = posix::openFile(dir.at("file"), O_RDONLY);
    ASSERT_TRUE(file.valid());
    EXPECT_TRUE(isCloseOnExec(file.get()));
    const posix::UniqueFd folder = posix::openFile(dir.path(), O_RDONLY | O_DIRECTORY);
    ASSERT_TRUE(folder.valid());
    EXPECT_TRUE(isCloseOnExec(folder.get()));
    const posix::UniqueFd relative = posix::openAt(folder.get(), "file", O_RDONLY);
    ASSERT_TRUE(relative.valid());
    EXPECT_TRUE(isCloseOnExec(relative.get()));
    const posix::UniqueFd created = posix::openAt(folder.get(), "new", O_WRONLY | O_CREAT | O_EXCL, 0600);
    ASSERT_TRUE(created.valid());
    EXPECT_TRUE(isCloseOnExec(created.get()));
}

TEST(PosixOpen, DescriptorsOfTheFileServicesAreCloseOnExec)
{
    TempDir dir;
    makeDirectories(dir.at("folder"));
    const posix::UniqueFd folder = posix::openFile(dir.at("folder"), O_RDONLY | O_DIRECTORY);
    posix::UniqueDir stream = posix::UniqueDir::reading(folder.get());
    ASSERT_TRUE(stream.valid());
    EXPECT_TRUE(isCloseOnExec(::dirfd(stream.get())));
}

TEST(PosixOpen, FailureGivesTheReason)
{
    TempDir dir;
    std::error_code error = std::make_error_code(std::errc::interrupted);
    const posix::UniqueFd missing = posix::openFile(dir.at("missing"), O_RDONLY, 0, &error);
    EXPECT_FALSE(missing.valid());
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    const posix::UniqueFd notFolder = posix::openAt(AT_FDCWD, "/dev/null", O_RDONLY | O_DIRECTORY, 0, &error);
    EXPECT_FALSE(notFolder.valid());
    EXPECT_EQ(error, std::errc::not_a_directory);
    const posix::UniqueFd found = posix::openFile("/dev/null", O_RDONLY, 0, &error);
    EXPECT_TRUE(found.valid());
    EXPECT_FALSE(error);
}

TEST(PosixRetryOnEintr, RepeatsInterruptedCallsOnly)
{
    int calls = 0;
    const int result = posix::retryOnEintr([&calls] {
        ++calls;
        if (calls < 4) {
            errno = EINTR;
            return -1;
        }
        return 7;
    });
    EXPECT_EQ(result, 7);
    EXPECT_EQ(calls, 4);

    calls = 0;
    const long failed = posix::retryOnEintr([&calls] {
        ++calls;
        errno = EACCES;
        return -1L;
    });
    EXPECT_EQ(failed, -1);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(errno, EACCES);
}

TEST(PosixReadWrite, WholeContentsGoThroughAPipeInPieces)
{
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    posix::UniqueFd readEnd(ends[0]);
    posix::UniqueFd writeEnd(ends[1]);
    std::string sent(1 << 20, '\0');
    for (std::size_t i = 0; i < sent.size(); ++i) {
        sent[i] = static_cast<char>(i * 31 % 251);
    }
    std::error_code writeError = std::make_error_code(std::errc::interrupted);
    std::thread writer([&] {
        writeError = posix::writeAll(writeEnd.get(), sent);
        writeEnd.reset();
    });
    std::string received = "head:";
    const std::error_code readError = posix::readAll(readEnd.get(), received);
    writer.join();
    EXPECT_FALSE(writeError);
    EXPECT_FALSE(readError);
    EXPECT_EQ(received, "head:" + sent);
}

TEST(PosixReadWrite, FailuresGiveTheReason)
{
    std::string out;
    EXPECT_EQ(posix::readAll(-1, out), std::errc::bad_file_descriptor);
    EXPECT_EQ(posix::writeAll(-1, "x"), std::errc::bad_file_descriptor);
    TempDir dir;
    const posix::UniqueFd folder = posix::openFile(dir.path(), O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(posix::readAll(folder.get(), out), std::errc::is_a_directory);
    EXPECT_TRUE(out.empty());
}

TEST(PosixUniqueDir, ListsTheFolderAndLeavesTheCallersDescriptorAlone)
{
    TempDir dir;
    writeFile(dir.at("folder/a"), "");
    writeFile(dir.at("folder/b"), "");
    const posix::UniqueFd folder = posix::openFile(dir.at("folder"), O_RDONLY | O_DIRECTORY);
    const int before = openDescriptorCount();
    for (int round = 0; round < 2; ++round) {
        posix::UniqueDir stream = posix::UniqueDir::reading(folder.get());
        ASSERT_TRUE(stream.valid());
        std::set<std::string> names;
        std::error_code error;
        while (const dirent* entry = stream.next(error)) {
            names.insert(entry->d_name);
        }
        EXPECT_FALSE(error);
        EXPECT_EQ(names, (std::set<std::string>{".", "..", "a", "b"}));
    }
    EXPECT_EQ(openDescriptorCount(), before);
    EXPECT_TRUE(isOpen(folder.get()));
}

TEST(PosixUniqueDir, FromADescriptorThatIsNoFolderClosesItAndSaysWhy)
{
    const int fd = ::open("/dev/null", O_RDONLY);
    std::error_code error;
    const posix::UniqueDir stream = posix::UniqueDir::fromDescriptor(posix::UniqueFd(fd), &error);
    EXPECT_FALSE(stream.valid());
    EXPECT_EQ(error, std::errc::not_a_directory);
    EXPECT_FALSE(isOpen(fd));
}

TEST(PosixUniqueMapping, MapsTheFileAndUnmapsWhenItGoes)
{
    TempDir dir;
    writeFile(dir.at("file"), "mapped bytes");
    const posix::UniqueFd fd = posix::openFile(dir.at("file"), O_RDONLY);
    void* address = nullptr;
    {
        std::error_code error = std::make_error_code(std::errc::interrupted);
        const posix::UniqueMapping mapping = posix::UniqueMapping::mapReadOnly(fd.get(), 12, &error);
        ASSERT_TRUE(mapping.valid());
        EXPECT_FALSE(error);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(mapping.data()), mapping.size()), "mapped bytes");
        address = const_cast<unsigned char*>(mapping.data());
        EXPECT_EQ(::msync(address, mapping.size(), MS_ASYNC), 0);
    }
    // An address that is no longer mapped answers ENOMEM.
    errno = 0;
    EXPECT_EQ(::msync(address, 12, MS_ASYNC), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(PosixUniqueMapping, ZeroLengthFailsWithTheReason)
{
    TempDir dir;
    writeFile(dir.at("empty"), "");
    const posix::UniqueFd fd = posix::openFile(dir.at("empty"), O_RDONLY);
    std::error_code error;
    const posix::UniqueMapping mapping = posix::UniqueMapping::mapReadOnly(fd.get(), 0, &error);
    EXPECT_FALSE(mapping.valid());
    EXPECT_EQ(error, std::errc::invalid_argument);
}

TEST(PosixLeaks, NothingStaysOpenWhenAWalkCallbackThrows)
{
    TempDir dir;
    for (int i = 0; i < 40; ++i) {
        writeFile(dir.at("item/" + std::string(static_cast<std::size_t>(i), 'd') + "d/sub/file"), "x");
    }
    const int before = openDescriptorCount();
    platform::TreeRemover remover(2);
    int opened = 0;
    remover.setBeforeOpeningFolder([&opened](int, const std::string&) {
        if (++opened == 30) {
            throw std::runtime_error("stop");
        }
    });
    EXPECT_THROW(remover.removePath(dir.at("item")), std::runtime_error);
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST(PosixLeaks, NothingStaysOpenWhenAFailureHandlerThrows)
{
    TempDir dir;
    writeFile(dir.at("item/a/b/c/file"), "x");
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    // Another user may not unlink anything in root's folders: the first
    // failure comes four folders down.
    const int status = testsupport::runUnprivileged([&dir] {
        const int before = openDescriptorCount();
        platform::TreeRemover remover;
        remover.setFailureHandler([](const std::string&, std::error_code) { throw std::runtime_error("stop"); });
        try {
            remover.removePath(dir.at("item"));
            return 1;
        } catch (const std::runtime_error&) {
        }
        return openDescriptorCount() == before ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readFile(dir.at("item/a/b/c/file")), "x");
}

TEST(PosixLeaks, NothingStaysOpenAfterTheFileServices)
{
    TempDir dir;
    writeFile(dir.at("tree/a/b/c/file"), "x");
    writeFile(dir.at("tree/a/other"), "y");
    const platform::FileManager& fileManager = platform::FileManager::defaultManager();
    const int before = openDescriptorCount();
    EXPECT_TRUE(fileManager.enumeratorAtPath(dir.at("tree")));
    EXPECT_TRUE(fileManager.contentsOfDirectoryAtPath(dir.at("tree/a")));
    EXPECT_TRUE(fileManager.contentsAtPath(dir.at("tree/a/other")));
    EXPECT_TRUE(fileManager.createFileAtPath(dir.at("tree/new"), "z"));
    EXPECT_TRUE(fileManager.writeFileAtomically(dir.at("tree/new"), "w"));
    EXPECT_TRUE(fileManager.attributesOfItemAtPath(dir.at("tree/new")));
    EXPECT_TRUE(fileManager.removeItemAtPath(dir.at("tree")));
    EXPECT_EQ(openDescriptorCount(), before);
}

// A handle kind of the test's own: each release is counted.
struct CountedTraits {
    using Handle = int;
    static int released;
    static constexpr int invalid() noexcept { return 0; }
    static std::error_code close(int handle) noexcept
    {
        released += handle;
        return handle == 13 ? std::make_error_code(std::errc::io_error) : std::error_code();
    }
};
int CountedTraits::released = 0;

TEST(UniqueHandle, ReleasesWhatItHoldsOnceWhateverWayItGoes)
{
    using Counted = platform::posix::UniqueHandle<CountedTraits>;
    CountedTraits::released = 0;
    {
        Counted one(1);
        Counted moved(std::move(one));
        EXPECT_FALSE(one.valid());  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move): holds nothing now
        EXPECT_EQ(moved.get(), 1);
    }
    EXPECT_EQ(CountedTraits::released, 1);
    Counted two(2);
    two.reset(4);
    EXPECT_EQ(CountedTraits::released, 3);
    Counted eight(8);
    two = std::move(eight);
    EXPECT_EQ(CountedTraits::released, 7);
    EXPECT_EQ(two.release(), 8);
    EXPECT_EQ(CountedTraits::released, 7);
    Counted failing(13);
    EXPECT_EQ(failing.close(), std::errc::io_error);
    EXPECT_FALSE(failing.valid());
    EXPECT_FALSE(failing.close());
    EXPECT_EQ(CountedTraits::released, 20);
}

TEST(UniqueHandle, DescriptorsStreamsAndMappingsAreOwnersOfOneKind)
{
    TempDir dir;
    writeFile(dir.at("file"), "abc");
    const int before = openDescriptorCount();
    {
        platform::posix::UniqueFd fd = platform::posix::openFile(dir.at("file"), O_RDONLY);
        ASSERT_TRUE(fd.valid());
        const platform::posix::UniqueMapping mapping = platform::posix::UniqueMapping::mapReadOnly(fd.get(), 3);
        ASSERT_TRUE(mapping.valid());
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(mapping.data()), mapping.size()), "abc");
        platform::posix::UniqueDir stream = platform::posix::UniqueDir::fromDescriptor(
            platform::posix::openFile(dir.path(), platform::posix::kFolderFlags));
        EXPECT_TRUE(stream.valid());
        EXPECT_FALSE(stream.close());
        EXPECT_FALSE(stream.valid());
    }
    EXPECT_EQ(openDescriptorCount(), before);
}

}  // namespace
