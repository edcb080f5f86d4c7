// The path and attribute utilities in process: results, statuses, what is
// logged or recorded, and what they must leave alone.
#include "fsutil/QELUPath.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "base/QELBase.h"
#include "fsutil/QELSecurity.h"
#include "platform/ConsoleLog.h"
#include "platform/Exception.h"
#include "platform/User.h"
#include "tests/support/Settings.h"
#include "tests/support/FileModes.h"
#include "tests/support/TempDir.h"

namespace {

using testsupport::TempDir;
using testsupport::writeFile;

using testsupport::modeOf;

constexpr uid_t kOtherUser = 65534;  // nobody
constexpr uint32_t kLibraryDirectory = 5;
constexpr uint32_t kApplicationDirectory = 1;

// Collects the console messages while it lives.
class ConsoleMessages {
public:
    ConsoleMessages()
    {
        platform::ConsoleLog::setSinkForTesting([this](const std::string& message) {
            const std::lock_guard<std::mutex> guard(theMutex);
            theMessages.push_back(message);
        });
    }
    ~ConsoleMessages() { platform::ConsoleLog::setSinkForTesting(nullptr); }
    ConsoleMessages(const ConsoleMessages&) = delete;
    ConsoleMessages& operator=(const ConsoleMessages&) = delete;

    // Whether a message ends with the text.
    bool any(const std::string& ending) const
    {
        const std::lock_guard<std::mutex> guard(theMutex);
        return std::any_of(theMessages.begin(), theMessages.end(), [&](const std::string& message) {
            return message.size() >= ending.size() &&
                   message.compare(message.size() - ending.size(), ending.size(), ending) == 0;
        });
    }
    bool loggedCode(int32_t code) const { return any("encountered errorCode " + std::to_string(code)); }
    std::size_t count() const
    {
        const std::lock_guard<std::mutex> guard(theMutex);
        return theMessages.size();
    }

private:
    mutable std::mutex theMutex;
    std::vector<std::string> theMessages;
};

class QELUPathTest : public testing::Test {
protected:
    void SetUp() override { testsupport::useCommandLineSettings({"-AppType", "Path Test"}); }

    static void force(int32_t code, int32_t skipCount = 0)
    {
        testsupport::useCommandLineSettings({"-AppType", "Path Test", "-ForceError", std::to_string(code),
                                             "-ForceErrorSkipCount", std::to_string(skipCount)});
    }

    std::string file(const std::string& name, const std::string& contents = "x", mode_t mode = 0644)
    {
        writeFile(dir.at(name), contents);
        EXPECT_EQ(::chmod(dir.at(name).c_str(), mode), 0);
        return dir.at(name);
    }

    std::string folder(const std::string& name, mode_t mode = 0755)
    {
        testsupport::makeDirectories(dir.at(name));
        EXPECT_EQ(::chmod(dir.at(name).c_str(), mode), 0);
        return dir.at(name);
    }

    std::string link(const std::string& name, const std::string& target)
    {
        EXPECT_EQ(::symlink(target.c_str(), dir.at(name).c_str()), 0);
        return dir.at(name);
    }

    static bool present(const std::string& path)
    {
        struct stat st {};
        return ::lstat(path.c_str(), &st) == 0;
    }

    static int32_t priorErrorCode()
    {
        const auto error = QELBase::error();
        return error ? error->code() : 0;
    }

    TempDir dir;
    ConsoleMessages console;
};

// Deleting ---------------------------------------------------------------------

TEST_F(QELUPathTest, DeletingAPathThatDoesNotExistAnswersYesAndReportsNothing)
{
    EXPECT_TRUE(QELUDeletePathIfExists(dir.at("missing"), 1865, 0, 0));
    EXPECT_EQ(console.count(), 0U);
    EXPECT_EQ(priorErrorCode(), 0);
}

TEST_F(QELUPathTest, DeletingAFolderRemovesItWithEverythingInIt)
{
    file("folder/sub/file");
    EXPECT_TRUE(QELUDeletePathIfExists(dir.at("folder"), 1865, 0, 0));
    EXPECT_FALSE(present(dir.at("folder")));
    EXPECT_FALSE(console.loggedCode(1865));
}

TEST_F(QELUPathTest, DeletingAnEmptyPathAnswersNoAndLogsTheCode)
{
    EXPECT_FALSE(QELUDeletePathIfExists("", 1865, 0, 0));
    EXPECT_TRUE(console.loggedCode(1865));
    EXPECT_EQ(priorErrorCode(), 0);
}

TEST_F(QELUPathTest, DeletingAnEmptyPathRecordOnlyRecordsTheCodeAsTheError)
{
    EXPECT_FALSE(QELUDeletePathIfExists("", 1864, 1, 0));
    EXPECT_EQ(priorErrorCode(), 1864);
    EXPECT_TRUE(console.loggedCode(1864));
}

TEST_F(QELUPathTest, DeletingWithTheRaiseFlagRaisesTheNonFatalExceptionAfterAFailure)
{
    try {
        QELUDeletePathIfExists("", 1865, 0, 1);
        ADD_FAILURE() << "nothing raised";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), QEL_NON_FATAL_EXCEPTION_NAME);
    }
    EXPECT_TRUE(console.loggedCode(1865));
}

TEST_F(QELUPathTest, DeletingWithTheCallersCodeForcedLeavesTheFileAndAnswersNo)
{
    const std::string path = file("log");
    force(1865);
    EXPECT_FALSE(QELUDeletePathIfExists(path, 1865, 0, 0));
    EXPECT_TRUE(present(path));
    EXPECT_TRUE(console.loggedCode(1865));
}

TEST_F(QELUPathTest, DeletingWithTheCallersCodeForcedAfterASkipDeletesTheFirstOnly)
{
    const std::string first = file("first");
    const std::string second = file("second");
    force(1865, 1);
    EXPECT_TRUE(QELUDeletePathIfExists(first, 1865, 0, 0));
    EXPECT_FALSE(QELUDeletePathIfExists(second, 1865, 0, 0));
    EXPECT_FALSE(present(first));
    EXPECT_TRUE(present(second));
}

TEST_F(QELUPathTest, DeletingALinkRemovesTheLinkAndNeverItsTarget)
{
    const std::string target = file("folder/file");
    const std::string path = link("link", dir.at("folder"));
    EXPECT_TRUE(QELUDeletePathIfExists(path, 1865, 0, 0));
    EXPECT_FALSE(present(path));
    EXPECT_TRUE(present(target));
}

TEST_F(QELUPathTest, DeletingADanglingLinkAnswersYesAsNothingIsThereToFollow)
{
    const std::string path = link("dangling", dir.at("nowhere"));
    EXPECT_TRUE(QELUDeletePathIfExists(path, 1865, 0, 0));
    EXPECT_FALSE(console.loggedCode(1865));
}

TEST_F(QELUPathTest, DeletingAPathEndingInDotDotRemovesNothingAndAnswersNo)
{
    const std::string kept = file("top/sub/file");
    EXPECT_FALSE(QELUDeletePathIfExists(dir.at("top/sub/.."), 1865, 0, 0));
    EXPECT_TRUE(present(kept));
    EXPECT_TRUE(console.loggedCode(1865));
}

// Attributes -------------------------------------------------------------------

TEST_F(QELUPathTest, AnAttributeOfAMissingPathIsNoneAndNothingIsReported)
{
    EXPECT_FALSE(QELUAttributesOfPathForKey(dir.at("missing"), platform::kFileType));
    EXPECT_EQ(console.count(), 0U);
}

TEST_F(QELUPathTest, AnAttributeIsAValueWhoseKindTheCallerChecks)
{
    const std::string path = file("file", "1234");
    const auto size = QELUAttributesOfPathForKey(path, platform::kFileSize);
    ASSERT_TRUE(size);
    ASSERT_TRUE(std::holds_alternative<uint64_t>(*size));
    EXPECT_EQ(std::get<uint64_t>(*size), 4U);
    const auto type = QELUAttributesOfPathForKey(path, platform::kFileType);
    ASSERT_TRUE(type);
    EXPECT_FALSE(std::holds_alternative<uint64_t>(*type));
}

TEST_F(QELUPathTest, PermissionsOfASymbolicLinkAreTheLinksOwnNotTheTargets)
{
    const std::string target = file("target", "x", 0600);
    const std::string path = link("link", target);
    int32_t status = -1;
    EXPECT_EQ(QELUPosixPermissionsAtPath(path, &status), 0777UL);
    EXPECT_EQ(status, 0);
}

TEST_F(QELUPathTest, PermissionsIncludeTheSetIdAndStickyBits)
{
    const std::string path = file("file", "x", 06755);
    int32_t status = -1;
    EXPECT_EQ(QELUPosixPermissionsAtPath(path, &status), 06755UL);
    EXPECT_EQ(status, 0);
}

TEST_F(QELUPathTest, PermissionsOfAMissingPathAreZeroWithStatus1950)
{
    int32_t status = 0;
    EXPECT_EQ(QELUPosixPermissionsAtPath(dir.at("missing"), &status), 0UL);
    EXPECT_EQ(status, 1950);
    EXPECT_TRUE(console.loggedCode(1950));
}

TEST_F(QELUPathTest, PermissionsWithTheNumberCheckForcedAreZeroWithStatus1951)
{
    const std::string path = file("file", "x", 0640);
    force(1951);
    int32_t status = 0;
    EXPECT_EQ(QELUPosixPermissionsAtPath(path, &status), 0UL);
    EXPECT_EQ(status, 1951);
    EXPECT_TRUE(console.loggedCode(1951));
}

TEST_F(QELUPathTest, SettingPermissionsChangesTheModeWithStatusZero)
{
    const std::string path = file("file", "x", 0644);
    int32_t status = -1;
    EXPECT_TRUE(QELUSetPosixPermissionsAtPath(path, 0600, &status));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(modeOf(path), 0600U);
}

TEST_F(QELUPathTest, SettingPermissionsThroughALinkFailsWith1952AndLeavesTheTarget)
{
    const std::string target = file("target", "x", 0644);
    const std::string path = link("link", target);
    int32_t status = 0;
    EXPECT_FALSE(QELUSetPosixPermissionsAtPath(path, 0777, &status));
    EXPECT_EQ(status, 1952);
    EXPECT_EQ(modeOf(target), 0644U);
    EXPECT_TRUE(console.loggedCode(1952));
}

TEST_F(QELUPathTest, SettingAnAttributeOfTheWrongKindFailsWith1952)
{
    const std::string path = file("file", "x", 0644);
    int32_t status = 0;
    EXPECT_FALSE(QELUSetAttributeForPath(path, platform::kFilePosixPermissions,
                                         platform::FileAttributeValue(std::string("0777")), &status));
    EXPECT_EQ(status, 1952);
    EXPECT_EQ(modeOf(path), 0644U);
}

TEST_F(QELUPathTest, SettingAnAttributeLeavesAnEarlierStatusInPlace)
{
    const std::string path = file("file", "x", 0644);
    int32_t status = 77;
    EXPECT_TRUE(QELUSetAttributeForPath(path, platform::kFilePosixPermissions,
                                        platform::FileAttributeValue(uint64_t{0600}), &status));
    EXPECT_EQ(status, 77);
}

TEST_F(QELUPathTest, SettingPermissionsWith1952ForcedChangesNothingAndAnswersNo)
{
    const std::string path = file("file", "x", 0644);
    force(1952);
    int32_t status = 0;
    EXPECT_FALSE(QELUSetPosixPermissionsAtPath(path, 0600, &status));
    EXPECT_EQ(status, 1952);
    EXPECT_EQ(modeOf(path), 0644U);
}

TEST_F(QELUPathTest, SettingPermissionsWith1952ForcedAfterTheChangeAnswersYesWithStatus1952)
{
    // The dictionary check passes twice (two consultations), the change's
    // first consultation passes, the second one fails.
    const std::string path = file("file", "x", 0644);
    force(1952, 3);
    int32_t status = 0;
    EXPECT_TRUE(QELUSetPosixPermissionsAtPath(path, 0600, &status));
    EXPECT_EQ(status, 1952);
    EXPECT_EQ(modeOf(path), 0600U);
    EXPECT_FALSE(console.loggedCode(1952));
}

// Sizes ----------------------------------------------------------------------

TEST_F(QELUPathTest, FileSizeIsTheSizeWithStatusZero)
{
    int32_t status = -1;
    EXPECT_EQ(QELUFileSize(file("file", "hello"), &status), 5U);
    EXPECT_EQ(status, 0);
}

TEST_F(QELUPathTest, FileSizeOfAMissingFileIsAllBitsSetWithStatus1953)
{
    int32_t status = 0;
    EXPECT_EQ(QELUFileSize(dir.at("missing"), &status), ~uint64_t{0});
    EXPECT_EQ(status, 1953);
    EXPECT_TRUE(console.loggedCode(1953));
}

TEST_F(QELUPathTest, FileSizeWithTheSizeCheckForcedIsAllBitsSetWithStatus1954)
{
    const std::string path = file("file", "hello");
    force(1954);
    int32_t status = 0;
    EXPECT_EQ(QELUFileSize(path, &status), ~uint64_t{0});
    EXPECT_EQ(status, 1954);
    EXPECT_TRUE(console.loggedCode(1954));
}

TEST_F(QELUPathTest, FileSizeConsultsTheTriggerTwiceSoTheLogPassesAndTheStatusFails)
{
    const std::string path = file("file", "hello");
    force(1953, 1);
    int32_t status = 0;
    EXPECT_EQ(QELUFileSize(path, &status), ~uint64_t{0});
    EXPECT_EQ(status, 1953);
    EXPECT_FALSE(console.loggedCode(1953));
    EXPECT_TRUE(console.any("Error 1953 forced for testing but count only 1 out of 2"));
    EXPECT_TRUE(console.any("Error 1953 forced for testing"));
}

// User directories -------------------------------------------------------------

TEST_F(QELUPathTest, TheUserLibraryDirectoryIsHomeSlashLibrary)
{
    EXPECT_EQ(QELUUserDirectoryOfType(kLibraryDirectory, 1847),
              platform::searchPathForDirectoriesInDomains(platform::SearchPathDirectory::Library,
                                                          platform::SearchPathDomainMask::User, true)
                  .front());
}

TEST_F(QELUPathTest, AUserDirectoryTypeWithNoDirectoryRaisesTheCallersCode)
{
    EXPECT_EQ(testsupport::fatalErrorCodeRaisedBy([] { QELUUserDirectoryOfType(kApplicationDirectory, 1847); }), 1847);
}

TEST_F(QELUPathTest, AUserDirectoryWithTheCallersCodeForcedRaisesIt)
{
    force(1847);
    EXPECT_EQ(testsupport::fatalErrorCodeRaisedBy([] { QELUUserDirectoryOfType(kLibraryDirectory, 1847); }), 1847);
}

TEST_F(QELUPathTest, AUserDirectoryWithTheTextCheckForcedRaisesTheCodeAfterTheCallers)
{
    force(1848);
    EXPECT_EQ(testsupport::fatalErrorCodeRaisedBy([] { QELUUserDirectoryOfType(kLibraryDirectory, 1847); }), 1848);
}

// Creating directories -----------------------------------------------------------

TEST_F(QELUPathTest, CreatingBelowASafeDirectoryMakesEachMissingOneWithMode0700)
{
    folder("base/a", 0755);
    bool created = false;
    {
        const testsupport::ScopedUmask umask(0277);
        created = QELUCreateDirectoryAndIntermediates(dir.at("base/a/b/c"), dir.at("base"), 0);
    }
    EXPECT_TRUE(created);
    EXPECT_EQ(modeOf(dir.at("base/a/b")), 0700U);
    EXPECT_EQ(modeOf(dir.at("base/a/b/c")), 0700U);
    EXPECT_EQ(modeOf(dir.at("base/a")), 0755U);
}

TEST_F(QELUPathTest, CreatingBelowAPlainFileCreatesNothingAndAnswersNoWith1537)
{
    file("base/a");
    EXPECT_FALSE(QELUCreateDirectoryAndIntermediates(dir.at("base/a/b/c"), dir.at("base"), 0));
    EXPECT_FALSE(present(dir.at("base/a/b")));
    EXPECT_TRUE(console.loggedCode(1537));
    EXPECT_EQ(priorErrorCode(), 1537);
}

TEST_F(QELUPathTest, CreatingAcceptsADirectoryOfAnotherUserWhenTheCheckIsSkipped)
{
    const std::string other = folder("base/a", 0777);
    ASSERT_EQ(::chown(other.c_str(), kOtherUser, kOtherUser), 0);
    EXPECT_TRUE(QELUCreateDirectoryAndIntermediates(dir.at("base/a/b"), dir.at("base"), 1));
    EXPECT_TRUE(present(dir.at("base/a/b")));
    EXPECT_EQ(modeOf(other), 0777U);
}

TEST_F(QELUPathTest, CreatingRefusesADirectoryOfAnotherUserWhenTheCheckIsMade)
{
    const std::string other = folder("base/a", 0777);
    ASSERT_EQ(::chown(other.c_str(), kOtherUser, kOtherUser), 0);
    EXPECT_FALSE(QELUCreateDirectoryAndIntermediates(dir.at("base/a/b"), dir.at("base"), 0));
    EXPECT_FALSE(present(dir.at("base/a/b")));
    EXPECT_EQ(modeOf(other), 0777U);
    EXPECT_TRUE(console.loggedCode(1537));
}

TEST_F(QELUPathTest, CreatingRefusesALinkToADirectoryUnlessTheCheckIsSkipped)
{
    folder("real", 0755);
    folder("base", 0755);
    link("base/a", dir.at("real"));
    EXPECT_FALSE(QELUCreateDirectoryAndIntermediates(dir.at("base/a/b"), dir.at("base"), 0));
    EXPECT_FALSE(present(dir.at("real/b")));
    EXPECT_TRUE(QELUCreateDirectoryAndIntermediates(dir.at("base/a/b"), dir.at("base"), 1));
    EXPECT_TRUE(present(dir.at("real/b")));
}

TEST_F(QELUPathTest, CreatingRepairsTheWriteBitsOfAnExistingDirectoryOfTheUser)
{
    folder("base/a", 0777);
    EXPECT_TRUE(QELUCreateDirectoryAndIntermediates(dir.at("base/a/b"), dir.at("base"), 0));
    EXPECT_EQ(modeOf(dir.at("base/a")), 0755U);
}

TEST_F(QELUPathTest, CreatingFailsWith1538WhereADanglingLinkTakesTheName)
{
    folder("base", 0755);
    link("base/a", dir.at("nowhere"));
    EXPECT_FALSE(QELUCreateDirectoryAndIntermediates(dir.at("base/a/b"), dir.at("base"), 0));
    EXPECT_FALSE(present(dir.at("nowhere")));
    EXPECT_TRUE(console.loggedCode(1538));
    EXPECT_EQ(priorErrorCode(), 1538);
}

TEST_F(QELUPathTest, CreatingWith1538ForcedPastTheSkipCountStopsAfterThatDirectory)
{
    // The check follows the creation: the second directory is made, its
    // check fails, and the third is never made.
    folder("base", 0755);
    force(1538, 1);
    EXPECT_FALSE(QELUCreateDirectoryAndIntermediates(dir.at("base/a/b/c"), dir.at("base"), 0));
    EXPECT_TRUE(present(dir.at("base/a/b")));
    EXPECT_FALSE(present(dir.at("base/a/b/c")));
    EXPECT_EQ(priorErrorCode(), 1538);
}

TEST_F(QELUPathTest, CreatingWith1537ForcedRefusesAnExistingSafeDirectory)
{
    folder("base/a", 0755);
    force(1537);
    EXPECT_FALSE(QELUCreateDirectoryAndIntermediates(dir.at("base/a/b"), dir.at("base"), 0));
    EXPECT_FALSE(present(dir.at("base/a/b")));
    EXPECT_EQ(priorErrorCode(), 1537);
}

TEST_F(QELUPathTest, CreatingNeitherChecksNorCreatesTheBase)
{
    EXPECT_FALSE(QELUCreateDirectoryAndIntermediates(dir.at("base/a"), dir.at("base"), 0));
    EXPECT_FALSE(present(dir.at("base")));
    const std::string base = folder("open", 0777);
    EXPECT_TRUE(QELUCreateDirectoryAndIntermediates(dir.at("open/a"), base, 0));
    EXPECT_EQ(modeOf(base), 0777U);
}

TEST_F(QELUPathTest, CreatingRefusesADotDotComponentAndTouchesNothingAboveTheBase)
{
    const std::string above = folder("above", 0777);
    folder("above/base/a", 0755);
    EXPECT_FALSE(QELUCreateDirectoryAndIntermediates(dir.at("above/base/a/../../b"), dir.at("above/base"), 0));
    EXPECT_FALSE(present(dir.at("above/b")));
    EXPECT_EQ(modeOf(above), 0777U);
    EXPECT_TRUE(console.loggedCode(1537));
}

TEST_F(QELUPathTest, CreatingWhatAlreadyExistsAnswersYesAndCreatesNothing)
{
    folder("base/a/b", 0700);
    EXPECT_TRUE(QELUCreateDirectoryAndIntermediates(dir.at("base/a/b"), dir.at("base"), 0));
    EXPECT_EQ(console.count(), 0U);
}

}  // namespace
