// qelutil's "agent install" and "agent remove", run in the sandbox against
// the launchctl double.
#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <plist/plist.h>
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
using testsupport::describe;
using testsupport::helperProgramOf;
using testsupport::installHelper;
using testsupport::JournalEntry;
using testsupport::kAgents;
using testsupport::kDefaultApp;
using testsupport::kDefaultFolder;
using testsupport::kFamilyLabel;
using testsupport::kHome;
using testsupport::kHomeLibrary;
using testsupport::kOtherApp;
using testsupport::labelEntry;
using testsupport::labelOf;
using testsupport::launchctlCalls;
using testsupport::loadOf;
using testsupport::RunResult;
using testsupport::Sandbox;
using testsupport::unloadOf;

struct PlistFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

std::optional<std::string> stringValue(plist_t node)
{
    if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) {
        return std::nullopt;
    }
    char* value = nullptr;
    plist_get_string_val(node, &value);
    std::string result(value != nullptr ? value : "");
    std::free(value);  // libplist hands the text over, allocated with malloc
    return result;
}

using testsupport::WithInstalledApp;

class QelutilAgentTest : public WithInstalledApp<testing::Test> {
protected:
    RunResult runQelutil(const std::vector<std::string>& arguments) const
    {
        return sandbox.runProgram(Sandbox::kQelutilPath, arguments);
    }
};

// ---- qelutil agent install / remove ------------------------------------------

TEST_F(QelutilAgentTest, QelutilInstallWritesTheAgentAndLoadsIt)
{
    // The executable's name comes from the helper's Info.plist, not from NAME.
    installHelper(sandbox, kDefaultApp, "Lumidoc", "LumidocUpdateHelper");

    const RunResult result = runQelutil({"agent", "install", kDefaultApp, "Lumidoc"});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    const std::string own = agentPlistPath(kDefaultApp);
    ASSERT_TRUE(sandbox.exists(own));
    const std::string text = sandbox.readFile(own);
    ASSERT_EQ(text.substr(0, 5), "<?xml") << text;
    plist_t parsed = nullptr;
    plist_from_xml(text.data(), static_cast<uint32_t>(text.size()), &parsed);
    const PlistPtr agent(parsed);
    ASSERT_NE(agent.get(), nullptr) << text;
    ASSERT_EQ(plist_get_node_type(agent.get()), PLIST_DICT) << text;
    EXPECT_EQ(plist_dict_get_size(agent.get()), 4U) << text;

    EXPECT_EQ(stringValue(plist_dict_get_item(agent.get(), "Label")),
              std::optional<std::string>("com.corvane.QEL." + testsupport::opensslDigestOf("sha224", kDefaultApp)));

    plist_t arguments = plist_dict_get_item(agent.get(), "ProgramArguments");
    ASSERT_NE(arguments, nullptr) << text;
    ASSERT_EQ(plist_get_node_type(arguments), PLIST_ARRAY) << text;
    ASSERT_EQ(plist_array_get_size(arguments), 1U) << text;
    EXPECT_EQ(stringValue(plist_array_get_item(arguments, 0)),
              std::optional<std::string>(std::string(kDefaultApp) +
                                         "/Contents/MacOS/Updater/Lumidoc Updater Helper.app/Contents/MacOS/"
                                         "LumidocUpdateHelper"));

    plist_t runAtLoad = plist_dict_get_item(agent.get(), "RunAtLoad");
    ASSERT_NE(runAtLoad, nullptr) << text;
    ASSERT_EQ(plist_get_node_type(runAtLoad), PLIST_BOOLEAN) << text;
    uint8_t runs = 0;
    plist_get_bool_val(runAtLoad, &runs);
    EXPECT_EQ(runs, 1U);

    plist_t interval = plist_dict_get_item(agent.get(), "StartInterval");
    ASSERT_NE(interval, nullptr) << text;
    ASSERT_EQ(plist_get_node_type(interval), PLIST_UINT) << text;
    uint64_t seconds = 0;
    plist_get_uint_val(interval, &seconds);
    EXPECT_EQ(seconds, 12600U);

    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{loadOf(own)});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{own});
}

TEST_F(QelutilAgentTest, QelutilInstallWithTheAgentPresentChangesNothingAndRunsNothing)
{
    const std::string program = installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string own = agentPlistPath(kDefaultApp);
    // Not what install would write: a rewrite would show.
    const std::string contents = "<!-- written by hand -->\n" + agentXml(labelOf(kDefaultApp), {program});
    sandbox.writeFile(own, contents);

    const RunResult result = runQelutil({"agent", "install", kDefaultApp, "Lumidoc"});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(sandbox.readFile(own), contents);
    EXPECT_EQ(sandbox.journal(), std::vector<JournalEntry>{});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
}

TEST_F(QelutilAgentTest, QelutilInstallSweepsStaleAgentsBeforeWriting)
{
    installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string stale = std::string(kAgents) + "/old.plist";
    sandbox.writeFile(stale, agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)}));
    sandbox.addLoadedAgent(stale);

    const RunResult result = runQelutil({"agent", "install", kDefaultApp, "Lumidoc"});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const std::string own = agentPlistPath(kDefaultApp);
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{"f " + own});
    EXPECT_EQ(launchctlCalls(sandbox), (std::vector<JournalEntry>{unloadOf(stale), loadOf(own)}));
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{own});
}

TEST_F(QelutilAgentTest, QelutilInstallWithoutHelperExecutableExitsSeventyAndWritesNothing)
{

    const RunResult result = runQelutil({"agent", "install", kDefaultApp, "Lumidoc"});

    EXPECT_EQ(result.exitStatus, 70) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError.rfind("NSInvalidArgumentException: ", 0), 0U) << describe(result);
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

TEST_F(QelutilAgentTest, QelutilRemoveUnloadsAndDeletesTheBundlesAgent)
{
    const std::string program = installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string own = agentPlistPath(kDefaultApp);
    sandbox.writeFile(own, agentXml(labelOf(kDefaultApp), {program}));
    sandbox.addLoadedAgent(own);

    const RunResult result = runQelutil({"agent", "remove", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{unloadOf(own)});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
    // The application itself is not qelutil's to remove.
    EXPECT_TRUE(sandbox.exists(program));
}

TEST_F(QelutilAgentTest, QelutilInstallThenRemoveLeavesAnEmptyAgentsFolder)
{
    installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string own = agentPlistPath(kDefaultApp);

    const RunResult installed = runQelutil({"agent", "install", kDefaultApp, "Lumidoc"});
    ASSERT_EQ(installed.exitStatus, 0) << describe(installed);
    ASSERT_TRUE(sandbox.exists(own));
    const RunResult removed = runQelutil({"agent", "remove", kDefaultApp});

    ASSERT_EQ(removed.exitStatus, 0) << describe(removed);
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), (std::vector<JournalEntry>{loadOf(own), unloadOf(own)}));
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
}

TEST_F(QelutilAgentTest, QelutilWithMissingBundleSaysSoExitsOneAndSweepsNothing)
{
    sandbox.remove(kDefaultFolder);
    const std::string missing = "/Applications/Nowhere/Corvane Lumidoc Pro.app";

    const RunResult result = runQelutil({"agent", "remove", missing});

    EXPECT_EQ(result.exitStatus, 1) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError, "qelutil agent: no bundle at " + missing + "\n");
    // Not even the agents folder was made.
    EXPECT_EQ(sandbox.tree(kHome), std::vector<std::string>{"d /root/Library"});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

TEST_F(QelutilAgentTest, QelutilAgentWithBadCommandLineExitsSixtyFourWithUsage)
{

    const std::vector<std::vector<std::string>> commandLines{
        {"agent"},
        {"agent", "refresh", kDefaultApp},
        {"agent", "install", kDefaultApp},
        {"agent", "remove", kDefaultApp, "Lumidoc"},
    };
    for (const std::vector<std::string>& commandLine : commandLines) {
        const RunResult result = runQelutil(commandLine);
        EXPECT_EQ(result.exitStatus, 64) << describe(result);
        EXPECT_EQ(result.standardOutput, "");
        EXPECT_NE(result.standardError.find("usage: qelutil agent install BUNDLE NAME | agent remove BUNDLE"),
                  std::string::npos)
            << describe(result);
    }
    EXPECT_EQ(sandbox.tree(kHome), std::vector<std::string>{"d /root/Library"});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

TEST_F(QelutilAgentTest, QelutilRemoveWithForcedHashFailureExitsSeventyBeforeTouchingAnything)
{
    const std::string stale = std::string(kAgents) + "/old.plist";
    sandbox.writeFile(stale, agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)}));

    const RunResult result = runQelutil({"agent", "remove", kDefaultApp, "-ForceError", "1844"});

    EXPECT_EQ(result.exitStatus, 70) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_NE(result.standardError.find("QELFatalException 1844\n"), std::string::npos) << describe(result);
    EXPECT_TRUE(sandbox.exists(stale));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

TEST_F(QelutilAgentTest, QelutilRemoveOverAMalformedAgentExitsSeventyWithTheExceptionsName)
{
    const std::string malformed = std::string(kAgents) + "/malformed.plist";
    sandbox.writeFile(malformed, agentDocument(labelEntry(kFamilyLabel) + argumentsEntry({})));

    const RunResult result = runQelutil({"agent", "remove", kDefaultApp});

    EXPECT_EQ(result.exitStatus, 70) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError.rfind("NSRangeException: ", 0), 0U) << describe(result);
    EXPECT_TRUE(sandbox.exists(malformed));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

}  // namespace
