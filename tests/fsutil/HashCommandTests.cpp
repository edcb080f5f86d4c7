// The digest commands of qelutil as scripts use them: output, exit statuses
// and the forced errors of the hex and path-hash checks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/fsutil/DigestTestSupport.h"
#include "tests/support/TempDir.h"

using digesttest::CommandResult;
using digesttest::linesOf;
using digesttest::runQelutil;

namespace {

const std::string kSixtyFourZeros(64, '0');
const std::string kAppPath = "/Applications/Lumidoc Reader.app";

std::string opensslDigestOf(const std::string& algorithm, const std::string& text)
{
    const CommandResult result = digesttest::runCommand("openssl", {"dgst", "-" + algorithm, "-r"}, text);
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    return result.out.substr(0, result.out.find(' '));
}

std::string lastLineOf(const std::string& text)
{
    const std::vector<std::string> lines = linesOf(text);
    return lines.empty() ? std::string() : lines.back();
}

bool anyLineContains(const std::string& text, const std::string& part)
{
    for (const std::string& line : linesOf(text)) {
        if (line.find(part) != std::string::npos) {
            return true;
        }
    }
    return false;
}

class HashCommand : public testing::Test {
protected:
    std::string fileWith(const std::string& name, const std::string& contents)
    {
        testsupport::writeFile(dir.at(name), contents);
        return dir.at(name);
    }

    CommandResult run(const std::vector<std::string>& arguments, const std::string& stdinText = "")
    {
        return runQelutil(arguments, {dir.path()}, stdinText);
    }

    testsupport::TempDir dir;
};

}  // namespace

TEST_F(HashCommand, Sha256OfStandardInputPrintsTheDigest)
{
    const std::string message = digesttest::messageBytes(100000);
    const CommandResult result = run({"sha256"}, message);
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, opensslDigestOf("sha256", message) + "\n");
}

TEST_F(HashCommand, Sha224OfStandardInputPrintsTheDigest)
{
    const std::string message = digesttest::messageBytes(100000);
    const CommandResult result = run({"sha224"}, message);
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, opensslDigestOf("sha224", message) + "\n");
}

TEST_F(HashCommand, Sha256OfEmptyStandardInputPrintsTheDigestOfNothing)
{
    const CommandResult result = run({"sha256"});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\n");
}

TEST_F(HashCommand, Sha256OfAFileReadInSeveralPiecesPrintsItsDigest)
{
    const std::string message = digesttest::messageBytes((3U << 20) + 17);
    const std::string path = fileWith("message", message);
    const CommandResult result = run({"sha256", path});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, opensslDigestOf("sha256", message) + "\n");
}

TEST_F(HashCommand, Sha224OfAFilePrintsItsDigest)
{
    const std::string message = digesttest::messageBytes(1000);
    const CommandResult result = run({"sha224", fileWith("message", message)});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, opensslDigestOf("sha224", message) + "\n");
}

TEST_F(HashCommand, Sha256OfAMissingFileExitsOneWithAMessage)
{
    const CommandResult result = run({"sha256", dir.at("missing")});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(anyLineContains(result.err, dir.at("missing"))) << result.err;
}

TEST_F(HashCommand, Sha256WithTwoFilesIsAUsageError)
{
    const CommandResult result = run({"sha256", fileWith("a", "a"), fileWith("b", "b")});
    EXPECT_EQ(result.exitStatus, 64);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(anyLineContains(result.err, "sha256 [FILE]")) << result.err;
}

TEST_F(HashCommand, HashAppPathPrintsTheFiftySixDigitHashOfThePath)
{
    const CommandResult result = run({"hash-app-path", kAppPath});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, opensslDigestOf("sha224", kAppPath) + "\n");
    EXPECT_EQ(result.out.size(), 57U);
}

TEST_F(HashCommand, HashAppPathOfAPathWithoutAUTF8FormExitsWithFatal1844)
{
    const CommandResult result = run({"hash-app-path", "/Applications/\xFF.app"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(lastLineOf(result.err), "QELFatalException 1844");
}

TEST_F(HashCommand, HashAppPathWithForcedError1844ExitsWithFatal1844)
{
    const CommandResult result = run({"hash-app-path", "/x", "-ForceError", "1844"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(anyLineContains(result.err, "Error 1844 forced for testing")) << result.err;
    EXPECT_EQ(lastLineOf(result.err), "QELFatalException 1844");
}

TEST_F(HashCommand, HashAppPathWithForcedError1876ExitsWithFatal1876)
{
    const CommandResult result = run({"hash-app-path", "/x", "-ForceError", "1876"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(lastLineOf(result.err), "QELFatalException 1876");
}

TEST_F(HashCommand, HashAppPathWithForcedError1877ExitsWithFatal1877)
{
    const CommandResult result = run({"hash-app-path", "/x", "-ForceError", "1877"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(lastLineOf(result.err), "QELFatalException 1877");
}

TEST_F(HashCommand, HashAppPathWithItsOneHexCheckSkippedByTheForcedErrorPrintsTheHash)
{
    const CommandResult result = run({"hash-app-path", "/x", "-ForceError", "1876", "-ForceErrorSkipCount", "1"});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, opensslDigestOf("sha224", "/x") + "\n");
    EXPECT_TRUE(anyLineContains(result.err, "Error 1876 forced for testing but count only 1 out of 2")) << result.err;
}

TEST_F(HashCommand, HashFilePrintsTheDigestAndExitsZero)
{
    const std::string message = digesttest::messageBytes(5000);
    const CommandResult result = run({"hash-file", fileWith("message", message)});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, opensslDigestOf("sha256", message) + "\n");
}

TEST_F(HashCommand, HashFileOfAMissingFilePrintsZerosAndExitsTwo)
{
    const CommandResult result = run({"hash-file", dir.at("missing")});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_EQ(result.out, kSixtyFourZeros + "\n");
}

TEST_F(HashCommand, HashFileOfAnEmptyFilePrintsZerosAndExitsFour)
{
    const CommandResult result = run({"hash-file", fileWith("empty", "")});
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_EQ(result.out, kSixtyFourZeros + "\n");
}

TEST_F(HashCommand, HashFileWithForcedError1877ExitsWithFatal1877)
{
    const CommandResult result = run({"hash-file", fileWith("message", "abc"), "-ForceError", "1877"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(lastLineOf(result.err), "QELFatalException 1877");
}

TEST_F(HashCommand, HashFileOfAMissingFileStillReachesTheHexCheck1876)
{
    const CommandResult result = run({"hash-file", dir.at("missing"), "-ForceError", "1876"});
    EXPECT_EQ(result.exitStatus, 70);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(lastLineOf(result.err), "QELFatalException 1876");
}

TEST_F(HashCommand, HashMatchesWithTheCorrectHashPrintsZeroAndExitsZero)
{
    const std::string message = digesttest::messageBytes(5000);
    const CommandResult result = run({"hash-matches", opensslDigestOf("sha256", message), fileWith("m", message)});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, "0\n");
}

TEST_F(HashCommand, HashMatchesWithTheCorrectHashInUpperCasePrintsOneAndExitsOne)
{
    const CommandResult result =
        run({"hash-matches", "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD", fileWith("m", "abc")});
    EXPECT_EQ(result.exitStatus, 1) << result.err;
    EXPECT_EQ(result.out, "1\n");
}

TEST_F(HashCommand, HashMatchesOfAMissingFilePrintsTwoAndExitsTwo)
{
    const CommandResult result = run({"hash-matches", kSixtyFourZeros, dir.at("missing")});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_EQ(result.out, "2\n");
}

TEST_F(HashCommand, HashMatchesOfAnEmptyFilePrintsFourAndExitsFour)
{
    const CommandResult result = run({"hash-matches", kSixtyFourZeros, fileWith("empty", "")});
    EXPECT_EQ(result.exitStatus, 4);
    EXPECT_EQ(result.out, "4\n");
}

TEST_F(HashCommand, HashMatchesWithOneArgumentIsAUsageError)
{
    const CommandResult result = run({"hash-matches", kSixtyFourZeros});
    EXPECT_EQ(result.exitStatus, 64);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(anyLineContains(result.err, "hash-matches HASH PATH")) << result.err;
}
