// A vendor may ship the remover inside the support folder that its install
// log tells it to remove. The remover then runs from that folder: the folder
// stays with the running bundle in it, the rest of the folder goes, and the
// sequence runs to its end with the bundle's strings table and file list.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/RemoverFixture.h"

namespace {

using namespace testsupport;
namespace fs = std::filesystem;

constexpr char kBuiltBundle[] = REMOVER_BUNDLE_PATH;
constexpr char kUninstallerFolder[] = "/Library/Application Support/Corvane/Uninstaller";
constexpr char kNestedBundle[] = "/Library/Application Support/Corvane/Uninstaller/RemoverTool.app";

class RunningBundleInListedFolderTest : public testing::TestWithParam<Layout> {
protected:
    RunningBundleInListedFolderTest() : sandbox(GetParam()) {}

    void SetUp() override
    {
        installApp(sandbox, kDefaultApp);
        const std::string host = sandbox.hostPath(kNestedBundle);
        fs::create_directories(fs::path(host).parent_path());
        fs::copy(kBuiltBundle, host, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        sandbox.writeFile(std::string(kUninstallerFolder) + "/ReadMe.txt", "r");
        sandbox.writeFile(std::string(kUninstallerFolder) + "/Cache/state", "s");
    }

    Sandbox sandbox;
};

TEST_P(RunningBundleInListedFolderTest, FolderHoldingTheRunningBundleStaysAndTheSequenceRunsToItsEnd)
{
    const std::vector<std::string> bundle = sandbox.tree(kNestedBundle);
    ASSERT_FALSE(bundle.empty());
    sandbox.writeFile(kProductLog, std::string(kUninstallerFolder) + "\n");

    const RunResult result =
        sandbox.runProgram(std::string(kNestedBundle) + "/Contents/MacOS/RemoverTool", {"x", kDefaultApp});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // The library double is not in this bundle copy: the manager step says
    // where it looked for it.
    const QuietRunTail tail = quietRunTail(kDefaultApp);
    EXPECT_EQ(result.standardOutput,
              line(kCouldNotRemove, kUninstallerFolder) + line(kRemoved, kProductLog) + tail.agent +
                  line(kCouldNotRemove, kJexRef) + kManagerFailed + " MISSING_CORVANEHOV:" + kNestedBundle +
                  "/Contents/Frameworks/CorvaneHOV.dylib.\n" + tail.fileList + tail.components + tail.folder)
        << describe(result);
    EXPECT_NE(
        result.standardError.find("not removed: " + std::string(kNestedBundle) + ": the running program's bundle\n"),
        std::string::npos)
        << describe(result);

    // Only the bundle is left in the listed folder.
    std::vector<std::string> expected{"d /Library/Application Support/Corvane/Uninstaller/RemoverTool.app"};
    expected.insert(expected.end(), bundle.begin(), bundle.end());
    EXPECT_EQ(sandbox.tree(kUninstallerFolder), expected);
    EXPECT_FALSE(sandbox.exists(kDefaultApp));
    EXPECT_FALSE(sandbox.exists(kDefaultFolder));
}

INSTANTIATE_TEST_SUITE_P(BothLayouts, RunningBundleInListedFolderTest,
                         testing::Values(Layout::SeparateMounts, Layout::SingleDisk),
                         [](const testing::TestParamInfo<Layout>& info) { return layoutName(info.param); });

}  // namespace
