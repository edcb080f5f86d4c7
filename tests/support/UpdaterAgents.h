// Launch agents as the updater writes them, and what the launchctl double saw
// of them: shared by the end-to-end tests of the remover's agent step and of
// qelutil's agent commands.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/RemoverFixture.h"
#include "tests/support/Sandbox.h"

namespace testsupport {

inline constexpr char kHome[] = "/root";
inline constexpr char kHomeLibrary[] = "/root/Library";
inline constexpr char kAgents[] = "/root/Library/LaunchAgents";
inline constexpr char kLabelPrefix[] = "com.corvane.QEL.";
// Another installation of the suite, with an agent of its own.
inline constexpr char kOtherApp[] = "/Applications/Corvane Lumidoc 10 Old/Corvane Lumidoc Pro.app";
// 56 hexadecimal digits that are not the digest of any path used here: the
// sweep looks at the label's prefix only.
inline constexpr char kSomeHex[] = "0123456789abcdef0123456789abcdef0123456789abcdef01234567";
// A label of the family the sweep looks at.
inline const std::string kFamilyLabel = std::string(kLabelPrefix) + kSomeHex;

// Dictionary entries of an agent: its label, its program arguments.
std::string labelEntry(const std::string& label);
std::string argumentsEntry(const std::vector<std::string>& arguments);
// An XML agent with the entries and RunAtLoad set.
std::string agentDocument(const std::string& entries);
std::string agentXml(const std::string& label, const std::vector<std::string>& arguments);
// The same agent as a binary property list, written with libplist.
std::string binaryAgent(const std::string& label, const std::vector<std::string>& arguments);
// "com.corvane.QEL." and the SHA-224 of appPath (from openssl).
std::string labelOf(const std::string& appPath);

// Lays down the updater helper application of the bundle at appPath, with
// its executable named in its Info.plist; returns the executable's path.
std::string installHelper(const Sandbox& sandbox, const std::string& appPath, const std::string& appName,
                          const std::string& executable);
// The program path that the application's agent names.
std::string helperProgramOf(const std::string& appPath);

// The launchctl calls the doubles journaled, in order.
std::vector<JournalEntry> launchctlCalls(const Sandbox& sandbox);
JournalEntry unloadOf(const std::string& plistPath);
JournalEntry loadOf(const std::string& plistPath);
std::vector<JournalEntry> sorted(std::vector<JournalEntry> entries);

// A fixture with the application installed at its default place and the
// user's Library folder.
template <class Base>
class WithInstalledApp : public Base {
protected:
    void SetUp() override
    {
        installApp(sandbox, kDefaultApp);
        sandbox.makeDirectory(kHomeLibrary);
    }

    Sandbox sandbox;
};

}  // namespace testsupport
