// Unit tests of the remover's operations on temporary folders. The test
// executable is not inside a bundle, so status words print as their keys.
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include "platform/Exception.h"
#include "platform/Workspace.h"
#include "remover/TFRemoverTool.h"
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
                              const std::vector<std::string>&, int32_t*) override
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

}  // namespace

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

// A string of the given bytes, NULs included.
template <std::size_t N>
std::string bytes(const char (&text)[N])
{
    return {text, N - 1};
}

TEST(EntriesOfList, OnePathPerLineBeforeTheFirstTab)
{
    EXPECT_EQ(TFRemoverTool::entriesOfList("/a/b\tfile\t0644\n  /c\n\n", "/Apps"), (Entries{"/a/b", "/c"}));
}

TEST(EntriesOfList, RelativeEntryResolvesAgainstTheApplicationFolder)
{
    EXPECT_EQ(TFRemoverTool::entriesOfList("X.app\n", "/Apps/Folder"), (Entries{"/Apps/Folder/X.app"}));
}

TEST(EntriesOfList, CarriageReturnStaysPartOfThePath)
{
    EXPECT_EQ(TFRemoverTool::entriesOfList("/a\r\n", "/Apps"), (Entries{"/a\r"}));
}

TEST(EntriesOfList, UTF8ByteOrderMarkIsNotPartOfTheFirstEntry)
{
    EXPECT_EQ(TFRemoverTool::entriesOfList("\xEF\xBB\xBF/Library/x\n/y\n", "/Apps"), (Entries{"/Library/x", "/y"}));
}

TEST(EntriesOfList, ByteOrderMarkLaterInTheListStaysInItsEntry)
{
    EXPECT_EQ(TFRemoverTool::entriesOfList("/a\n\xEF\xBB\xBF/b\n", "/Apps"), (Entries{"/a", "/Apps/\xEF\xBB\xBF/b"}));
}

TEST(EntriesOfList, LittleEndianUTF16WithByteOrderMarkIsReadAsUTF16)
{
    EXPECT_EQ(TFRemoverTool::entriesOfList(bytes("\xFF\xFE/\0a\0\xE9\0\n\0/\0b\0\t\0x\0"), "/Apps"),
              (Entries{"/a\xC3\xA9", "/b"}));
}

TEST(EntriesOfList, BigEndianUTF16WithByteOrderMarkIsReadAsUTF16)
{
    EXPECT_EQ(TFRemoverTool::entriesOfList(bytes("\xFE\xFF\0/\0a\0\n\0r\0\n"), "/Apps"), (Entries{"/a", "/Apps/r"}));
}

TEST(EntriesOfList, UTF16ThatDoesNotDecodeNamesNothing)
{
    EXPECT_EQ(TFRemoverTool::entriesOfList(bytes("\xFF\xFE/\0a"), "/Apps"), Entries{});
    EXPECT_EQ(TFRemoverTool::entriesOfList(bytes("\xFF\xFE\x00\xD8/\0"), "/Apps"), Entries{});
}

TEST(EntriesOfList, UTF16WithoutByteOrderMarkIsTakenAsBytes)
{
    EXPECT_EQ(TFRemoverTool::entriesOfList(bytes("/\0a\0"), "/Apps"), (Entries{bytes("/\0a\0")}));
}

TEST(EntriesOfList, DeletesNothing)
{
    TempDir dir;
    writeFile(dir.at("keep"), "x");
    EXPECT_EQ(TFRemoverTool::entriesOfList(dir.at("keep") + "\nkeep\n", dir.path()),
              (Entries{dir.at("keep"), dir.at("keep")}));
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
