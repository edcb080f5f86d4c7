#include "platform/RegularFile.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "tests/support/ConsoleCapture.h"
#include "tests/support/TempDir.h"

namespace {

using platform::ReadRefusal;
using platform::RegularFile;
using testsupport::TempDir;

class RegularFileTest : public testing::Test {
protected:
    TempDir dir;
};

TEST_F(RegularFileTest, ReadsTheWholeFile)
{
    const std::string contents(100000, 'x');
    testsupport::writeFile(dir.at("file"), contents);
    std::error_code error = std::make_error_code(std::errc::io_error);
    EXPECT_EQ(RegularFile::read(dir.at("file"), RegularFile::kSizeLimit, &error), contents);
    EXPECT_FALSE(error);
}

TEST_F(RegularFileTest, ReadsAnEmptyFile)
{
    testsupport::writeFile(dir.at("file"), "");
    EXPECT_EQ(RegularFile::read(dir.at("file")), "");
}

TEST_F(RegularFileTest, FollowsAFinalLink)
{
    testsupport::writeFile(dir.at("file"), "abc");
    std::filesystem::create_symlink(dir.at("file"), dir.at("link"));
    EXPECT_EQ(RegularFile::read(dir.at("link")), "abc");
}

TEST_F(RegularFileTest, FileOfExactlyTheLimitIsRead)
{
    testsupport::writeFile(dir.at("file"), "12345");
    EXPECT_EQ(RegularFile::read(dir.at("file"), 5), "12345");
}

TEST_F(RegularFileTest, FileOneByteOverTheLimitIsRefusedAndTold)
{
    testsupport::writeFile(dir.at("file"), "123456");
    testsupport::ConsoleCapture console;
    std::error_code error;
    EXPECT_FALSE(RegularFile::read(dir.at("file"), 5, &error).has_value());
    EXPECT_EQ(error, ReadRefusal::TooLarge);
    EXPECT_EQ(console.messages(),
              std::vector<std::string>{"not read: " + dir.at("file") + ": larger than a file read whole may be"});
}

TEST_F(RegularFileTest, FileThatSaysItIsEmptyButHoldsMoreThanTheLimitIsRefused)
{
    // /proc files report no size and still have contents.
    const std::optional<std::string> whole = RegularFile::read("/proc/self/status");
    ASSERT_TRUE(whole.has_value());
    ASSERT_GT(whole->size(), 10U);
    std::error_code error;
    EXPECT_FALSE(RegularFile::read("/proc/self/status", 10, &error).has_value());
    EXPECT_EQ(error, ReadRefusal::TooLarge);
}

TEST_F(RegularFileTest, MissingFileIsNotToldOnTheConsole)
{
    testsupport::ConsoleCapture console;
    std::error_code error;
    EXPECT_FALSE(RegularFile::read(dir.at("missing"), RegularFile::kSizeLimit, &error).has_value());
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_TRUE(console.messages().empty());
}

TEST_F(RegularFileTest, EmptyPathIsMissing)
{
    std::error_code error;
    EXPECT_FALSE(RegularFile::read("", RegularFile::kSizeLimit, &error).has_value());
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
}

TEST_F(RegularFileTest, FolderFailsAsReadingOneDoes)
{
    std::error_code error;
    EXPECT_FALSE(RegularFile::read(dir.path(), RegularFile::kSizeLimit, &error).has_value());
    EXPECT_EQ(error, std::errc::is_a_directory);
}

// Things that are not regular files; none may be read, and none may hang.
class NotARegularFileTest : public RegularFileTest, public testing::WithParamInterface<const char*> {
protected:
    std::string make()
    {
        std::string path = dir.at("item");
        const std::string kind = GetParam();
        if (kind == "fifo") {
            EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
        } else {
            std::filesystem::create_symlink(kind, path);
        }
        return path;
    }
};

TEST_P(NotARegularFileTest, IsRefusedAtOnceAndTold)
{
    const std::string path = make();
    testsupport::ConsoleCapture console;
    std::error_code error;
    EXPECT_FALSE(RegularFile::read(path, RegularFile::kSizeLimit, &error).has_value());
    EXPECT_EQ(error, ReadRefusal::NotARegularFile);
    EXPECT_EQ(console.messages(), std::vector<std::string>{"not read: " + path + ": not a regular file"});
}

INSTANTIATE_TEST_SUITE_P(Items, NotARegularFileTest, testing::Values("fifo", "/dev/zero", "/dev/urandom", "/dev/null"),
                         [](const testing::TestParamInfo<const char*>& info) {
                             const std::string name = info.param;
                             return name == "fifo" ? name : "LinkTo_" + name.substr(5);
                         });

TEST_F(RegularFileTest, SocketCannotBeRead)
{
    const std::string path = dir.at("socket");
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    std::error_code error;
    EXPECT_FALSE(RegularFile::read(path, RegularFile::kSizeLimit, &error).has_value());
    EXPECT_TRUE(error);
    ::close(fd);
}

TEST_F(RegularFileTest, OpenGivesTheStatusOfARegularFile)
{
    testsupport::writeFile(dir.at("file"), "abcd");
    struct stat info {};
    const platform::posix::UniqueFd fd = RegularFile::open(dir.at("file"), info);
    ASSERT_TRUE(fd.valid());
    EXPECT_EQ(info.st_size, 4);
}

TEST_F(RegularFileTest, OpenInFolderDoesNotFollowAFinalLink)
{
    testsupport::writeFile(dir.at("file"), "abcd");
    std::filesystem::create_symlink(dir.at("file"), dir.at("link"));
    const platform::posix::UniqueFd folder = platform::posix::openFile(dir.path(), O_RDONLY | O_DIRECTORY);
    struct stat info {};
    std::error_code error;
    EXPECT_FALSE(RegularFile::openInFolder(folder.get(), "link", info, &error).valid());
    EXPECT_EQ(error, std::errc::too_many_symbolic_link_levels);
    EXPECT_TRUE(RegularFile::openInFolder(folder.get(), "file", info).valid());
}

}  // namespace
