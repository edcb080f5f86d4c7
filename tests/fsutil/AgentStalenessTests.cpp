// The launch-agent sweep's judgement of one agent file, from its bytes.
#include <gtest/gtest.h>
#include <string>

#include "fsutil/SetupQELAgent.h"
#include "platform/Exception.h"
#include "tests/support/TempDir.h"

namespace {

using testsupport::TempDir;
using testsupport::writeFile;

std::string agent(const std::string& label, const std::string& program)
{
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>Label</key>" + label +
           "<key>ProgramArguments</key><array>" + program + "</array></dict></plist>";
}

std::string text(const std::string& value)
{
    return "<string>" + value + "</string>";
}

TEST(AgentStaleness, FamilyAgentWhoseProgramIsMissingIsStale)
{
    EXPECT_TRUE(QELAgentIsStale(agent(text("com.corvane.QEL.ab"), text("/nonexistent/helper"))));
}

TEST(AgentStaleness, FamilyAgentWhoseProgramIsThereIsNotStale)
{
    const TempDir dir;
    writeFile(dir.at("helper"), "#!/bin/sh\n");
    EXPECT_FALSE(QELAgentIsStale(agent(text("com.corvane.QEL.ab"), text(dir.at("helper")))));
}

TEST(AgentStaleness, ProgramOnAnotherVolumeIsNeverJudged)
{
    EXPECT_FALSE(QELAgentIsStale(agent(text("com.corvane.QEL.ab"), text("/Volumes/Gone/helper"))));
}

TEST(AgentStaleness, AgentOfAnotherFamilyIsNotStale)
{
    EXPECT_FALSE(QELAgentIsStale(agent(text("com.example.other"), text("/nonexistent/helper"))));
}

TEST(AgentStaleness, BytesThatAreNoDictionaryAreNotStale)
{
    EXPECT_FALSE(QELAgentIsStale(""));
    EXPECT_FALSE(QELAgentIsStale("not a property list"));
    EXPECT_FALSE(QELAgentIsStale("<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>"));
}

TEST(AgentStaleness, LabelThatIsNotTextRaisesInvalidArgument)
{
    try {
        (void)QELAgentIsStale(agent("<integer>1</integer>", text("/x")));
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
    }
}

TEST(AgentStaleness, EmptyProgramArgumentsRaiseRange)
{
    try {
        (void)QELAgentIsStale(agent(text("com.corvane.QEL.ab"), ""));
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "NSRangeException");
    }
}

}  // namespace
