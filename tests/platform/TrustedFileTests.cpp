#include "platform/TrustedFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "tests/support/ConsoleCapture.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/TempDir.h"

namespace {

using platform::ReadRefusal;
using platform::TrustedFile;
using testsupport::TempDir;

// A list at top/lists/list inside a temporary folder (itself in /tmp, a
// root-owned sticky folder).
class TrustedFileTest : public testing::Test {
protected:
    void SetUp() override { testsupport::writeFile(list, "contents"); }

    // The read's result, with the console lines it gave.
    std::optional<std::string> read(const std::string& path, std::error_code* error = nullptr)
    {
        const testsupport::ConsoleCapture console;
        std::optional<std::string> contents = TrustedFile::read(path, platform::RegularFile::kSizeLimit, error);
        messages = console.messages();
        return contents;
    }

    std::vector<std::string> refusal(const std::string& reason) const { return {"not read: " + list + ": " + reason}; }

    TempDir dir;
    std::string top = dir.at("top");
    std::string lists = dir.at("top/lists");
    std::string list = dir.at("top/lists/list");
    std::vector<std::string> messages;
};

TEST_F(TrustedFileTest, FileOfRootInFoldersOfRootIsRead)
{
    EXPECT_EQ(read(list), "contents");
    EXPECT_TRUE(messages.empty());
}

TEST_F(TrustedFileTest, FileOfAnotherUserIsRefused)
{
    ASSERT_EQ(::chown(list.c_str(), 1000, 0), 0);
    std::error_code error;
    EXPECT_FALSE(read(list, &error).has_value());
    EXPECT_EQ(error, ReadRefusal::Untrusted);
    EXPECT_EQ(messages, refusal("writable by uid 1000"));
}

TEST_F(TrustedFileTest, FileOfRootThatOthersMayWriteIsRefused)
{
    ASSERT_EQ(::chmod(list.c_str(), 0606), 0);
    EXPECT_FALSE(read(list).has_value());
    EXPECT_EQ(messages, refusal("writable by others"));
}

TEST_F(TrustedFileTest, FileOfRootThatItsGroupMayWriteIsRefused)
{
    ASSERT_EQ(::chown(list.c_str(), 0, 44), 0);
    ASSERT_EQ(::chmod(list.c_str(), 0660), 0);
    EXPECT_FALSE(read(list).has_value());
    EXPECT_EQ(messages, refusal("writable by group 44"));
}

TEST_F(TrustedFileTest, OwnFolderOthersMayWriteIsRefusedEvenWhenSticky)
{
    ASSERT_EQ(::chmod(lists.c_str(), 01757), 0);
    EXPECT_FALSE(read(list).has_value());
    EXPECT_EQ(messages, refusal("its folder is writable by others"));
}

TEST_F(TrustedFileTest, FolderAboveOthersMayWriteIsRefused)
{
    ASSERT_EQ(::chmod(top.c_str(), 0757), 0);
    EXPECT_FALSE(read(list).has_value());
    EXPECT_EQ(messages, refusal("a folder above it is writable by others"));
}

TEST_F(TrustedFileTest, StickyFolderOfRootAboveIsAccepted)
{
    ASSERT_EQ(::chmod(top.c_str(), 01777), 0);
    EXPECT_EQ(read(list), "contents");
}

TEST_F(TrustedFileTest, StickyFolderOfAnotherUserAboveIsRefused)
{
    ASSERT_EQ(::chmod(top.c_str(), 01777), 0);
    ASSERT_EQ(::chown(top.c_str(), 1000, 0), 0);
    EXPECT_FALSE(read(list).has_value());
    EXPECT_EQ(messages, refusal("a folder above it is writable by uid 1000"));
}

TEST_F(TrustedFileTest, FolderReachedThroughALinkIsJudgedWhereItReallyLies)
{
    // The path goes through a trusted link, but the folder it leads to is
    // open to others.
    testsupport::writeFile(dir.at("open/list"), "other");
    ASSERT_EQ(::chmod(dir.at("open").c_str(), 0757), 0);
    std::filesystem::create_symlink(dir.at("open"), dir.at("top/via"));
    const std::string path = dir.at("top/via/list");
    EXPECT_FALSE(read(path).has_value());
    EXPECT_EQ(messages, std::vector<std::string>{"not read: " + path + ": its folder is writable by others"});
}

TEST_F(TrustedFileTest, FinalLinkInATrustedFolderToATrustedFileIsFollowed)
{
    testsupport::writeFile(dir.at("other/real"), "real");
    std::filesystem::create_symlink("../../other/real", dir.at("top/lists/link"));
    EXPECT_EQ(read(dir.at("top/lists/link")), "real");
}

TEST_F(TrustedFileTest, FinalLinkIntoAFolderOthersMayWriteIsRefused)
{
    testsupport::writeFile(dir.at("open/real"), "real");
    ASSERT_EQ(::chmod(dir.at("open").c_str(), 0757), 0);
    std::filesystem::create_symlink(dir.at("open/real"), dir.at("top/lists/link"));
    EXPECT_FALSE(read(dir.at("top/lists/link")).has_value());
    EXPECT_EQ(messages, std::vector<std::string>{"not read: " + dir.at("top/lists/link") +
                                                 ": the folder a link to it leads to is writable by others"});
}

TEST_F(TrustedFileTest, LinkLoopIsNotRead)
{
    std::filesystem::create_symlink("b", dir.at("top/lists/a"));
    std::filesystem::create_symlink("a", dir.at("top/lists/b"));
    std::error_code error;
    EXPECT_FALSE(read(dir.at("top/lists/a"), &error).has_value());
    EXPECT_EQ(error, std::errc::too_many_symbolic_link_levels);
}

TEST_F(TrustedFileTest, FifoIsRefusedAtOnce)
{
    ASSERT_EQ(::mkfifo(dir.at("top/lists/fifo").c_str(), 0600), 0);
    std::error_code error;
    EXPECT_FALSE(read(dir.at("top/lists/fifo"), &error).has_value());
    EXPECT_EQ(error, ReadRefusal::NotARegularFile);
    EXPECT_EQ(messages, std::vector<std::string>{"not read: " + dir.at("top/lists/fifo") + ": not a regular file"});
}

TEST_F(TrustedFileTest, MissingFileIsNotTold)
{
    std::error_code error;
    EXPECT_FALSE(read(dir.at("top/lists/missing"), &error).has_value());
    EXPECT_EQ(error, std::errc::no_such_file_or_directory);
    EXPECT_TRUE(messages.empty());
}

TEST_F(TrustedFileTest, FilesOfTheRunningUserAreTrusted)
{
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chown(top.c_str(), testsupport::kUnprivilegedUser, testsupport::kUnprivilegedGroup), 0);
    ASSERT_EQ(::chown(lists.c_str(), testsupport::kUnprivilegedUser, testsupport::kUnprivilegedGroup), 0);
    ASSERT_EQ(::chown(list.c_str(), testsupport::kUnprivilegedUser, testsupport::kUnprivilegedGroup), 0);
    EXPECT_EQ(testsupport::runUnprivileged([&] { return TrustedFile::read(list) == "contents" ? 0 : 1; }), 0);
    // The same files are another user's to root.
    EXPECT_FALSE(read(list).has_value());
}

}  // namespace
