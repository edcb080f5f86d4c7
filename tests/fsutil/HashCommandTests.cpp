// The digest commands of qelutil as scripts use them: output, exit statuses
// and the forced errors of the hex and path-hash checks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/ByteStream.h"
#include "tests/support/Lines.h"
#include "tests/support/OpensslDigests.h"
#include "tests/support/Sandbox.h"

namespace {

using testsupport::anyLineContains;
using testsupport::linesOf;
using testsupport::opensslDigestOf;
using testsupport::RunResult;
using testsupport::Sandbox;

const std::string kSixtyFourZeros(64, '0');
const std::string kAppPath = "/Applications/Lumidoc Reader.app";
// Where the files a test hashes lie inside the sandbox.
const std::string kFiles = "/root/files";

std::string lastLineOf(const std::string& text)
{
    const std::vector<std::string> lines = linesOf(text);
    return lines.empty() ? std::string() : lines.back();
}

// qelutil of the built bundle in the sandbox over a fixture of its own, so
// that no stored setting of this machine takes part. The home folder has the
// Library folder every user has, where an error line's log file goes.
class HashCommand : public testing::Test {
protected:
    void SetUp() override { sandbox.makeDirectory("/root/Library"); }

    // The path inside of a file of the fixture with the contents.
    std::string fileWith(const std::string& name, const std::string& contents)
    {
        sandbox.writeFile(at(name), contents);
        return at(name);
    }

    static std::string at(const std::string& name) { return kFiles + "/" + name; }

    RunResult run(const std::vector<std::string>& arguments, const std::string& stdinText = "")
    {
        testsupport::RunOptions options;
        options.input = stdinText;
        return sandbox.runWith(Sandbox::kQelutilPath, arguments, options);
    }

    Sandbox sandbox;
};

TEST_F(HashCommand, Sha256OfStandardInputPrintsTheDigest)
{
    const std::string message = testsupport::messageBytes(100000);
    const RunResult result = run({"sha256"}, message);
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, opensslDigestOf("sha256", message) + "\n");
}

TEST_F(HashCommand, Sha224OfStandardInputPrintsTheDigest)
{
    const std::string message = testsupport::messageBytes(100000);
    const RunResult result = run({"sha224"}, message);
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, opensslDigestOf("sha224", message) + "\n");
}

TEST_F(HashCommand, Sha256OfEmptyStandardInputPrintsTheDigestOfNothing)
{
    const RunResult result = run({"sha256"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\n");
}

TEST_F(HashCommand, Sha256OfAFileReadInSeveralPiecesPrintsItsDigest)
{
    const std::string message = testsupport::messageBytes((3U << 20) + 17);
    const std::string path = fileWith("message", message);
    const RunResult result = run({"sha256", path});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, opensslDigestOf("sha256", message) + "\n");
}

TEST_F(HashCommand, Sha224OfAFilePrintsItsDigest)
{
    const std::string message = testsupport::messageBytes(1000);
    const RunResult result = run({"sha224", fileWith("message", message)});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, opensslDigestOf("sha224", message) + "\n");
}

TEST_F(HashCommand, Sha256OfAMissingFileExitsOneWithAMessage)
{
    const RunResult result = run({"sha256", at("missing")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_TRUE(anyLineContains(result.standardError, at("missing"))) << result.standardError;
}

TEST_F(HashCommand, Sha256WithTwoFilesIsAUsageError)
{
    const RunResult result = run({"sha256", fileWith("a", "a"), fileWith("b", "b")});
    EXPECT_EQ(result.exitStatus, 64);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_TRUE(anyLineContains(result.standardError, "sha256 [FILE]")) << result.standardError;
}

TEST_F(HashCommand, HashAppPathPrintsTheFiftySixDigitHashOfThePath)
{
    const RunResult result = run({"hash-app-path", kAppPath});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, opensslDigestOf("sha224", kAppPath) + "\n");
    EXPECT_EQ(result.standardOutput.size(), 57U);
}

TEST_F(HashCommand, HashAppPathOfAPathWithoutAUTF8FormExitsWithFatal1844)
{
    const RunResult result = run({"hash-app-path", "/Applications/\xFF.app"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(lastLineOf(result.standardError), "QELFatalException 1844");
}

TEST_F(HashCommand, HashAppPathWithForcedError1844ExitsWithFatal1844)
{
    const RunResult result = run({"hash-app-path", "/x", "-ForceError", "1844"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_TRUE(anyLineContains(result.standardError, "Error 1844 forced for testing")) << result.standardError;
    EXPECT_EQ(lastLineOf(result.standardError), "QELFatalException 1844");
}

TEST_F(HashCommand, HashAppPathWithForcedError1876ExitsWithFatal1876)
{
    const RunResult result = run({"hash-app-path", "/x", "-ForceError", "1876"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(lastLineOf(result.standardError), "QELFatalException 1876");
}

TEST_F(HashCommand, HashAppPathWithForcedError1877ExitsWithFatal1877)
{
    const RunResult result = run({"hash-app-path", "/x", "-ForceError", "1877"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(lastLineOf(result.standardError), "QELFatalException 1877");
}

TEST_F(HashCommand, HashAppPathWithItsOneHexCheckSkippedByTheForcedErrorPrintsTheHash)
{
    const RunResult result = run({"hash-app-path", "/x", "-ForceError", "1876", "-ForceErrorSkipCount", "1"});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, opensslDigestOf("sha224", "/x") + "\n");
    EXPECT_TRUE(anyLineContains(result.standardError, "Error 1876 forced for testing but count only 1 out of 2"))
        << result.standardError;
}

TEST_F(HashCommand, HashFilePrintsTheDigestAndExitsZero)
{
    const std::string message = testsupport::messageBytes(5000);
    const RunResult result = run({"hash-file", fileWith("message", message)});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, opensslDigestOf("sha256", message) + "\n");
}

TEST_F(HashCommand, HashFileOfAMissingFilePrintsZerosAndExitsTwo)
{
    const RunResult result = run({"hash-file", at("missing")});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_EQ(result.standardOutput, kSixtyFourZeros + "\n");
}

TEST_F(HashCommand, HashFileOfAnEmptyFilePrintsZerosAndExitsFour)
{
    const RunResult result = run({"hash-file", fileWith("empty", "")});
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_EQ(result.standardOutput, kSixtyFourZeros + "\n");
}

TEST_F(HashCommand, HashFileWithForcedError1877ExitsWithFatal1877)
{
    const RunResult result = run({"hash-file", fileWith("message", "abc"), "-ForceError", "1877"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(lastLineOf(result.standardError), "QELFatalException 1877");
}

TEST_F(HashCommand, HashFileOfAMissingFileStillReachesTheHexCheck1876)
{
    const RunResult result = run({"hash-file", at("missing"), "-ForceError", "1876"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(lastLineOf(result.standardError), "QELFatalException 1876");
}

TEST_F(HashCommand, HashMatchesWithTheCorrectHashPrintsZeroAndExitsZero)
{
    const std::string message = testsupport::messageBytes(5000);
    const RunResult result = run({"hash-matches", opensslDigestOf("sha256", message), fileWith("m", message)});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, "0\n");
}

TEST_F(HashCommand, HashMatchesWithTheCorrectHashInUpperCasePrintsOneAndExitsOne)
{
    const RunResult result =
        run({"hash-matches", "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD", fileWith("m", "abc")});
    EXPECT_EQ(result.exitStatus, 1) << result.standardError;
    EXPECT_EQ(result.standardOutput, "1\n");
}

TEST_F(HashCommand, HashMatchesOfAMissingFilePrintsTwoAndExitsTwo)
{
    const RunResult result = run({"hash-matches", kSixtyFourZeros, at("missing")});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_EQ(result.standardOutput, "2\n");
}

TEST_F(HashCommand, HashMatchesOfAnEmptyFilePrintsFourAndExitsFour)
{
    const RunResult result = run({"hash-matches", kSixtyFourZeros, fileWith("empty", "")});
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_EQ(result.standardOutput, "4\n");
}

TEST_F(HashCommand, HashMatchesWithOneArgumentIsAUsageError)
{
    const RunResult result = run({"hash-matches", kSixtyFourZeros});
    EXPECT_EQ(result.exitStatus, 64);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_TRUE(anyLineContains(result.standardError, "hash-matches HASH PATH")) << result.standardError;
}

}  // namespace
