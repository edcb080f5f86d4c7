// The application-manager step of a run: the reference file, then the
// install-manager library in the remover's bundle, loaded, called and closed,
// with its status reported by name.
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/RemoverFixture.h"
#include "tests/support/Sandbox.h"

namespace {

using testsupport::describe;
using testsupport::installApp;
using testsupport::JournalEntry;
using testsupport::kDefaultApp;
using testsupport::kJexRef;
using testsupport::quietRunTail;
using testsupport::QuietRunTail;
using testsupport::RunResult;
using testsupport::Sandbox;

constexpr char kReferenceNotRemoved[] =
    "Could not remove "
    "/Library/Application Support/Corvane/CorvaneApplicationManager/JEXRefs/com.corvane.Lumidoc_10.jexref.\n";
constexpr char kSucceeded[] = "Application manager uninstalled\n";

// The whole output of a run of an application installed at the default
// path, with nothing else of the suite there, around the manager lines.
std::string runWithManagerLines(const std::string& managerLines)
{
    const QuietRunTail tail = quietRunTail(kDefaultApp);
    return tail.agent + managerLines + tail.fileList + tail.components + tail.folder;
}

// A run over an installed application with the library double in the bundle
// returning the status.
RunResult runWithLibraryStatus(Sandbox& sandbox, const std::string& status)
{
    installApp(sandbox, kDefaultApp);
    sandbox.installLibraryDouble();
    return sandbox.run({"x", kDefaultApp}, {{"HOV_DOUBLE_STATUS", status}});
}

// The journal entries of the library doubles alone.
std::vector<JournalEntry> libraryJournal(const Sandbox& sandbox)
{
    std::vector<JournalEntry> entries;
    for (JournalEntry& entry : sandbox.journal()) {
        if (!entry.empty() && entry.front().rfind("CorvaneHOV", 0) == 0) {
            entries.push_back(std::move(entry));
        }
    }
    return entries;
}

const std::vector<JournalEntry> kLibraryLoadedCalledAndClosed{
    {"CorvaneHOV", "load"},
    {"CorvaneHOV", "hov_uninstallCorvaneApplicationManager"},
    {"CorvaneHOV", "unload"},
};

TEST(ApplicationManagerTest, StatusZeroPrintsOnlyTheSucceededWordWithoutNamePathOrPeriod)
{
    Sandbox sandbox;

    const RunResult result = runWithLibraryStatus(sandbox, "0");

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, runWithManagerLines(std::string(kReferenceNotRemoved) + kSucceeded));
}

TEST(ApplicationManagerTest, StatusOneIsReportedAsAFailureNamedIgnore)
{
    Sandbox sandbox;

    const RunResult result = runWithLibraryStatus(sandbox, "1");

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, runWithManagerLines(std::string(kReferenceNotRemoved) +
                                                         "Application manager uninstall failed HOV_USTATUS_IGNORE.\n"));
}

class FailingStatusTest : public testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(FailingStatusTest, FailingStatusIsReportedAsAFailureByItsName)
{
    const auto& [status, name] = GetParam();
    Sandbox sandbox;

    const RunResult result = runWithLibraryStatus(sandbox, status);

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, runWithManagerLines(std::string(kReferenceNotRemoved) +
                                                         "Application manager uninstall failed " + name + ".\n"));
}

INSTANTIATE_TEST_SUITE_P(ApplicationManagerTest, FailingStatusTest,
                         testing::Values(std::pair{"-6", "HOV_USTATUS_FATAL"},
                                         std::pair{"-5", "HOV_USTATUS_FAILED_TO_MOVE_JEX_DIRECTORY"},
                                         std::pair{"-4", "HOV_USTATUS_FAILED_TO_DEL_JEX_INVENTORY"},
                                         std::pair{"-3", "HOV_USTATUS_FAILED_TO_DEL_JEX_DIRECTORY"},
                                         std::pair{"-2", "HOV_USTATUS_DEPLOY_VALIDATION_FAILED"},
                                         std::pair{"-1", "HOV_USTATUS_FAILURE"}));

class UnknownStatusTest : public testing::TestWithParam<const char*> {};

TEST_P(UnknownStatusTest, StatusOutsideTheTableIsReportedAsSuccess)
{
    Sandbox sandbox;

    const RunResult result = runWithLibraryStatus(sandbox, GetParam());

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, runWithManagerLines(std::string(kReferenceNotRemoved) + kSucceeded));
}

INSTANTIATE_TEST_SUITE_P(ApplicationManagerTest, UnknownStatusTest, testing::Values("-7", "2", "100"));

TEST(ApplicationManagerTest, MissingLibraryFileIsReportedWithItsFullPath)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput,
              runWithManagerLines(std::string(kReferenceNotRemoved) +
                                  "Application manager uninstall failed "
                                  "MISSING_CORVANEHOV:/opt/RemoverTool.app/Contents/Frameworks/CorvaneHOV.dylib.\n"));
}

TEST(ApplicationManagerTest, FileThatIsNotALibraryIsReportedAsANullHandle)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    sandbox.useBundleCopy();
    sandbox.writeFile(testsupport::kLibraryInBundle, "not a shared library\n");

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput,
              runWithManagerLines(std::string(kReferenceNotRemoved) +
                                  "Application manager uninstall failed NULL_HANDLE_TO_CORVANEHOV.\n"));
}

TEST(ApplicationManagerTest, LibraryWithoutTheEntryIsClosedAgainWithoutALine)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);
    sandbox.installLibraryDouble("CorvaneHOVNoEntry");

    const RunResult result = sandbox.run({"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, runWithManagerLines(kReferenceNotRemoved));
    const std::vector<JournalEntry> loadedAndClosed{{"CorvaneHOVNoEntry", "load"}, {"CorvaneHOVNoEntry", "unload"}};
    EXPECT_EQ(libraryJournal(sandbox), loadedAndClosed);
}

TEST(ApplicationManagerTest, MissingReferenceFileIsReportedAndTheLibraryIsCalledAllTheSame)
{
    Sandbox sandbox;

    const RunResult result = runWithLibraryStatus(sandbox, "0");

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, runWithManagerLines(std::string(kReferenceNotRemoved) + kSucceeded));
    EXPECT_EQ(libraryJournal(sandbox), kLibraryLoadedCalledAndClosed);
}

TEST(ApplicationManagerTest, ReferenceFileThatCannotBeDestroyedIsReportedStaysAndTheLibraryIsCalled)
{
    Sandbox sandbox;
    const std::string references = "/Library/Application Support/Corvane/CorvaneApplicationManager/JEXRefs";
    sandbox.writeFile(kJexRef, "reference");
    sandbox.makeReadOnly(references);

    const RunResult result = runWithLibraryStatus(sandbox, "0");

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, runWithManagerLines(std::string(kReferenceNotRemoved) + kSucceeded));
    EXPECT_EQ(sandbox.readFile(kJexRef), "reference");
    EXPECT_EQ(libraryJournal(sandbox), kLibraryLoadedCalledAndClosed);
}

TEST(ApplicationManagerTest, PresentReferenceFileIsRemovedAndItsFolderStays)
{
    Sandbox sandbox;
    sandbox.writeFile(kJexRef, "reference");

    const RunResult result = runWithLibraryStatus(sandbox, "0");

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(
        result.standardOutput,
        runWithManagerLines(
            "Removed "
            "/Library/Application Support/Corvane/CorvaneApplicationManager/JEXRefs/com.corvane.Lumidoc_10.jexref.\n" +
            std::string(kSucceeded)));
    const std::vector<std::string> left{
        "d /Library/Application Support/Corvane",
        "d /Library/Application Support/Corvane/CorvaneApplicationManager",
        "d /Library/Application Support/Corvane/CorvaneApplicationManager/JEXRefs",
    };
    EXPECT_EQ(sandbox.tree("/Library/Application Support"), left);
}

TEST(ApplicationManagerTest, LibraryIsLoadedCalledAndClosedBeforeTheReceiptsStep)
{
    Sandbox sandbox;

    const RunResult result = runWithLibraryStatus(sandbox, "-1");

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const std::vector<JournalEntry> journal = sandbox.journal();
    ASSERT_GE(journal.size(), 4U);
    const std::vector<JournalEntry> firstFour(journal.begin(), journal.begin() + 4);
    const std::vector<JournalEntry> expected{
        {"CorvaneHOV", "load"},
        {"CorvaneHOV", "hov_uninstallCorvaneApplicationManager"},
        {"CorvaneHOV", "unload"},
        {"pkgutil", "--regexp", "--forget", "com.corvane.lumidoc.10.viewer.app.pkg*", "--volume", "/"},
    };
    EXPECT_EQ(firstFour, expected);
}

}  // namespace
