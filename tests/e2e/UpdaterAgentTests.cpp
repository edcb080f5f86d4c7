// The updater's per-user launch agent, end to end: the remover's agent step
// (sweep of stale agents, the application's own agent, its report line) and
// qelutil's "agent install" and "agent remove", run in the sandbox against
// the launchctl double.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <ostream>
#include <plist/plist.h>
#include <string>
#include <vector>

#include "tests/support/OpensslDigests.h"
#include "tests/support/RemoverFixture.h"
#include "tests/support/Sandbox.h"

namespace {

using testsupport::agentPlistPath;
using testsupport::describe;
using testsupport::kCouldNotRemove;
using testsupport::kDefaultApp;
using testsupport::kDefaultFolder;
using testsupport::kNotFound;
using testsupport::kRemoved;
using testsupport::line;
using testsupport::JournalEntry;
using testsupport::RunResult;
using testsupport::Sandbox;

constexpr char kHome[] = "/root";
constexpr char kLibrary[] = "/root/Library";
constexpr char kAgents[] = "/root/Library/LaunchAgents";
constexpr char kLabelPrefix[] = "com.corvane.QEL.";
// Another installation of the suite, with an agent of its own.
constexpr char kOtherApp[] = "/Applications/Corvane Lumidoc 10 Old/Corvane Lumidoc Pro.app";
// 56 hexadecimal digits that are not the digest of any path used here: the
// sweep looks at the label's prefix only.
constexpr char kSomeHex[] = "0123456789abcdef0123456789abcdef0123456789abcdef01234567";

// ---- launch agents as the updater writes them ------------------------------

std::string xmlEscaped(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string stringEntry(const std::string& key, const std::string& value)
{
    return "\t<key>" + key + "</key>\n\t<string>" + xmlEscaped(value) + "</string>\n";
}

std::string labelEntry(const std::string& label)
{
    return stringEntry("Label", label);
}

std::string argumentsEntry(const std::vector<std::string>& arguments)
{
    std::string entry = "\t<key>ProgramArguments</key>\n\t<array>\n";
    for (const std::string& argument : arguments) {
        entry += "\t\t<string>" + xmlEscaped(argument) + "</string>\n";
    }
    return entry + "\t</array>\n";
}

std::string plistXml(const std::string& body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n<dict>\n" +
           body + "\t<key>RunAtLoad</key>\n\t<true/>\n</dict>\n</plist>\n";
}

std::string agentXml(const std::string& label, const std::vector<std::string>& arguments)
{
    return plistXml(labelEntry(label) + argumentsEntry(arguments));
}

std::string labelOf(const std::string& appPath)
{
    return kLabelPrefix + testsupport::opensslDigestOf("sha224", appPath);
}

std::string helperBundleOf(const std::string& appPath, const std::string& appName)
{
    return appPath + "/Contents/MacOS/Updater/" + appName + " Updater Helper.app";
}

// Lays down the updater helper application of the bundle at appPath, with
// its executable named in its Info.plist; returns the executable's path.
std::string installHelper(const Sandbox& sandbox, const std::string& appPath, const std::string& appName,
                          const std::string& executable)
{
    const std::string helper = helperBundleOf(appPath, appName);
    sandbox.writeFile(helper + "/Contents/Info.plist",
                      plistXml(stringEntry("CFBundleExecutable", executable) +
                               stringEntry("CFBundleIdentifier", "com.corvane.lumidoc.updater.helper")));
    std::string executablePath = helper + "/Contents/MacOS/" + executable;
    sandbox.writeFile(executablePath, "#!/bin/sh\n", 0755);
    return executablePath;
}

// The program path that the application's agent names.
std::string helperProgramOf(const std::string& appPath)
{
    return helperBundleOf(appPath, "Lumidoc") + "/Contents/MacOS/Lumidoc Updater Helper";
}

// ---- libplist on the test side: binary agents, reading agents back ---------

struct PlistFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

std::string binaryAgent(const std::string& label, const std::vector<std::string>& arguments)
{
    const PlistPtr dict(plist_new_dict());
    plist_dict_set_item(dict.get(), "Label", plist_new_string(label.c_str()));
    plist_t array = plist_new_array();
    for (const std::string& argument : arguments) {
        plist_array_append_item(array, plist_new_string(argument.c_str()));
    }
    plist_dict_set_item(dict.get(), "ProgramArguments", array);
    plist_dict_set_item(dict.get(), "RunAtLoad", plist_new_bool(1));
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict.get(), &bytes, &length);
    std::string result(bytes != nullptr ? bytes : "", bytes != nullptr ? length : 0);
    plist_to_bin_free(bytes);
    return result;
}

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

// ---- what the doubles saw ---------------------------------------------------

std::vector<JournalEntry> launchctlCalls(const Sandbox& sandbox)
{
    std::vector<JournalEntry> calls;
    for (const JournalEntry& entry : sandbox.journal()) {
        if (!entry.empty() && entry.front() == "launchctl") {
            calls.push_back(entry);
        }
    }
    return calls;
}

JournalEntry unloadOf(const std::string& plistPath)
{
    return {"launchctl", "unload", plistPath};
}

JournalEntry loadOf(const std::string& plistPath)
{
    return {"launchctl", "load", plistPath};
}

std::vector<JournalEntry> sorted(std::vector<JournalEntry> entries)
{
    std::sort(entries.begin(), entries.end());
    return entries;
}

// ---- the remover's whole report ------------------------------------------

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

RunResult runRemover(const Sandbox& sandbox)
{
    return sandbox.run({"x", kDefaultApp});
}

RunResult runQelutil(const Sandbox& sandbox, const std::vector<std::string>& arguments)
{
    return sandbox.runProgram(Sandbox::kQelutilPath, arguments);
}

// A fixture with the application installed and the user's Library folder.
void prepare(const Sandbox& sandbox)
{
    testsupport::installApp(sandbox, kDefaultApp);
    sandbox.makeDirectory(kLibrary);
}

// ---- the agents folder ------------------------------------------------------

TEST(UpdaterAgentTest, MissingAgentsFolderIsCreatedNothingIsUnloadedAndTheLineSaysRemoved)
{
    Sandbox sandbox;
    prepare(sandbox);

    const RunResult result = runRemover(sandbox);

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, agentPlistPath(kDefaultApp))));
    EXPECT_EQ(sandbox.tree(kHome), (std::vector<std::string>{"d /root/Library", "d /root/Library/LaunchAgents"}));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

TEST(UpdaterAgentTest, HomeWithoutLibraryFolderIsLeftAsItIsAndTheLineStillSaysRemoved)
{
    Sandbox sandbox;
    testsupport::installApp(sandbox, kDefaultApp);

    const RunResult result = runRemover(sandbox);

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, agentPlistPath(kDefaultApp))));
    EXPECT_EQ(sandbox.tree(kHome), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

// ---- the sweep: agents that go -------------------------------------------

TEST(UpdaterAgentTest, StaleAgentOfAnotherInstallationIsUnloadedAndDeletedWhateverItsFileName)
{
    Sandbox sandbox;
    prepare(sandbox);
    const std::string stale = std::string(kAgents) + "/Lumidoc updater (old copy).xml";
    sandbox.writeFile(stale, agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)}));
    sandbox.addLoadedAgent(stale);

    const RunResult result = runRemover(sandbox);

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

class UpdaterAgentSweptTest : public testing::TestWithParam<SweptAgentCase> {};

void PrintTo(const SweptAgentCase& agent, std::ostream* out)
{
    *out << agent.name;
}

TEST_P(UpdaterAgentSweptTest, AgentOfTheFamilyWithMissingFirstProgramIsUnloadedAndDeleted)
{
    const SweptAgentCase& agent = GetParam();
    Sandbox sandbox;
    prepare(sandbox);
    if (*agent.existingFile != '\0') {
        sandbox.writeFile(agent.existingFile, "#!/bin/sh\n", 0755);
    }
    const std::string path = std::string(kAgents) + "/com.corvane.QEL.stale.plist";
    sandbox.writeFile(path, agentXml(agent.label, agent.arguments));

    const RunResult result = runRemover(sandbox);

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

TEST(UpdaterAgentTest, StaleAgentInASubfolderIsExaminedLikeOneAtTheTop)
{
    Sandbox sandbox;
    prepare(sandbox);
    const std::string nested = std::string(kAgents) + "/Corvane/Old/agent.plist";
    sandbox.writeFile(nested, agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)}));
    sandbox.addLoadedAgent(nested);

    const RunResult result = runRemover(sandbox);

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, agentPlistPath(kDefaultApp))));
    // The file goes; the folders that held it stay.
    EXPECT_EQ(sandbox.tree(kHome), (std::vector<std::string>{"d /root/Library", "d /root/Library/LaunchAgents",
                                                             "d /root/Library/LaunchAgents/Corvane",
                                                             "d /root/Library/LaunchAgents/Corvane/Old"}));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{unloadOf(nested)});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
}

TEST(UpdaterAgentTest, StaleAgentsAreSweptFromXmlAndFromBinaryPropertyLists)
{
    Sandbox sandbox;
    prepare(sandbox);
    const std::string xml = std::string(kAgents) + "/com.corvane.QEL.xml.plist";
    const std::string binary = std::string(kAgents) + "/com.corvane.QEL.binary.plist";
    sandbox.writeFile(xml, agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)}));
    const std::string binaryBytes = binaryAgent(kLabelPrefix + std::string(kSomeHex), {"/Applications/Gone/Helper"});
    ASSERT_EQ(binaryBytes.substr(0, 8), "bplist00");
    sandbox.writeFile(binary, binaryBytes);
    sandbox.addLoadedAgent(xml);
    sandbox.addLoadedAgent(binary);

    const RunResult result = runRemover(sandbox);

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

class UpdaterAgentKeptTest : public testing::TestWithParam<KeptAgentCase> {};

void PrintTo(const KeptAgentCase& agent, std::ostream* out)
{
    *out << agent.name;
}

TEST_P(UpdaterAgentKeptTest, AgentIsLeftInPlaceAndLoaded)
{
    const KeptAgentCase& agent = GetParam();
    Sandbox sandbox;
    prepare(sandbox);
    if (*agent.existingFile != '\0') {
        sandbox.writeFile(agent.existingFile, "#!/bin/sh\n", 0755);
    }
    const std::string path = std::string(kAgents) + "/com.corvane.QEL.kept.plist";
    const std::string contents = plistXml(agent.body);
    sandbox.writeFile(path, contents);
    sandbox.addLoadedAgent(path);

    const RunResult result = runRemover(sandbox);

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, agentPlistPath(kDefaultApp))));
    ASSERT_TRUE(sandbox.exists(path));
    EXPECT_EQ(sandbox.readFile(path), contents);
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{path});
}

const std::string kFamilyLabel = std::string(kLabelPrefix) + kSomeHex;
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

TEST(UpdaterAgentTest, OwnAgentWhoseHelperExistsIsUnloadedOnceAndDeleted)
{
    Sandbox sandbox;
    prepare(sandbox);
    const std::string program = installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string own = agentPlistPath(kDefaultApp);
    sandbox.writeFile(own, agentXml(labelOf(kDefaultApp), {program}));
    sandbox.addLoadedAgent(own);

    const RunResult result = runRemover(sandbox);

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, own)));
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{unloadOf(own)});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
}

TEST(UpdaterAgentTest, OwnAgentWhoseHelperIsGoneIsUnloadedOnceInTheSweepAndDeleted)
{
    Sandbox sandbox;
    prepare(sandbox);
    const std::string own = agentPlistPath(kDefaultApp);
    sandbox.writeFile(own, agentXml(labelOf(kDefaultApp), {helperProgramOf(kDefaultApp)}));
    sandbox.addLoadedAgent(own);

    const RunResult result = runRemover(sandbox);

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, own)));
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{unloadOf(own)});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
}

TEST(UpdaterAgentTest, OwnAgentAndStaleAgentAreBothUnloadedStaleOnesFirst)
{
    Sandbox sandbox;
    prepare(sandbox);
    const std::string program = installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string own = agentPlistPath(kDefaultApp);
    const std::string stale = std::string(kAgents) + "/old.plist";
    sandbox.writeFile(own, agentXml(labelOf(kDefaultApp), {program}));
    sandbox.writeFile(stale, agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)}));

    const RunResult result = runRemover(sandbox);

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, reportWithAgentLine(line(kRemoved, own)));
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), (std::vector<JournalEntry>{unloadOf(stale), unloadOf(own)}));
}

// ---- failures ---------------------------------------------------------------

TEST(UpdaterAgentTest, MissingApplicationYieldsCouldNotRemoveAndNothingIsSwept)
{
    Sandbox sandbox;
    sandbox.makeDirectory(kLibrary);
    const std::string stale = std::string(kAgents) + "/old.plist";
    const std::string staleContents = agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)});
    sandbox.writeFile(stale, staleContents);

    const RunResult result = runRemover(sandbox);

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

class UpdaterAgentMalformedTest : public testing::TestWithParam<MalformedAgentCase> {};

void PrintTo(const MalformedAgentCase& agent, std::ostream* out)
{
    *out << agent.name;
}

TEST_P(UpdaterAgentMalformedTest, MalformedAgentAbortsTheCallAndTheOwnAgentStays)
{
    Sandbox sandbox;
    prepare(sandbox);
    const std::string program = installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string own = agentPlistPath(kDefaultApp);
    const std::string ownContents = agentXml(labelOf(kDefaultApp), {program});
    sandbox.writeFile(own, ownContents);
    sandbox.addLoadedAgent(own);
    const std::string stale = std::string(kAgents) + "/old.plist";
    const std::string staleContents = agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)});
    sandbox.writeFile(stale, staleContents);
    const std::string malformed = std::string(kAgents) + "/malformed.plist";
    sandbox.writeFile(malformed, plistXml(GetParam().body));

    const RunResult result = runRemover(sandbox);

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
                                       labelEntry(kFamilyLabel) + stringEntry("ProgramArguments", kGoneProgram)}),
    [](const testing::TestParamInfo<MalformedAgentCase>& info) { return std::string(info.param.name); });

TEST(UpdaterAgentTest, ForcedHashFailureReportsAnAbsentPathAndTheSequenceGoesOn)
{
    Sandbox sandbox;
    prepare(sandbox);
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

// ---- qelutil agent install / remove ------------------------------------------

TEST(UpdaterAgentTest, QelutilInstallWritesTheAgentAndLoadsIt)
{
    Sandbox sandbox;
    prepare(sandbox);
    // The executable's name comes from the helper's Info.plist, not from NAME.
    installHelper(sandbox, kDefaultApp, "Lumidoc", "LumidocUpdateHelper");

    const RunResult result = runQelutil(sandbox, {"agent", "install", kDefaultApp, "Lumidoc"});

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

TEST(UpdaterAgentTest, QelutilInstallWithTheAgentPresentChangesNothingAndRunsNothing)
{
    Sandbox sandbox;
    prepare(sandbox);
    const std::string program = installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string own = agentPlistPath(kDefaultApp);
    // Not what install would write: a rewrite would show.
    const std::string contents = "<!-- written by hand -->\n" + agentXml(labelOf(kDefaultApp), {program});
    sandbox.writeFile(own, contents);

    const RunResult result = runQelutil(sandbox, {"agent", "install", kDefaultApp, "Lumidoc"});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(sandbox.readFile(own), contents);
    EXPECT_EQ(sandbox.journal(), std::vector<JournalEntry>{});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
}

TEST(UpdaterAgentTest, QelutilInstallSweepsStaleAgentsBeforeWriting)
{
    Sandbox sandbox;
    prepare(sandbox);
    installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string stale = std::string(kAgents) + "/old.plist";
    sandbox.writeFile(stale, agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)}));
    sandbox.addLoadedAgent(stale);

    const RunResult result = runQelutil(sandbox, {"agent", "install", kDefaultApp, "Lumidoc"});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const std::string own = agentPlistPath(kDefaultApp);
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{"f " + own});
    EXPECT_EQ(launchctlCalls(sandbox), (std::vector<JournalEntry>{unloadOf(stale), loadOf(own)}));
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{own});
}

TEST(UpdaterAgentTest, QelutilInstallWithoutHelperExecutableExitsSeventyAndWritesNothing)
{
    Sandbox sandbox;
    prepare(sandbox);

    const RunResult result = runQelutil(sandbox, {"agent", "install", kDefaultApp, "Lumidoc"});

    EXPECT_EQ(result.exitStatus, 70) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError.rfind("NSInvalidArgumentException: ", 0), 0U) << describe(result);
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

TEST(UpdaterAgentTest, QelutilRemoveUnloadsAndDeletesTheBundlesAgent)
{
    Sandbox sandbox;
    prepare(sandbox);
    const std::string program = installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string own = agentPlistPath(kDefaultApp);
    sandbox.writeFile(own, agentXml(labelOf(kDefaultApp), {program}));
    sandbox.addLoadedAgent(own);

    const RunResult result = runQelutil(sandbox, {"agent", "remove", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{unloadOf(own)});
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
    // The application itself is not qelutil's to remove.
    EXPECT_TRUE(sandbox.exists(program));
}

TEST(UpdaterAgentTest, QelutilInstallThenRemoveLeavesAnEmptyAgentsFolder)
{
    Sandbox sandbox;
    prepare(sandbox);
    installHelper(sandbox, kDefaultApp, "Lumidoc", "Lumidoc Updater Helper");
    const std::string own = agentPlistPath(kDefaultApp);

    const RunResult installed = runQelutil(sandbox, {"agent", "install", kDefaultApp, "Lumidoc"});
    ASSERT_EQ(installed.exitStatus, 0) << describe(installed);
    ASSERT_TRUE(sandbox.exists(own));
    const RunResult removed = runQelutil(sandbox, {"agent", "remove", kDefaultApp});

    ASSERT_EQ(removed.exitStatus, 0) << describe(removed);
    EXPECT_EQ(sandbox.tree(kAgents), std::vector<std::string>{});
    EXPECT_EQ(launchctlCalls(sandbox), (std::vector<JournalEntry>{loadOf(own), unloadOf(own)}));
    EXPECT_EQ(sandbox.loadedAgents(), std::vector<std::string>{});
}

TEST(UpdaterAgentTest, QelutilWithMissingBundleSaysSoExitsOneAndSweepsNothing)
{
    Sandbox sandbox;
    sandbox.makeDirectory(kLibrary);
    const std::string missing = "/Applications/Nowhere/Corvane Lumidoc Pro.app";

    const RunResult result = runQelutil(sandbox, {"agent", "remove", missing});

    EXPECT_EQ(result.exitStatus, 1) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError, "qelutil agent: no bundle at " + missing + "\n");
    // Not even the agents folder was made.
    EXPECT_EQ(sandbox.tree(kHome), std::vector<std::string>{"d /root/Library"});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

TEST(UpdaterAgentTest, QelutilAgentWithBadCommandLineExitsSixtyFourWithUsage)
{
    Sandbox sandbox;
    prepare(sandbox);

    const std::vector<std::vector<std::string>> commandLines{
        {"agent"},
        {"agent", "refresh", kDefaultApp},
        {"agent", "install", kDefaultApp},
        {"agent", "remove", kDefaultApp, "Lumidoc"},
    };
    for (const std::vector<std::string>& commandLine : commandLines) {
        const RunResult result = runQelutil(sandbox, commandLine);
        EXPECT_EQ(result.exitStatus, 64) << describe(result);
        EXPECT_EQ(result.standardOutput, "");
        EXPECT_NE(result.standardError.find("usage: qelutil agent install BUNDLE NAME | agent remove BUNDLE"),
                  std::string::npos)
            << describe(result);
    }
    EXPECT_EQ(sandbox.tree(kHome), std::vector<std::string>{"d /root/Library"});
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

TEST(UpdaterAgentTest, QelutilRemoveWithForcedHashFailureExitsSeventyBeforeTouchingAnything)
{
    Sandbox sandbox;
    prepare(sandbox);
    const std::string stale = std::string(kAgents) + "/old.plist";
    sandbox.writeFile(stale, agentXml(labelOf(kOtherApp), {helperProgramOf(kOtherApp)}));

    const RunResult result = runQelutil(sandbox, {"agent", "remove", kDefaultApp, "-ForceError", "1844"});

    EXPECT_EQ(result.exitStatus, 70) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_NE(result.standardError.find("QELFatalException 1844\n"), std::string::npos) << describe(result);
    EXPECT_TRUE(sandbox.exists(stale));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

TEST(UpdaterAgentTest, QelutilRemoveOverAMalformedAgentExitsSeventyWithTheExceptionsName)
{
    Sandbox sandbox;
    prepare(sandbox);
    const std::string malformed = std::string(kAgents) + "/malformed.plist";
    sandbox.writeFile(malformed, plistXml(labelEntry(kFamilyLabel) + argumentsEntry({})));

    const RunResult result = runQelutil(sandbox, {"agent", "remove", kDefaultApp});

    EXPECT_EQ(result.exitStatus, 70) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError.rfind("NSRangeException: ", 0), 0U) << describe(result);
    EXPECT_TRUE(sandbox.exists(malformed));
    EXPECT_EQ(launchctlCalls(sandbox), std::vector<JournalEntry>{});
}

}  // namespace
