// Where the remover must read its input as the platform it was written for
// does, run in the sandbox: an application path with a doubled slash, and
// install logs that begin with a byte-order mark.
#include <gtest/gtest.h>
#include <string>

#include "tests/support/RemoverFixture.h"
#include "tests/support/Sandbox.h"

namespace {

using testsupport::describe;
using testsupport::installApp;
using testsupport::kDefaultApp;
using testsupport::kDefaultFolder;
using testsupport::kProductLog;
using testsupport::kRemoved;
using testsupport::line;
using testsupport::quietRunTail;
using testsupport::QuietRunTail;
using testsupport::RunResult;
using testsupport::Sandbox;

const std::string kDoubledSlashApp = "/Applications//Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app";

bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

TEST(FidelityTest, DoubledSlashInTheApplicationPathStillNamesTheDefaultFolder)
{
    Sandbox sandbox;
    installApp(sandbox, kDefaultApp);

    const RunResult result = sandbox.run({"x", kDoubledSlashApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // The bundle's list removes the application from its folder, and the
    // folder step then finds that folder empty and removes it.
    const QuietRunTail tail = quietRunTail(kDefaultApp);
    EXPECT_TRUE(endsWith(result.standardOutput, tail.fileList + tail.components + line(kRemoved, kDefaultFolder)))
        << result.standardOutput;
    EXPECT_FALSE(sandbox.exists(kDefaultFolder));
    EXPECT_TRUE(sandbox.exists("/Applications"));
}

// The default installation with the product log holding logBytes.
class ByteOrderMarkTest : public testing::Test {
protected:
    void SetUp() override
    {
        installApp(sandbox, kDefaultApp);
        sandbox.writeFile("/Library/Foo/first", "1");
        sandbox.writeFile("/Library/Foo/second", "2");
    }

    RunResult runWithLog(const std::string& logBytes)
    {
        sandbox.writeFile(kProductLog, logBytes);
        return sandbox.run({"x", kDefaultApp});
    }

    static std::string expectedOutput()
    {
        const QuietRunTail tail = quietRunTail(kDefaultApp);
        return line(kRemoved, "/Library/Foo/first") + line(kRemoved, "/Library/Foo/second") +
               line(kRemoved, kProductLog) + tail.agent + tail.manager + tail.fileList + tail.components + tail.folder;
    }

    void expectBothEntriesRemoved(const RunResult& result) const
    {
        ASSERT_EQ(result.exitStatus, 0) << describe(result);
        EXPECT_EQ(result.standardOutput, expectedOutput());
        EXPECT_FALSE(sandbox.exists("/Library/Foo/first"));
        EXPECT_FALSE(sandbox.exists("/Library/Foo/second"));
        EXPECT_TRUE(sandbox.exists("/Library/Foo"));
    }

    Sandbox sandbox;
};

// UTF-16 code units of ASCII text in the given byte order, after the mark.
std::string utf16(const std::string& text, bool bigEndian)
{
    std::string out = bigEndian ? std::string("\xFE\xFF") : std::string("\xFF\xFE");
    for (const char c : text) {
        if (bigEndian) {
            out.push_back('\0');
            out.push_back(c);
        } else {
            out.push_back(c);
            out.push_back('\0');
        }
    }
    return out;
}

TEST_F(ByteOrderMarkTest, UTF8ByteOrderMarkIsNotPartOfTheFirstPath)
{
    expectBothEntriesRemoved(runWithLog("\xEF\xBB\xBF/Library/Foo/first\tfile\n/Library/Foo/second\n"));
}

TEST_F(ByteOrderMarkTest, LittleEndianUTF16LogIsReadAsUTF16)
{
    expectBothEntriesRemoved(runWithLog(utf16("/Library/Foo/first\tfile\n/Library/Foo/second\n", false)));
}

TEST_F(ByteOrderMarkTest, BigEndianUTF16LogIsReadAsUTF16)
{
    expectBothEntriesRemoved(runWithLog(utf16("/Library/Foo/first\n/Library/Foo/second\n", true)));
}

}  // namespace
