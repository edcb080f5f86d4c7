// Unit tests of the remover's operations on temporary folders. The test
// executable is not inside a bundle, so status words print as their keys.
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <gtest/gtest.h>
#include <stdexcept>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <ostream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform/Exception.h"
#include "platform/Workspace.h"
#include "remover/InstallLogList.h"
#include "remover/TFRemoverTool.h"
#include "platform/RegularFile.h"
#include "tests/support/ConsoleCapture.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/TempDir.h"

using testsupport::TempDir;
using testsupport::writeFile;

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// Points the remover at a stream while it lives, then back at standard output.
class OutputRedirect {
public:
    OutputRedirect(TFRemoverTool& remover, std::FILE* stream) : theRemover(remover) { remover.setOutput(stream); }
    ~OutputRedirect() { theRemover.setOutput(stdout); }
    OutputRedirect(const OutputRedirect&) = delete;
    OutputRedirect& operator=(const OutputRedirect&) = delete;

private:
    TFRemoverTool& theRemover;
};

// Everything the remover prints while body runs, through a stream of its own.
std::string outputOf(TFRemoverTool& remover, const std::function<void()>& body)
{
    const std::unique_ptr<std::FILE, FileCloser> stream(std::tmpfile());
    if (!stream) {
        ADD_FAILURE() << "no temporary stream";
        return "";
    }
    {
        const OutputRedirect redirect(remover, stream.get());
        body();
    }
    std::string text;
    std::rewind(stream.get());
    for (int c = std::fgetc(stream.get()); c != EOF; c = std::fgetc(stream.get())) {
        text.push_back(static_cast<char>(c));
    }
    return text;
}

bool exists(const std::string& path)
{
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

// A workspace whose operations throw what the test chooses.
class ThrowingWorkspace : public platform::Workspace {
public:
    explicit ThrowingWorkspace(std::function<void()> thrower) : theThrower(std::move(thrower)) {}
    bool performFileOperation(platform::WorkspaceOperation, const std::string&, const std::optional<std::string>&,
                              const std::vector<std::string>&, int32_t*, std::error_code*,
                              const platform::TreeRemover::FailureHandler&) override
    {
        theThrower();
        return false;
    }
    bool setIcon(std::nullptr_t, const std::string&, unsigned) override
    {
        theThrower();
        return false;
    }

private:
    std::function<void()> theThrower;
};

class WorkspaceOverride {
public:
    explicit WorkspaceOverride(platform::Workspace* workspace)
    {
        platform::Workspace::setSharedWorkspaceForTesting(workspace);
    }
    ~WorkspaceOverride() { platform::Workspace::setSharedWorkspaceForTesting(nullptr); }
    WorkspaceOverride(const WorkspaceOverride&) = delete;
    WorkspaceOverride& operator=(const WorkspaceOverride&) = delete;
};

std::unique_ptr<TFRemoverTool> removerFor(const std::string& appPath)
{
    auto remover = std::make_unique<TFRemoverTool>();
    remover->setAppPath(appPath);
    return remover;
}

TEST(SetAppPath, ParentIsThePathLessItsLastComponent)
{
    TFRemoverTool remover;
    remover.setAppPath("/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app");
    EXPECT_EQ(*remover.appPath(), "/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app");
    EXPECT_EQ(*remover.appParentPath(), "/Applications/Corvane Lumidoc X Pro");
}

TEST(SetAppPath, TrailingSlashIsDroppedBeforeTheParentIsTaken)
{
    TFRemoverTool remover;
    remover.setAppPath("/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app/");
    EXPECT_EQ(*remover.appPath(), "/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app/");
    EXPECT_EQ(*remover.appParentPath(), "/Applications/Corvane Lumidoc X Pro");
}

TEST(SetAppPath, SettingTheHeldPathAgainKeepsIt)
{
    TFRemoverTool remover;
    remover.setAppPath("/A/B.app");
    remover.setAppPath(*remover.appPath());
    EXPECT_EQ(*remover.appPath(), "/A/B.app");
    EXPECT_EQ(*remover.appParentPath(), "/A");
}

TEST(ObtainVolume, StartupVolumeApplicationGivesRoot)
{
    auto remover = removerFor("/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app");
    EXPECT_EQ(remover->obtainVolume(), "/");
}

TEST(ObtainVolume, LowerCaseVolumesIsNotAnotherVolume)
{
    auto remover = removerFor("/volumes/Backup/App.app");
    EXPECT_EQ(remover->obtainVolume(), "/");
}

TEST(ObtainVolume, RelativePathIsJudgedByItsSecondPiece)
{
    auto remover = removerFor("Volumes/Backup/App.app");
    EXPECT_EQ(remover->obtainVolume(), "/");
}

TEST(ObtainVolume, ApplicationInAVolumeRootGivesThatVolume)
{
    auto remover = removerFor("/Volumes/Backup/App.app");
    EXPECT_EQ(remover->obtainVolume(), "/Volumes/Backup");
}

TEST(ObtainVolume, ApplicationDeeperInAVolumeGivesThatVolume)
{
    auto remover = removerFor("/Volumes/Backup/Applications/App.app");
    EXPECT_EQ(remover->obtainVolume(), "/Volumes/Backup");
}

TEST(ObtainVolume, VolumeNameWithoutPercentSignComesOutUnchanged)
{
    auto remover = removerFor("/Volumes/My Disk 2/App.app");
    EXPECT_EQ(remover->obtainVolume(), "/Volumes/My Disk 2");
}

TEST(ObtainVolume, VolumeNameIsItsOwnFormatTemplate)
{
    auto remover = removerFor("/Volumes/100%% Disk/App.app");
    EXPECT_EQ(remover->obtainVolume(), "/Volumes/100% Disk");
}

TEST(ObtainVolume, PathWithoutSlashRaisesIndexOutOfRange)
{
    auto remover = removerFor("App.app");
    try {
        remover->obtainVolume();
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "NSRangeException");
        EXPECT_EQ(exception.reason(), "index 1 beyond bounds [0 .. 0]");
    }
}

TEST(ObtainVolume, VolumesWithoutANameRaisesIndexOutOfRange)
{
    auto remover = removerFor("/Volumes");
    EXPECT_THROW(remover->obtainVolume(), platform::Exception);
}

class BundleVersionTest : public testing::Test {
protected:
    std::string bundleWithVersion(const std::string& version)
    {
        std::string path = dir.at("Component.app");
        writeFile(path + "/Contents/Info.plist",
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                  "<key>CFBundleVersion</key><string>" +
                      version + "</string></dict></plist>\n");
        return path;
    }
    TempDir dir;
    TFRemoverTool remover;
};

TEST_F(BundleVersionTest, MajorVersionTenIsCurrent)
{
    EXPECT_TRUE(remover.bundleVersionIsCurrent(bundleWithVersion("10")));
}

TEST_F(BundleVersionTest, DottedVersionTenIsCurrent)
{
    EXPECT_TRUE(remover.bundleVersionIsCurrent(bundleWithVersion("10.0.3")));
}

TEST_F(BundleVersionTest, LettersAfterTheMajorNumberAreIgnored)
{
    EXPECT_TRUE(remover.bundleVersionIsCurrent(bundleWithVersion("10b2")));
}

TEST_F(BundleVersionTest, LeadingBlanksAndSignAreRead)
{
    EXPECT_TRUE(remover.bundleVersionIsCurrent(bundleWithVersion(" +10.1")));
}

TEST_F(BundleVersionTest, OlderVersionIsNotCurrent)
{
    EXPECT_FALSE(remover.bundleVersionIsCurrent(bundleWithVersion("9.4.1")));
}

TEST_F(BundleVersionTest, NewerVersionIsNotCurrent)
{
    EXPECT_FALSE(remover.bundleVersionIsCurrent(bundleWithVersion("11.0")));
}

TEST_F(BundleVersionTest, BundleWithoutVersionIsNotCurrent)
{
    writeFile(dir.at("Bare.app/Contents/Info.plist"),
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict></dict></plist>");
    EXPECT_FALSE(remover.bundleVersionIsCurrent(dir.at("Bare.app")));
}

TEST_F(BundleVersionTest, VersionThatIsNotTextRaisesInvalidArgument)
{
    writeFile(dir.at("Odd.app/Contents/Info.plist"),
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleVersion</key>"
              "<integer>10</integer></dict></plist>");
    try {
        remover.bundleVersionIsCurrent(dir.at("Odd.app"));
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
    }
}

TEST_F(BundleVersionTest, MissingBundleIsNotCurrent)
{
    EXPECT_FALSE(remover.bundleVersionIsCurrent(dir.at("Nowhere.app")));
}

class ListToDeleteTest : public testing::Test {
protected:
    std::string run(const std::string& listText)
    {
        writeFile(listPath, listText);
        return outputOf(remover, [&] { remover.listToDelete(listPath); });
    }
    TempDir dir;
    std::string listPath = dir.at("lists/uninstall.log");
    TFRemoverTool remover;
    void SetUp() override { remover.setAppPath(dir.at("Apps/App.app")); }
};

TEST_F(ListToDeleteTest, UnreadableListPrintsNothing)
{
    EXPECT_EQ(outputOf(remover, [&] { remover.listToDelete(dir.at("no-such.log")); }), "");
}

TEST_F(ListToDeleteTest, BlankLinesOnlyPrintNothing)
{
    EXPECT_EQ(run("\n   \n\t\n\r\n"), "");
}

TEST_F(ListToDeleteTest, TextAfterTheFirstTabIsIgnored)
{
    writeFile(dir.at("Foo"), "x");
    EXPECT_EQ(run("   " + dir.at("Foo") + "\tfile\t0644\n"), "Removed " + dir.at("Foo") + ".\n");
    EXPECT_FALSE(exists(dir.at("Foo")));
}

TEST_F(ListToDeleteTest, CarriageReturnStaysPartOfThePath)
{
    writeFile(dir.at("Foo"), "x");
    EXPECT_EQ(run(dir.at("Foo") + "\r\n"), "FileMissing " + dir.at("Foo") + "\r.\n");
    EXPECT_TRUE(exists(dir.at("Foo")));
}

TEST_F(ListToDeleteTest, RelativeEntryResolvesAgainstTheApplicationFolder)
{
    writeFile(dir.at("Apps/Foo.app/Contents/Info.plist"), "x");
    EXPECT_EQ(run("Foo.app\n"), "Removed " + dir.at("Apps/Foo.app") + ".\n");
    EXPECT_FALSE(exists(dir.at("Apps/Foo.app")));
}

TEST_F(ListToDeleteTest, FolderBeforeItsContentsLeavesTheContentsMissing)
{
    writeFile(dir.at("Tree/a"), "a");
    writeFile(dir.at("Tree/b"), "b");
    EXPECT_EQ(run(dir.at("Tree") + "\n" + dir.at("Tree/a") + "\n" + dir.at("Tree/b") + "\n"),
              "Removed " + dir.at("Tree") + ".\nFileMissing " + dir.at("Tree/a") + ".\nFileMissing " +
                  dir.at("Tree/b") + ".\n");
}

TEST_F(ListToDeleteTest, ListNamingItselfIsReadWholeFirst)
{
    writeFile(dir.at("after"), "x");
    EXPECT_EQ(run(listPath + "\n" + dir.at("after") + "\n"),
              "Removed " + listPath + ".\nRemoved " + dir.at("after") + ".\n");
    EXPECT_FALSE(exists(listPath));
    EXPECT_FALSE(exists(dir.at("after")));
}

TEST_F(ListToDeleteTest, DanglingLinkCountsAsMissingAndStays)
{
    ASSERT_EQ(symlink(dir.at("gone").c_str(), dir.at("link").c_str()), 0);
    EXPECT_EQ(run(dir.at("link") + "\n"), "FileMissing " + dir.at("link") + ".\n");
    EXPECT_TRUE(exists(dir.at("link")));
}

TEST_F(ListToDeleteTest, PathListedTwiceIsMissingTheSecondTime)
{
    writeFile(dir.at("twice"), "x");
    EXPECT_EQ(run(dir.at("twice") + "\n" + dir.at("twice") + "\n"),
              "Removed " + dir.at("twice") + ".\nFileMissing " + dir.at("twice") + ".\n");
}

TEST_F(ListToDeleteTest, PlatformExceptionPrintsItsDescriptionAndTheListGoesOn)
{
    writeFile(dir.at("one"), "1");
    writeFile(dir.at("two"), "2");
    int calls = 0;
    ThrowingWorkspace workspace([&] {
        ++calls;
        platform::Exception::raise("TestException", "destroy refused " + std::to_string(calls));
    });
    const WorkspaceOverride override(&workspace);
    EXPECT_EQ(run(dir.at("one") + "\n" + dir.at("two") + "\n"),
              "Exception:  destroy refused 1 \nException:  destroy refused 2 \n");
    EXPECT_EQ(calls, 2);
}

TEST_F(ListToDeleteTest, OtherThrownTypesLeaveTheList)
{
    writeFile(dir.at("one"), "1");
    writeFile(dir.at("two"), "2");
    int calls = 0;
    ThrowingWorkspace workspace([&] {
        ++calls;
        throw std::runtime_error("not the platform's");
    });
    const WorkspaceOverride override(&workspace);
    writeFile(listPath, dir.at("one") + "\n" + dir.at("two") + "\n");
    EXPECT_THROW(remover.listToDelete(listPath), std::runtime_error);
    EXPECT_EQ(calls, 1);
}

using Entries = std::vector<std::string>;

// The paths a list's bytes name, collected; none when they are not text.
Entries entriesOfList(std::string listBytes, std::string_view appFolder)
{
    Entries entries;
    std::optional<std::string> text = InstallLogList::text(std::move(listBytes));
    if (text) {
        EXPECT_TRUE(InstallLogList::forEachEntry(std::move(*text), appFolder,
                                                 [&](const std::string& path) { entries.push_back(path); }));
    }
    return entries;
}

// A string of the given bytes, NULs included.
template <std::size_t N>
std::string bytes(const char (&text)[N])
{
    return {text, N - 1};
}

TEST(InstallLogListEntries, OnePathPerLineBeforeTheFirstTab)
{
    EXPECT_EQ(entriesOfList("/a/b\tfile\t0644\n  /c\n\n", "/Apps"), (Entries{"/a/b", "/c"}));
}

TEST(InstallLogListEntries, RelativeEntryResolvesAgainstTheApplicationFolder)
{
    EXPECT_EQ(entriesOfList("X.app\n", "/Apps/Folder"), (Entries{"/Apps/Folder/X.app"}));
}

TEST(InstallLogListEntries, CarriageReturnStaysPartOfThePath)
{
    EXPECT_EQ(entriesOfList("/a\r\n", "/Apps"), (Entries{"/a\r"}));
}

TEST(InstallLogListEntries, UTF8ByteOrderMarkIsNotPartOfTheFirstEntry)
{
    EXPECT_EQ(entriesOfList("\xEF\xBB\xBF/Library/x\n/y\n", "/Apps"), (Entries{"/Library/x", "/y"}));
}

TEST(InstallLogListEntries, ByteOrderMarkLaterInTheListStaysInItsEntry)
{
    EXPECT_EQ(entriesOfList("/a\n\xEF\xBB\xBF/b\n", "/Apps"), (Entries{"/a", "/Apps/\xEF\xBB\xBF/b"}));
}

TEST(InstallLogListEntries, LittleEndianUTF16WithByteOrderMarkIsReadAsUTF16)
{
    EXPECT_EQ(entriesOfList(bytes("\xFF\xFE/\0a\0\xE9\0\n\0/\0b\0\t\0x\0"), "/Apps"), (Entries{"/a\xC3\xA9", "/b"}));
}

TEST(InstallLogListEntries, BigEndianUTF16WithByteOrderMarkIsReadAsUTF16)
{
    EXPECT_EQ(entriesOfList(bytes("\xFE\xFF\0/\0a\0\n\0r\0\n"), "/Apps"), (Entries{"/a", "/Apps/r"}));
}

TEST(InstallLogListEntries, UTF16ThatDoesNotDecodeNamesNothing)
{
    EXPECT_EQ(entriesOfList(bytes("\xFF\xFE/\0a"), "/Apps"), Entries{});
    EXPECT_EQ(entriesOfList(bytes("\xFF\xFE\x00\xD8/\0"), "/Apps"), Entries{});
}

TEST(InstallLogListEntries, UTF16WithoutByteOrderMarkIsTakenAsBytes)
{
    EXPECT_EQ(entriesOfList(bytes("/\0a\0"), "/Apps"), (Entries{bytes("/\0a\0")}));
}

TEST(InstallLogListEntries, DeletesNothing)
{
    TempDir dir;
    writeFile(dir.at("keep"), "x");
    EXPECT_EQ(entriesOfList(dir.at("keep") + "\nkeep\n", dir.path()), (Entries{dir.at("keep"), dir.at("keep")}));
    EXPECT_TRUE(exists(dir.at("keep")));
}

TEST_F(ListToDeleteTest, ListWithUTF8ByteOrderMarkRemovesItsFirstEntry)
{
    writeFile(dir.at("first"), "x");
    EXPECT_EQ(run("\xEF\xBB\xBF" + dir.at("first") + "\n"), "Removed " + dir.at("first") + ".\n");
    EXPECT_FALSE(exists(dir.at("first")));
}

TEST(RemoveIconForFolder, PlatformExceptionPrintsTheCaughtLineAndReturns)
{
    TempDir dir;
    ThrowingWorkspace workspace([] { platform::Exception::raise("TestException", "icon refused"); });
    const WorkspaceOverride override(&workspace);
    TFRemoverTool remover;
    EXPECT_EQ(outputOf(remover, [&] { remover.removeIconForFolder(dir.path()); }),
              "Exception caught: icon refused. Could not handle the image data.\n");
}

TEST(RemoveIconForFolder, ExceptionWhileClearingLeavesTheFolderStepToRunAsUsual)
{
    TempDir dir;
    std::filesystem::create_directory(dir.at("App"));
    ThrowingWorkspace workspace([] { platform::Exception::raise("TestException", "no image data"); });
    const WorkspaceOverride override(&workspace);
    TFRemoverTool remover;
    // The two calls the sequence makes for the application folder, in order.
    EXPECT_EQ(outputOf(remover,
                       [&] {
                           remover.removeIconForFolder(dir.at("App"));
                           remover.deleteParentFolder(dir.at("App"));
                       }),
              "Exception caught: no image data. Could not handle the image data.\nRemoved " + dir.at("App") + ".\n");
    EXPECT_FALSE(exists(dir.at("App")));
}

TEST(RemoveIconForFolder, OtherThrownTypesPassOn)
{
    TempDir dir;
    ThrowingWorkspace workspace([] { throw std::logic_error("foreign"); });
    const WorkspaceOverride override(&workspace);
    TFRemoverTool remover;
    EXPECT_THROW(remover.removeIconForFolder(dir.path()), std::logic_error);
}

TEST(RemoveIconForFolder, IconThatCannotBeRemovedIsReported)
{
    TempDir dir;
    writeFile(dir.at("Icon\r/inside"), "a folder where the icon file should be");
    TFRemoverTool remover;
    EXPECT_EQ(outputOf(remover, [&] { remover.removeIconForFolder(dir.path()); }),
              "Cannot remove the image for " + dir.path() + ".\n");
}

TEST(RemoveIconForFolder, CustomIconIsCleared)
{
    TempDir dir;
    writeFile(dir.at("Icon\r"), "icon");
    TFRemoverTool remover;
    EXPECT_EQ(outputOf(remover, [&] { remover.removeIconForFolder(dir.path()); }), "");
    EXPECT_FALSE(exists(dir.at("Icon\r")));
}

TEST(DeleteParentFolder, FolderHoldingOnlyAHiddenFileStays)
{
    TempDir dir;
    writeFile(dir.at("App/.hidden"), "");
    TFRemoverTool remover;
    EXPECT_EQ(outputOf(remover, [&] { remover.deleteParentFolder(dir.at("App")); }),
              "ErrorRemovingFile " + dir.at("App") + ".\n");
    EXPECT_TRUE(exists(dir.at("App/.hidden")));
}

TEST(DeleteParentFolder, EmptyFolderIsRemoved)
{
    TempDir dir;
    std::filesystem::create_directory(dir.at("App"));
    TFRemoverTool remover;
    EXPECT_EQ(outputOf(remover, [&] { remover.deleteParentFolder(dir.at("App")); }),
              "Removed " + dir.at("App") + ".\n");
    EXPECT_FALSE(exists(dir.at("App")));
}

TEST(DeleteParentFolder, PlainFileIsReportedAsMissingDirectoryAndStays)
{
    TempDir dir;
    writeFile(dir.at("App"), "");
    TFRemoverTool remover;
    EXPECT_EQ(outputOf(remover, [&] { remover.deleteParentFolder(dir.at("App")); }),
              "MissingDirectory " + dir.at("App") + ".\n");
    EXPECT_TRUE(exists(dir.at("App")));
}

TEST(DeleteParentFolder, MissingFolderIsReportedMissing)
{
    TempDir dir;
    TFRemoverTool remover;
    EXPECT_EQ(outputOf(remover, [&] { remover.deleteParentFolder(dir.at("App")); }),
              "FileMissing " + dir.at("App") + ".\n");
}

TEST(InstallLogListEntries, BytesThatAreNotUTF8AreNotText)
{
    EXPECT_FALSE(InstallLogList::text("/Library/a\n/Library/\xFF\n").has_value());
    EXPECT_FALSE(InstallLogList::text("\xEF\xBB\xBF/Library/\xC3\n").has_value());
}

TEST(InstallLogListEntries, ValidUTF8IsHandedBackInTheSameBuffer)
{
    std::string bytes(1000, 'x');
    const char* const buffer = bytes.data();
    const std::optional<std::string> text = InstallLogList::text(std::move(bytes));
    ASSERT_TRUE(text.has_value());
    EXPECT_EQ(text->data(), buffer);
}

TEST(InstallLogListEntries, LineHoldingANulByteKeepsItInItsPath)
{
    EXPECT_EQ(entriesOfList(bytes("/Library\0/foo\n/b\n"), "/Apps"), (Entries{bytes("/Library\0/foo"), "/b"}));
}

TEST_F(ListToDeleteTest, LineHoldingANulByteTouchesNothingAndIsMissing)
{
    writeFile(dir.at("Library/foo"), "x");
    // The line is printed as C prints a string: up to the NUL.
    EXPECT_EQ(run(dir.at("Library") + std::string(1, '\0') + "/foo\n"), "FileMissing " + dir.at("Library") + ".\n");
    EXPECT_TRUE(exists(dir.at("Library/foo")));
}

TEST_F(ListToDeleteTest, ListThatIsNotTextPrintsNothingAndRemovesNothing)
{
    writeFile(dir.at("keep"), "x");
    testsupport::ConsoleCapture console;
    EXPECT_EQ(run(dir.at("keep") + "\n\xFF\xFF\n"), "");
    EXPECT_TRUE(exists(dir.at("keep")));
    EXPECT_EQ(console.messages(),
              Entries{"not read: " + listPath + ": not text (UTF-8, or UTF-16 with a byte-order mark)"});
}

// A list the remover must not read, and the console's reason.
struct RefusedList {
    const char* name;
    // Makes the list at listPath (in folder `lists`, inside `top`) refused.
    std::function<void(const std::string& top, const std::string& lists, const std::string& listPath)> make;
    const char* reason;
};

void PrintTo(const RefusedList& list, std::ostream* out)
{
    *out << list.name;
}

class RefusedListTest : public testing::TestWithParam<RefusedList> {};

TEST_P(RefusedListTest, PrintsNothingRemovesNothingAndTellsWhy)
{
    TempDir dir;
    const std::string lists = dir.at("top/lists");
    const std::string listPath = lists + "/uninstall.log";
    writeFile(dir.at("keep"), "x");
    writeFile(listPath, dir.at("keep") + "\n");
    GetParam().make(dir.at("top"), lists, listPath);
    TFRemoverTool remover;
    remover.setAppPath(dir.at("Apps/App.app"));
    testsupport::ConsoleCapture console;
    EXPECT_EQ(outputOf(remover, [&] { remover.listToDelete(listPath); }), "");
    EXPECT_TRUE(exists(dir.at("keep")));
    EXPECT_EQ(console.messages(), Entries{"not read: " + listPath + ": " + GetParam().reason});
}

void replaceWith(const std::string& path, const std::function<void()>& make)
{
    std::filesystem::remove(path);
    make();
}

INSTANTIATE_TEST_SUITE_P(
    Lists, RefusedListTest,
    testing::Values(RefusedList{"FileOfAnotherUser",
                                [](const std::string&, const std::string&, const std::string& list) {
                                    ASSERT_EQ(::chown(list.c_str(), 1000, 0), 0);
                                },
                                "writable by uid 1000"},
                    RefusedList{"FileWritableByItsGroup",
                                [](const std::string&, const std::string&, const std::string& list) {
                                    ASSERT_EQ(::chown(list.c_str(), 0, 50), 0);
                                    ASSERT_EQ(::chmod(list.c_str(), 0664), 0);
                                },
                                "writable by group 50"},
                    RefusedList{"FileWritableByOthers",
                                [](const std::string&, const std::string&, const std::string& list) {
                                    ASSERT_EQ(::chmod(list.c_str(), 0646), 0);
                                },
                                "writable by others"},
                    RefusedList{"OwnFolderOfAnotherUser",
                                [](const std::string&, const std::string& lists, const std::string&) {
                                    ASSERT_EQ(::chown(lists.c_str(), 1000, 1000), 0);
                                },
                                "its folder is writable by uid 1000"},
                    RefusedList{"OwnFolderStickyAndWritableByOthers",
                                [](const std::string&, const std::string& lists, const std::string&) {
                                    ASSERT_EQ(::chmod(lists.c_str(), 01757), 0);
                                },
                                "its folder is writable by others"},
                    RefusedList{"FolderAboveWritableByItsGroup",
                                [](const std::string& top, const std::string&, const std::string&) {
                                    ASSERT_EQ(::chmod(top.c_str(), 0775), 0);
                                },
                                "a folder above it is writable by group 0"},
                    RefusedList{"FolderAboveOfAnotherUser",
                                [](const std::string& top, const std::string&, const std::string&) {
                                    ASSERT_EQ(::chown(top.c_str(), 1000, 0), 0);
                                },
                                "a folder above it is writable by uid 1000"},
                    RefusedList{"LinkToAListInAFolderOthersMayWrite",
                                [](const std::string& top, const std::string&, const std::string& list) {
                                    writeFile(top + "/shared/evil.log", "x\n");
                                    ASSERT_EQ(::chmod((top + "/shared").c_str(), 0757), 0);
                                    replaceWith(
                                        list, [&] { std::filesystem::create_symlink(top + "/shared/evil.log", list); });
                                },
                                "the folder a link to it leads to is writable by others"},
                    RefusedList{"Fifo",
                                [](const std::string&, const std::string&, const std::string& list) {
                                    replaceWith(list, [&] { ASSERT_EQ(::mkfifo(list.c_str(), 0600), 0); });
                                },
                                "not a regular file"},
                    RefusedList{"LinkToDevZero",
                                [](const std::string&, const std::string&, const std::string& list) {
                                    replaceWith(list, [&] { std::filesystem::create_symlink("/dev/zero", list); });
                                },
                                // /dev is root's and not writable by others: the device
                                // itself is refused.
                                "not a regular file"},
                    RefusedList{"SparseFileLargerThanTheLimit",
                                [](const std::string&, const std::string&, const std::string& list) {
                                    ASSERT_EQ(::truncate(list.c_str(), platform::RegularFile::kSizeLimit + 1), 0);
                                },
                                "larger than a file read whole may be"}),
    [](const testing::TestParamInfo<RefusedList>& info) { return std::string(info.param.name); });

TEST(TrustedList, StickyRootFolderAboveTheListsFolderIsAccepted)
{
    TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 01777), 0);
    const std::string listPath = dir.at("lists/uninstall.log");
    writeFile(dir.at("gone"), "x");
    writeFile(listPath, dir.at("gone") + "\n");
    TFRemoverTool remover;
    remover.setAppPath(dir.at("Apps/App.app"));
    EXPECT_EQ(outputOf(remover, [&] { remover.listToDelete(listPath); }), "Removed " + dir.at("gone") + ".\n");
}

TEST(TrustedList, ListOfTheRunningUserIsRead)
{
    TempDir dir;
    const std::string listPath = dir.at("lists/uninstall.log");
    writeFile(listPath, dir.at("absent") + "\n");
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chown(dir.at("lists").c_str(), testsupport::kUnprivilegedUser, 0), 0);
    ASSERT_EQ(::chown(listPath.c_str(), testsupport::kUnprivilegedUser, 0), 0);
    const int status = testsupport::runUnprivileged([&] {
        TFRemoverTool remover;
        remover.setAppPath(dir.at("Apps/App.app"));
        return outputOf(remover, [&] { remover.listToDelete(listPath); }) == "FileMissing " + dir.at("absent") + ".\n"
                   ? 0
                   : 1;
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
