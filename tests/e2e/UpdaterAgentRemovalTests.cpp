// The updater's per-user launch agent as the remover's agent step sees it:
// the sweep of stale agents, the application's own agent and its report
// line, run in the sandbox against the launchctl double.
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/OpensslDigests.h"
#include "tests/support/PlistXml.h"
#include "tests/support/RemoverFixture.h"
#include "tests/support/Sandbox.h"
#include "tests/support/UpdaterAgents.h"

namespace {

using testsupport::agentDocument;
using testsupport::agentPlistPath;
using testsupport::agentXml;
using testsupport::argumentsEntry;
using testsupport::binaryAgent;
using testsupport::describe;
using testsupport::helperProgramOf;
using testsupport::installHelper;
using testsupport::JournalEntry;
using testsupport::kAgents;
using testsupport::kCouldNotRemove;
using testsupport::kDefaultApp;
using testsupport::kDefaultFolder;
using testsupport::kFamilyLabel;
using testsupport::kHome;
using testsupport::kHomeLibrary;
using testsupport::kLabelPrefix;
using testsupport::kNotFound;
using testsupport::kOtherApp;
using testsupport::kRemoved;
using testsupport::kSomeHex;
using testsupport::labelEntry;
using testsupport::labelOf;
using testsupport::launchctlCalls;
using testsupport::line;
using testsupport::plistStringEntry;
using testsupport::RunResult;
using testsupport::Sandbox;
using testsupport::sorted;
using testsupport::unloadOf;

using testsupport::WithInstalledApp;

class UpdaterAgentTest : public WithInstalledApp<testing::Test> {
protected:
    RunResult runRemover() const { return sandbox.run({"x", kDefaultApp}); }
};

// The lines after the agent step of a run whose fixture holds the
// application at the default path and nothing else of the suite: the
// reference file is not there to be removed and the bundle has no
// install-manager library; the bundle's own list removes the application;
// neither print component is there; the folder, empty by then, goes.
std::string linesAfterAgentStep()
{
    const testsupport::QuietRunTail tail = testsupport::quietRunTail(kDefaultApp);
    return tail.manager + tail.fileList + tail.components + tail.folder;
}

std::string reportWithAgentLine(const std::string& agentLine)
{
    return agentLine + linesAfterAgentStep();
}

// ---- the agents folder ------------------------------------------------------

TEST_F(UpdaterAgentTest, MissingAgentsFolderIsCreatedNothingIsUnloadedAndTheLineSaysRemoved)
{

    const RunResult result = runRemover();

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, agentPlistPath(kDefaultApp))));
    EXPECT_EQ(sandbox.tree(kHome), (std::vector<std::string>{"d /root/Library", "d /root/Library/LaunchAgents"}));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

TEST_F(UpdaterAgentTest, HomeWithoutLibraryFolderIsLeftAsItIsAndTheLineStillSaysRemoved)
{
    sandbox.remove(kHomeLibrary);

    const RunResult result = runRemover();

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, agentPlistPath(kDefaultApp))));
    EXPECT_EQ(sandbox.tree(kHome), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

// ---- the sweep: agents that go -------------------------------------------

TEST_F(UpdaterAgentTest, StaleAgentOfAnotherInstallationIsUnloadedAndDeletedWhateverItsFileName)
{
    const std::string stale = std::string(kAgents) + "/Lumidoc updater (old copy).xml";
    sandbox.writeFile(stale, agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)}));
    sandbox.addLoadedAgent(stale);

    const RunResult result = runRemover();

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, agentPlistPath(kDefaultApp))));
    EXPECT_EQ(sandbox.tree(kHome), (std::vector<std::string>{"d /root/Library", "d /root/Library/LaunchAgents"}));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{unloadOf(stale)});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
}

// Agents that the sweep takes although they look unusual: what counts is
// the label's prefix and the first program argument, nothing else.
struct SweptAgentCase {
    const char* name;
    const char* label;
    std::vector<std::string> arguments;
    // A file laid down before the run (empty: none).
    const char* existingFile;
};

class UpdaterAgentSweptTest : public WithInstalledApp<testing::TestWithParam<SweptAgentCase>> {
protected:
    RunResult runRemover() const { return sandbox.run({"x", kDefaultApp}); }
};

void PrintTo(const SweptAgentCase& agent, std::ostream* out)
{
    *out << agent.name;
}

TEST_P(UpdaterAgentSweptTest, AgentOfTheFamilyWithMissingFirstProgramIsUnloadedAndDeleted)
{
    const SweptAgentCase& agent = GetParam();
    if (*agent.existingFile != '\0') {
        sandbox.writeFile(agent.existingFile, "#!/bin/sh\n", 0755);
    }
    const std::string path = std::string(kAgents) + "/com.corvane.QEL.stale.plist";
    sandbox.writeFile(path, agentXml(agent.label, agent.arguments));

    const RunResult result = runRemover();

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, agentPlistPath(kDefaultApp))));
    EXPECT_FALSE(sandbox.exists(path));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{unloadOf(path)});
}

INSTANTIATE_TEST_SUITE_P(
    UpdaterAgentTest, UpdaterAgentSweptTest,
    testing::Values(
        // The hash after the prefix is never examined.
        SweptAgentCase{"LabelIsThePrefixAlone", "com.corvane.QEL.", {"/Applications/Gone/Helper"}, ""},
        // Only the first argument names the program.
        SweptAgentCase{"OnlyTheFirstArgumentCounts",
                       "com.corvane.QEL.0123456789abcdef0123456789abcdef0123456789abcdef01234567",
                       {"/Applications/Gone/Helper", "/Applications/Present/Helper"},
                       "/Applications/Present/Helper"},
        // "/Volumes/" with its slash is what protects a program.
        SweptAgentCase{"ProgramUnderVolumesWithoutSlash",
                       "com.corvane.QEL.0123456789abcdef0123456789abcdef0123456789abcdef01234567",
                       {"/VolumesArchive/Corvane Lumidoc Pro.app/Helper"},
                       ""}),
    [](const testing::TestParamInfo<SweptAgentCase>& info) { return std::string(info.param.name); });

TEST_F(UpdaterAgentTest, StaleAgentInASubfolderIsExaminedLikeOneAtTheTop)
{
    const std::string nested = std::string(kAgents) + "/Corvane/Old/agent.plist";
    sandbox.writeFile(nested, agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)}));
    sandbox.addLoadedAgent(nested);

    const RunResult result = runRemover();

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, agentPlistPath(kDefaultApp))));
    // The file goes; the folders that held it stay.
    EXPECT_EQ(sandbox.tree(kHome), (std::vector<std::string>{"d /root/Library", "d /root/Library/LaunchAgents",
                                                             "d /root/Library/LaunchAgents/Corvane",
                                                             "d /root/Library/LaunchAgents/Corvane/Old"}));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{unloadOf(nested)});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
}

TEST_F(UpdaterAgentTest, StaleAgentsAreSweptFromXmlAndFromBinaryPropertyLists)
{
    const std::string xml = std::string(kAgents) + "/com.corvane.QEL.xml.plist";
    const std::string binary = std::string(kAgents) + "/com.corvane.QEL.binary.plist";
    sandbox.writeFile(xml, agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)}));
    const std::string binaryBytes = binaryAgent(kLabelPrefix + std::string(kSomeHex), {"/Applications/Gone/Helper"});
    ASSERT_EQ(binaryBytes.substr(0, 8), "bplist00");
    sandbox.writeFile(binary, binaryBytes);
    sandbox.addLoadedAgent(xml);
    sandbox.addLoadedAgent(binary);

    const RunResult result = runRemover();

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, agentPlistPath(kDefaultApp))));
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    // The order is the enumerator's, which the sweep does not fix.
    EXPECT_EQ(sorted(launchctlCalls(sandbox)), sorted({unloadOf(xml), unloadOf(binary)}));
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
}

// ---- the sweep: agents that stay --------------------------------------------

struct KeptAgentCase {
    const char* name;
    // The dictionary's entries other than RunAtLoad.
    std::string body;
    // A file laid down before the run (empty: none).
    const char* existingFile;
};

class UpdaterAgentKeptTest : public WithInstalledApp<testing::TestWithParam<KeptAgentCase>> {
protected:
    RunResult runRemover() const { return sandbox.run({"x", kDefaultApp}); }
};

void PrintTo(const KeptAgentCase& agent, std::ostream* out)
{
    *out << agent.name;
}

TEST_P(UpdaterAgentKeptTest, AgentIsLeftInPlaceAndLoaded)
{
    const KeptAgentCase& agent = GetParam();
    if (*agent.existingFile != '\0') {
        sandbox.writeFile(agent.existingFile, "#!/bin/sh\n", 0755);
    }
    const std::string path = std::string(kAgents) + "/com.corvane.QEL.kept.plist";
    const std::string contents = agentDocument(agent.body);
    sandbox.writeFile(path, contents);
    sandbox.addLoadedAgent(path);

    const RunResult result = runRemover();

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, agentPlistPath(kDefaultApp))));
    ASSERT_TRUE(sandbox.exists(path));
    EXPECT_EQ(sandbox.readFile(path), contents);
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{path});
}

const std::string kGoneProgram = "/Applications/Gone/Corvane Lumidoc Pro.app/Contents/MacOS/Updater/Helper";

INSTANTIATE_TEST_SUITE_P(
    UpdaterAgentTest, UpdaterAgentKeptTest,
    testing::Values(
        KeptAgentCase{"ProgramUnderVolumes",
                      labelEntry(kFamilyLabel) +
                          argumentsEntry({"/Volumes/Lumidoc Disk/Corvane Lumidoc Pro.app/Contents/MacOS/Helper"}),
                      ""},
        KeptAgentCase{"ProgramFileExists", labelEntry(kFamilyLabel) + argumentsEntry({"/Applications/Present/Helper"}),
                      "/Applications/Present/Helper"},
        KeptAgentCase{"WithoutLabel", argumentsEntry({kGoneProgram}), ""},
        KeptAgentCase{"LabelOfAnotherMaker", labelEntry("com.example.updater") + argumentsEntry({kGoneProgram}), ""},
        KeptAgentCase{"LabelPrefixInOtherCase",
                      labelEntry(std::string("com.corvane.qel.") + kSomeHex) + argumentsEntry({kGoneProgram}), ""},
        KeptAgentCase{"LabelPrefixWithoutItsDot",
                      labelEntry(std::string("com.corvane.QEL") + kSomeHex) + argumentsEntry({kGoneProgram}), ""},
        KeptAgentCase{"WithoutProgramArguments", labelEntry(kFamilyLabel), ""},
        // The label is tested first, so a foreign agent's arguments are
        // never looked at, even when they are malformed.
        KeptAgentCase{"LabelOfAnotherMakerWithEmptyProgramArguments",
                      labelEntry("com.example.updater") + argumentsEntry({}), ""}),
    [](const testing::TestParamInfo<KeptAgentCase>& info) { return std::string(info.param.name); });

// ---- the application's own agent --------------------------------------------

TEST_F(UpdaterAgentTest, OwnAgentWhoseHelperExistsIsUnloadedOnceAndDeleted)
{
    const std::string program = installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string own = agentPlistPath(kDefaultApp);
    sandbox.writeFile(own, agentXml(labelOf(kDefaultApp), {program}));
    sandbox.addLoadedAgent(own);

    const RunResult result = runRemover();

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, own)));
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{unloadOf(own)});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
}

TEST_F(UpdaterAgentTest, OwnAgentWhoseHelperIsGoneIsUnloadedOnceInTheSweepAndDeleted)
{
    const std::string own = agentPlistPath(kDefaultApp);
    sandbox.writeFile(own, agentXml(labelOf(kDefaultApp), {helperProgramOf(kDefaultApp)}));
    sandbox.addLoadedAgent(own);

    const RunResult result = runRemover();

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, own)));
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{unloadOf(own)});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
}

TEST_F(UpdaterAgentTest, OwnAgentAndStaleAgentAreBothUnloadedStaleOnesFirst)
{
    const std::string program = installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string own = agentPlistPath(kDefaultApp);
    const std::string stale = std::string(kAgents) + "/old.plist";
    sandbox.writeFile(own, agentXml(labelOf(kDefaultApp), {program}));
    sandbox.writeFile(stale, agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)}));

    const RunResult result = runRemover();

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, own)));
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), (std::vector<JournalEntry>{unloadOf(stale), unloadOf(own)}));
}

// ---- failures ---------------------------------------------------------------

TEST_F(UpdaterAgentTest, MissingApplicationYieldsCouldNotRemoveAndNothingIsSwept)
{
    sandbox.remove(kDefaultFolder);
    const std::string stale = std::string(kAgents) + "/old.plist";
    const std::string staleContents = agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)});
    sandbox.writeFile(stale, staleContents);

    const RunResult result = runRemover();

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // Neither the application nor its folder is there for the later steps.
    const testsupport::QuietRunTail tail = testsupport::quietRunTail(kDefaultApp);
    EXPECT_EQ(result.standardOutput, line(kCouldNotRemove, agentPlistPath(kDefaultApp)) + tail.manager +
                                         line(kNotFound, kDefaultApp) + tail.components +
                                         line(kNotFound, kDefaultFolder));
    EXPECT_EQ(sandbox.readFile(stale), staleContents);
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

// Agents the sweep cannot read as the family's agents are made: the whole
// call is abandoned, stale agents found so far and the own agent included.
struct MalformedAgentCase {
    const char* name;
    std::string body;
};

class UpdaterAgentMalformedTest : public WithInstalledApp<testing::TestWithParam<MalformedAgentCase>> {
protected:
    RunResult runRemover() const { return sandbox.run({"x", kDefaultApp}); }
};

void PrintTo(const MalformedAgentCase& agent, std::ostream* out)
{
    *out << agent.name;
}

TEST_P(UpdaterAgentMalformedTest, MalformedAgentAbortsTheCallAndTheOwnAgentStays)
{
    const std::string program = installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string own = agentPlistPath(kDefaultApp);
    const std::string ownContents = agentXml(labelOf(kDefaultApp), {program});
    sandbox.writeFile(own, ownContents);
    sandbox.addLoadedAgent(own);
    const std::string stale = std::string(kAgents) + "/old.plist";
    const std::string staleContents = agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)});
    sandbox.writeFile(stale, staleContents);
    const std::string malformed = std::string(kAgents) + "/malformed.plist";
    sandbox.writeFile(malformed, agentDocument(GetParam().body));

    const RunResult result = runRemover();

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kCouldNotRemove, own)));
    EXPECT_EQ(sandbox.readFile(own), ownContents);
    EXPECT_EQ(sandbox.readFile(stale), staleContents);
    EXPECT_TRUE(sandbox.exists(malformed));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{own});
}

INSTANTIATE_TEST_SUITE_P(
    UpdaterAgentTest, UpdaterAgentMalformedTest,
    testing::Values(MalformedAgentCase{"EmptyProgramArguments", labelEntry(kFamilyLabel) + argumentsEntry({})},
                    MalformedAgentCase{"LabelNotText",
                                       "\t<key>Label</key>\n\t<integer>7</integer>\n" + argumentsEntry({kGoneProgram})},
                    MalformedAgentCase{"FirstProgramArgumentNotText",
                                       labelEntry(kFamilyLabel) +
                                           "\t<key>ProgramArguments</key>\n\t<array>\n\t\t<integer>7</integer>\n"
                                           "\t</array>\n"},
                    MalformedAgentCase{"ProgramArgumentsNotAnArray",
                                       labelEntry(kFamilyLabel) + plistStringEntry("ProgramArguments", kGoneProgram)}),
    [](const testing::TestParamInfo<MalformedAgentCase>& info) { return std::string(info.param.name); });

TEST_F(UpdaterAgentTest, ForcedHashFailureReportsAnAbsentPathAndTheSequenceGoesOn)
{
    const std::string own = agentPlistPath(kDefaultApp);
    const std::string ownContents = agentXml(labelOf(kDefaultApp), {helperProgramOf(kDefaultApp)});
    sandbox.writeFile(own, ownContents);
    sandbox.addLoadedAgent(own);

    const RunResult result = sandbox.run({"x", kDefaultApp, "-ForceError", "1844"});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(std::string(kCouldNotRemove) + " (null).\n"));
    EXPECT_NE(result.standardError.find("Error 1844 forced for testing"), std::string::npos) << describe(result);
    EXPECT_NE(result.standardError.find("Lumidoc Remover Updater encountered errorCode 1844"), std::string::npos)
        << describe(result);
    // The agent, stale as it is, was not touched: the hash failed first.
    EXPECT_EQ(sandbox.readFile(own), ownContents);
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{own});
}

}  // namespace
