// A run that has started ends whole: a reader of its output that goes away
// after the first line, or a hang-up in the middle, leaves the same fixture
// behind as a run whose output is read to the end, and the exit status stays
// 0.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/RemoverFixture.h"
#include "tests/support/Sandbox.h"

namespace {

using testsupport::kDefaultApp;
using testsupport::kDefaultFolder;
using testsupport::kProductLog;
using testsupport::kSuiteReceipts;
using testsupport::Layout;
using testsupport::layoutName;
using testsupport::RunResult;
using testsupport::Sandbox;

constexpr int kListedFileCount = 5000;
constexpr char kBulkFolder[] = "/Library/Application Support/Corvane/Lumidoc/Bulk";
constexpr char kUnrelatedReceipt[] = "com.corvane.reader.9.app.pkg";

// The complete installation with 5,000 more files named by the product's
// install log, enough status lines to fill the output's buffer many times.
void layDownLargeInstallation(Sandbox& sandbox)
{
    testsupport::layDownCompleteInstallation(sandbox);
    std::string log = sandbox.readFile(kProductLog);
    for (int i = 0; i < kListedFileCount; ++i) {
        const std::string path = std::string(kBulkFolder) + "/file-" + std::to_string(i) + ".dat";
        sandbox.writeFile(path, "data");
        log += path + "\tfile\n";
    }
    sandbox.writeFile(kProductLog, log);
}

// The first line a reader of the whole output sees.
std::string firstLineOf(const std::string& output)
{
    return output.substr(0, output.find('\n') + 1);
}

class RunEndsWholeTest : public testing::TestWithParam<Layout> {
protected:
    // The fixture a run whose output is read to its end leaves, and that
    // output.
    void runReadToTheEnd()
    {
        Sandbox reference(GetParam());
        layDownLargeInstallation(reference);
        const RunResult result = reference.run({"ignored", kDefaultApp});
        ASSERT_EQ(result.exitStatus, 0) << result.standardError;
        theReferenceOutput = result.standardOutput;
        theReferenceTree = reference.tree();
        theReferenceReceipts = reference.receipts();
    }

    // Checks that sandbox holds what the reference run left.
    void expectTheSameEndAsAWholeRun(const Sandbox& sandbox) const
    {
        EXPECT_TRUE(sandbox.tree(kBulkFolder).empty());
        EXPECT_FALSE(sandbox.exists(kBulkFolder + std::string("/file-0.dat")));
        EXPECT_FALSE(sandbox.exists(kBulkFolder + std::string("/file-4999.dat")));
        EXPECT_FALSE(sandbox.exists(kProductLog));
        EXPECT_FALSE(sandbox.exists(kDefaultApp));
        EXPECT_FALSE(sandbox.exists(kDefaultFolder));
        EXPECT_EQ(sandbox.receipts(), std::vector<std::string>{kUnrelatedReceipt});
        EXPECT_EQ(sandbox.tree(), theReferenceTree);
        EXPECT_EQ(sandbox.receipts(), theReferenceReceipts);
    }

    std::string theReferenceOutput;
    std::vector<std::string> theReferenceTree;
    std::vector<std::string> theReferenceReceipts;
};

TEST_P(RunEndsWholeTest, AReaderThatTakesOnlyTheFirstLineLeavesTheRunWhole)
{
    runReadToTheEnd();
    ASSERT_FALSE(HasFailure());
    // The reference run itself removed everything and forgot the suite's
    // receipts, so the comparison below means something.
    ASSERT_EQ(theReferenceReceipts, std::vector<std::string>{kUnrelatedReceipt});
    ASSERT_EQ(kSuiteReceipts.size(), 10U);

    Sandbox sandbox(GetParam());
    layDownLargeInstallation(sandbox);
    // head ends after the first line; every later write of the remover goes
    // to a pipe without a reader. The remover starts with the default
    // dispositions a shell would give it (the test runner ignores SIGPIPE,
    // and that would be inherited). Its own status goes to standard error.
    const RunResult result = sandbox.runProgram(
        "/bin/sh",
        {"-c", "{ env --default-signal=PIPE,HUP \"$0\" ignored \"$1\"; echo \"remover exit $?\" >&2; } | head -n 1",
         Sandbox::kRemoverPath, kDefaultApp});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, firstLineOf(theReferenceOutput));
    EXPECT_NE(result.standardError.find("remover exit 0\n"), std::string::npos) << result.standardError;
    expectTheSameEndAsAWholeRun(sandbox);
}

TEST_P(RunEndsWholeTest, AHangUpInTheMiddleOfTheRunLeavesItWhole)
{
    runReadToTheEnd();
    ASSERT_FALSE(HasFailure());

    Sandbox sandbox(GetParam());
    layDownLargeInstallation(sandbox);
    // The reader sends SIGHUP once the first line has arrived, while the
    // remover is still at work, and then reads the rest.
    const std::string script = "{ env --default-signal=PIPE,HUP \"$0\" ignored \"$1\" & echo $! >/tmp/remover.pid; "
                               "wait $!; echo \"remover exit $?\" >&2; } | "
                               "{ head -n 1; while [ ! -s /tmp/remover.pid ]; do sleep 0.01; done; "
                               "kill -HUP \"$(cat /tmp/remover.pid)\" && echo \"hang-up sent\" >&2; cat >/dev/null; }";
    const RunResult result = sandbox.runProgram("/bin/sh", {"-c", script, Sandbox::kRemoverPath, kDefaultApp});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, firstLineOf(theReferenceOutput));
    EXPECT_NE(result.standardError.find("hang-up sent\n"), std::string::npos) << result.standardError;
    EXPECT_NE(result.standardError.find("remover exit 0\n"), std::string::npos) << result.standardError;
    expectTheSameEndAsAWholeRun(sandbox);
}

INSTANTIATE_TEST_SUITE_P(RunEndsWhole, RunEndsWholeTest, testing::Values(Layout::SeparateMounts, Layout::SingleDisk),
                         [](const testing::TestParamInfo<Layout>& info) { return layoutName(info.param); });

}  // namespace
