// RemoverPreview end to end, in both fixture layouts: what it shows of a run
// of the remover, that the fixture, the receipts and the loaded agents stay
// as they were while no real tool runs, and that a real run over an identical
// fixture then removes exactly what it showed.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sys/stat.h>
#include <map>
#include <set>
#include <string>
#include <sys/syscall.h>
#include <vector>

#include "tests/support/Lines.h"
#include "tests/support/RemoverFixture.h"
#include "tests/support/Seccomp.h"
#include "tests/support/TempDir.h"

namespace {

using namespace testsupport;

constexpr char kTitle[] =
    "Preview of RemoverTool x '/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app' (nothing was changed)\n";
constexpr char kWouldPrint[] = "RemoverTool would print:";
constexpr char kWouldRemove[] = "Would remove:";
constexpr char kWouldCreateOrChange[] = "Would create or change:";
constexpr char kWouldRun[] = "Would run, in this order:";
constexpr char kNotPreviewed[] =
    "Not previewed (read-only during the preview, so what the remover would do there may differ):";
// The sandbox's own kernel interfaces: its /proc and the terminals of its
// /dev, mounted writable by the sandbox, are read-only inside the preview.
constexpr char kSandboxKernelInterfaces[] = "  /proc (proc, a kernel interface)\n"
                                            "  /dev/pts (devpts, a kernel interface)\n";

std::string indented(const std::string& lines)
{
    std::string out;
    for (const std::string& line : linesOf(lines)) {
        out += "  " + line + "\n";
    }
    return out;
}

// The items of each section of a preview, by heading, two blanks taken off.
std::map<std::string, std::vector<std::string>> sectionsOf(const std::string& output)
{
    std::map<std::string, std::vector<std::string>> sections;
    std::string heading;
    for (const std::string& line : linesOf(output)) {
        if (line.rfind("  ", 0) == 0) {
            sections[heading].push_back(line.substr(2));
        } else if (!line.empty() && line.back() == ':') {
            heading = line;
            sections[heading];
        }
    }
    return sections;
}

// What a preview names for the items a run removed, from the fixture's tree
// before and after it: each item gone whose folder stayed, a folder with the
// number of items that were below it. Sorted.
std::vector<std::string> removedItems(const std::vector<std::string>& before, const std::vector<std::string>& after)
{
    const std::set<std::string> stayed(after.begin(), after.end());
    std::map<std::string, char> gone;  // path -> type mark
    for (const std::string& line : before) {
        if (stayed.count(line) == 0) {
            const std::string path =
                line.substr(2, line.find(" -> ") == std::string::npos ? std::string::npos : line.find(" -> ") - 2);
            gone[path] = line[0];
        }
    }
    std::vector<std::string> items;
    for (const auto& [path, type] : gone) {
        if (gone.count(path.substr(0, path.rfind('/'))) != 0) {
            continue;
        }
        std::string item = path;
        if (type == 'd') {
            const std::string prefix = path + "/";
            const auto inside = std::count_if(
                gone.begin(), gone.end(), [&prefix](const auto& other) { return other.first.rfind(prefix, 0) == 0; });
            item += inside == 0   ? " (empty folder)"
                    : inside == 1 ? " (folder, 1 item inside)"
                                  : " (folder, " + std::to_string(inside) + " items inside)";
        } else if (type == 'l') {
            item += " (link)";
        } else if (type != 'f') {
            item += " (special file)";
        }
        items.push_back(item);
    }
    return items;
}

// Everything of the fixture folder as it lies on this machine, one line per
// item: path, type, mode, owner, size, modification time and, for a file, its
// contents; so a preview that changed anything at all, in any folder the
// sandbox binds (the tools' doubles and their state too), shows.
std::vector<std::string> manifestOf(const Sandbox& sandbox)
{
    namespace fs = std::filesystem;
    std::vector<std::string> lines;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(sandbox.root())) {
        struct stat status {};
        if (::lstat(entry.path().c_str(), &status) != 0) {
            lines.push_back(entry.path().string() + " unreadable");
            continue;
        }
        std::string line = entry.path().string() + " " + std::to_string(status.st_mode) + " " +
                           std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid) + " " +
                           std::to_string(status.st_size) + " " + std::to_string(status.st_mtim.tv_sec) + "." +
                           std::to_string(status.st_mtim.tv_nsec);
        if (S_ISREG(status.st_mode)) {
            std::ifstream in(entry.path(), std::ios::binary);
            const std::string contents{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
            line += " contents " + std::to_string(std::hash<std::string>{}(contents));
        } else if (S_ISLNK(status.st_mode)) {
            line += " -> " + fs::read_symlink(entry.path()).string();
        }
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// The calls a preview names for what the doubles journaled in a real run.
std::vector<std::string> callsOf(const std::vector<JournalEntry>& journal)
{
    std::vector<std::string> calls;
    for (const JournalEntry& entry : journal) {
        if (entry.at(0) == "pkgutil" || entry.at(0) == "launchctl") {
            std::string call = entry[0] == "pkgutil" ? "/usr/sbin/pkgutil" : "/bin/launchctl";
            for (std::size_t i = 1; i < entry.size(); ++i) {
                const bool plain = entry[i].find_first_of(" *'") == std::string::npos;
                call += " " + (plain ? entry[i] : "'" + entry[i] + "'");
            }
            calls.push_back(call);
        } else if (entry == JournalEntry{"CorvaneHOV", "hov_uninstallCorvaneApplicationManager"}) {
            calls.push_back(std::string("call hov_uninstallCorvaneApplicationManager in the install-manager library ") +
                            kLibraryInBundle);
        }
    }
    return calls;
}

// The items of the section "RemoverTool would print:" and the line after
// them that tells how the run would end ("" when it would end normally).
struct PrintedAndEnd {
    std::vector<std::string> printed;
    std::string end;
};

PrintedAndEnd printedAndEndOf(const std::string& preview)
{
    PrintedAndEnd shown;
    shown.printed = sectionsOf(preview).at(kWouldPrint);
    for (const std::string& line : linesOf(preview)) {
        if (line.rfind("RemoverTool would end ", 0) == 0 || line.rfind("RemoverTool would exit ", 0) == 0 ||
            line.rfind("RemoverTool did not finish ", 0) == 0) {
            shown.end = line;
        }
    }
    return shown;
}

// The same for a real run, as a preview names it: its lines but for the
// package tool double's own (the preview's stand-in prints none), each
// escaped as the preview escapes, and its end told from its exit status.
PrintedAndEnd printedAndEndOf(const RunResult& real)
{
    PrintedAndEnd done;
    for (const std::string& line : linesOf(real.standardOutput)) {
        if (line.rfind("Forgot package '", 0) == 0) {
            continue;
        }
        std::string escapedLine;
        for (const char c : line) {
            const auto byte = static_cast<unsigned char>(c);
            if (c == '\\') {
                escapedLine += "\\\\";
            } else if (c == '\r') {
                escapedLine += "\\r";
            } else if (c == '\t') {
                escapedLine += "\\t";
            } else if (byte < 0x20 || byte == 0x7F) {
                const char* digits = "0123456789ABCDEF";
                escapedLine += std::string("\\x") + digits[byte / 16] + digits[byte % 16];
            } else {
                escapedLine.push_back(c);
            }
        }
        done.printed.push_back(escapedLine);
    }
    if (done.printed.empty()) {
        done.printed.emplace_back("nothing");
    }
    if (real.exitStatus > 128) {
        done.end = "RemoverTool would end abnormally (signal " + std::to_string(real.exitStatus - 128) + ").";
    } else if (real.exitStatus != 0) {
        done.end = "RemoverTool would exit with status " + std::to_string(real.exitStatus) + ".";
    }
    return done;
}

// The remover's lines of a complete installation, without the package tool's
// own lines (the preview's stand-in prints none).
std::string completeRunLines()
{
    const std::string agent = agentPlistPath(kDefaultApp);
    return line(kRemoved, "/Library/Fonts/LumidocSans.otf") +
           line(kRemoved, "/Library/Application Support/Corvane/Lumidoc/Shared") + line(kRemoved, kPlugin) +
           line(kRemoved, kPluginPreferences) + line(kRemoved, kProductLog) + line(kRemoved, kCompanionApp) +
           line(kRemoved, "/Library/Application Support/Corvane/Ravelin") + line(kRemoved, kCompanionLog) +
           line(kRemoved, agent) + line(kRemoved, kJexRef) + kManagerUninstalled + "\n" + line(kRemoved, kDefaultApp) +
           line(kRemoved, kAutomatorAction) + line(kRemoved, kPdfServicesApp) + line(kRemoved, kDefaultFolder);
}

class Preview : public ::testing::TestWithParam<Layout> {
protected:
    RunResult preview(const Sandbox& sandbox, const std::vector<std::string>& arguments,
                      const RunOptions& options = {}) const
    {
        return sandbox.runWith(Sandbox::kPreviewPath, arguments, options);
    }

    // Previews the run on one fixture, then runs the remover for real on an
    // identical one, and checks that the preview named exactly what went, its
    // output and its calls.
    template <typename LayDown>
    void expectPreviewMatchesARealRun(LayDown layDown, const std::vector<std::string>& arguments,
                                      const RunOptions& options = {})
    {
        Sandbox previewed(GetParam());
        layDown(previewed);
        const std::vector<std::string> before = previewed.tree();
        const RunResult shown = preview(previewed, arguments, options);
        ASSERT_EQ(shown.exitStatus, 0) << describe(shown);
        EXPECT_EQ(previewed.tree(), before);
        EXPECT_TRUE(previewed.journal().empty());

        Sandbox real(GetParam());
        layDown(real);
        ASSERT_EQ(real.tree(), before);
        const RunResult done = real.runWith(Sandbox::kRemoverPath, arguments, options);
        ASSERT_FALSE(done.signaled) << describe(done);

        const auto sections = sectionsOf(shown.standardOutput);
        const std::vector<std::string> after = real.tree();
        EXPECT_EQ(sections.at(kWouldRemove), removedItems(before, after)) << shown.standardOutput;
        // What the run made: the items new afterwards, named the same way.
        std::vector<std::string> created;
        for (const std::string& item : removedItems(after, before)) {
            created.push_back("created " + item);
        }
        std::vector<std::string> shownCreated;
        for (const std::string& item : sections.at(kWouldCreateOrChange)) {
            if (item.rfind("created ", 0) == 0) {
                shownCreated.push_back(item);
            }
        }
        EXPECT_EQ(shownCreated, created) << shown.standardOutput;
        // The real run's lines but for the package tool double's own.
        std::vector<std::string> realLines;
        for (const std::string& line : linesOf(done.standardOutput)) {
            if (line.rfind("Forgot package '", 0) != 0) {
                realLines.push_back(line);
            }
        }
        EXPECT_EQ(sections.at(kWouldPrint), realLines.empty() ? std::vector<std::string>{"nothing"} : realLines);
        const std::vector<std::string> noCalls = {"nothing"};
        const std::vector<std::string> calls = callsOf(real.journal());
        EXPECT_EQ(sections.at(kWouldRun), calls.empty() ? noCalls : calls);
    }
};

TEST_P(Preview, ShowsWhatTheRemoverWouldPrintRemoveAndRunForACompleteInstallation)
{
    Sandbox sandbox(GetParam());
    layDownCompleteInstallation(sandbox);

    const RunResult result = preview(sandbox, {"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    std::string calls = "  /bin/launchctl unload " + agentPlistPath(kDefaultApp) + "\n" +
                        "  call hov_uninstallCorvaneApplicationManager in the install-manager library " +
                        kLibraryInBundle + "\n" +
                        "  /usr/sbin/pkgutil --regexp --forget 'com.corvane.lumidoc.10.viewer.app.pkg*' --volume /\n";
    for (std::size_t i = 1; i < kSuiteReceipts.size(); ++i) {
        calls += "  /usr/sbin/pkgutil --regexp --forget '" + kSuiteReceipts[i] + "*'\n";
    }
    EXPECT_EQ(result.standardOutput,
              std::string(kTitle) + "\n" + kWouldPrint + "\n" + indented(completeRunLines()) + "\n" + kWouldRemove +
                  "\n"
                  // Everything in the application folder: the application
                  // (10 items with its updater helper), the folder icon and
                  // the companion application (5 items).
                  "  /Applications/Corvane Lumidoc X Pro (folder, 16 items inside)\n"
                  "  " +
                  kJexRef +
                  "\n"
                  "  /Library/Application Support/Corvane/Lumidoc/Shared (folder, 1 item inside)\n"
                  "  " +
                  kProductLog +
                  "\n"
                  "  " +
                  kCompanionLog +
                  "\n"
                  "  /Library/Application Support/Corvane/Ravelin (folder, 1 item inside)\n"
                  "  " +
                  kAutomatorAction +
                  " (folder, 2 items inside)\n"
                  "  /Library/Fonts/LumidocSans.otf\n"
                  "  " +
                  kPlugin +
                  " (folder, 2 items inside)\n"
                  "  " +
                  kPdfServicesApp +
                  " (folder, 2 items inside)\n"
                  "  " +
                  kPluginPreferences +
                  "\n"
                  "  " +
                  agentPlistPath(kDefaultApp) +
                  "\n"
                  "\n" +
                  kWouldCreateOrChange +
                  "\n  nothing\n"
                  "\n" +
                  kWouldRun + "\n" + calls + "\n" + kNotPreviewed + "\n" + kSandboxKernelInterfaces);
}

TEST_P(Preview, LeavesEveryFileReceiptAndLoadedAgentAsTheyWereAndRunsNoRealTool)
{
    Sandbox sandbox(GetParam());
    layDownCompleteInstallation(sandbox);
    // A first run in the sandbox lets it make the mount points it needs.
    ASSERT_EQ(sandbox.runProgram("/usr/bin/true", {}).exitStatus, 0);
    const std::vector<std::string> manifest = manifestOf(sandbox);
    const std::vector<std::string> receipts = sandbox.receipts();
    const std::vector<std::string> agents = sandbox.loadedAgents();

    const RunResult result = preview(sandbox, {"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(manifestOf(sandbox), manifest);
    EXPECT_EQ(sandbox.receipts(), receipts);
    EXPECT_EQ(sandbox.receipts().size(), kSuiteReceipts.size() + 1);
    EXPECT_EQ(sandbox.loadedAgents(), agents);
    EXPECT_EQ(sandbox.loadedAgents().size(), 1U);
    // Neither the tool doubles nor the library double were called.
    EXPECT_EQ(sandbox.journal(), std::vector<JournalEntry>{});
}

TEST_P(Preview, NamesExactlyWhatARealRunOverAnIdenticalFixtureRemoves)
{
    expectPreviewMatchesARealRun([](Sandbox& sandbox) { layDownCompleteInstallation(sandbox); }, {"x", kDefaultApp});
}

TEST_P(Preview, AProtectedFolderNamedAfterItsContentsWentIsStillRefused)
{
    // Removing the font changes /Library/Fonts; the folder must keep the
    // identity the remover's guard knows it by, or the preview would show it
    // gone while a real run keeps it.
    const auto layDown = [](Sandbox& sandbox) {
        installApp(sandbox, kDefaultApp);
        sandbox.writeFile("/Library/Fonts/LumidocSans.otf", "font");
        sandbox.writeFile(kProductLog, "/Library/Fonts/LumidocSans.otf\n/Library/Fonts\n/Library\n");
    };
    expectPreviewMatchesARealRun(layDown, {"x", kDefaultApp});

    Sandbox sandbox(GetParam());
    layDown(sandbox);
    const RunResult result = preview(sandbox, {"x", kDefaultApp});
    const auto printed = sectionsOf(result.standardOutput).at(kWouldPrint);
    EXPECT_EQ(std::vector<std::string>(printed.begin(), printed.begin() + 4),
              (std::vector<std::string>{"Removed /Library/Fonts/LumidocSans.otf.", "Could not remove /Library/Fonts.",
                                        "Could not remove /Library.", "Removed " + std::string(kProductLog) + "."}));
    EXPECT_TRUE(sandbox.exists("/Library/Fonts/LumidocSans.otf"));
}

TEST_P(Preview, ASameDiskBindMountInsideARemovedFolderKeepsItsFiles)
{
    const auto layDown = [](Sandbox& sandbox) {
        installApp(sandbox, kDefaultApp);
        sandbox.writeFile("/Library/Shared Data/keep.dat", "someone else's");
        sandbox.writeFile("/Library/Corvane Extras/extra.dat", "ours");
        sandbox.bindFolder("/Library/Shared Data", "/Library/Corvane Extras/mnt");
        sandbox.writeFile(kProductLog, "/Library/Corvane Extras\n");
    };
    expectPreviewMatchesARealRun(layDown, {"x", kDefaultApp});

    Sandbox sandbox(GetParam());
    layDown(sandbox);
    const RunResult result = preview(sandbox, {"x", kDefaultApp});
    const auto removed = sectionsOf(result.standardOutput).at(kWouldRemove);
    EXPECT_NE(std::find(removed.begin(), removed.end(), "/Library/Corvane Extras/extra.dat"), removed.end())
        << result.standardOutput;
    for (const std::string& item : removed) {
        EXPECT_EQ(item.find("keep.dat"), std::string::npos) << item;
        EXPECT_EQ(item.find("/Library/Corvane Extras/mnt"), std::string::npos) << item;
    }
    EXPECT_EQ(sandbox.readFile("/Library/Shared Data/keep.dat"), "someone else's");
}

TEST_P(Preview, AReadOnlyFolderStaysReadOnlyAndIsNotCalledUnpreviewed)
{
    const auto layDown = [](Sandbox& sandbox) {
        installApp(sandbox, kDefaultApp);
        sandbox.writeFile("/Library/Locked/lumidoc.dat", "data");
        sandbox.makeReadOnly("/Library/Locked");
        sandbox.writeFile(kProductLog, "/Library/Locked/lumidoc.dat\n");
    };
    expectPreviewMatchesARealRun(layDown, {"x", kDefaultApp});

    Sandbox sandbox(GetParam());
    layDown(sandbox);
    const RunResult result = preview(sandbox, {"x", kDefaultApp});
    const auto sections = sectionsOf(result.standardOutput);
    EXPECT_EQ(sections.at(kWouldPrint).front(), "Could not remove /Library/Locked/lumidoc.dat.");
    EXPECT_EQ(sections.at(kNotPreviewed),
              (std::vector<std::string>{"/proc (proc, a kernel interface)", "/dev/pts (devpts, a kernel interface)"}));
}

TEST_P(Preview, TheLogFileAFailedRunWouldWriteIsShownAsCreatedAndNotWritten)
{
    const auto layDown = [](Sandbox& sandbox) {
        installApp(sandbox, kDefaultApp);
        sandbox.makeDirectory("/root/Library");
    };
    const std::vector<std::string> arguments = {"x", kDefaultApp, "-ForceError", "1844"};
    expectPreviewMatchesARealRun(layDown, arguments);

    Sandbox sandbox(GetParam());
    layDown(sandbox);
    const RunResult result = preview(sandbox, arguments);
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // The Logs and Corvane folders and the log file itself.
    EXPECT_EQ(sectionsOf(result.standardOutput).at(kWouldCreateOrChange),
              std::vector<std::string>{"created /root/Library/Logs (folder, 2 items inside)"});
    // The failing check leaves the agent's path unknown.
    EXPECT_EQ(sectionsOf(result.standardOutput).at(kWouldPrint).front(), std::string(kCouldNotRemove) + " (null).");
    EXPECT_FALSE(sandbox.exists("/root/Library/Logs"));
}

TEST_P(Preview, TheLaunchAgentsFolderARunWouldMakeIsShownAsCreatedAndNotMade)
{
    const auto layDown = [](Sandbox& sandbox) {
        installApp(sandbox, kDefaultApp);
        sandbox.makeDirectory("/root/Library");
    };
    expectPreviewMatchesARealRun(layDown, {"x", kDefaultApp});

    Sandbox sandbox(GetParam());
    layDown(sandbox);
    const RunResult result = preview(sandbox, {"x", kDefaultApp});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(sectionsOf(result.standardOutput).at(kWouldCreateOrChange),
              std::vector<std::string>{"created /root/Library/LaunchAgents (empty folder)"});
    EXPECT_FALSE(sandbox.exists("/root/Library/LaunchAgents"));
}

TEST_P(Preview, ARunThatWouldEndAbnormallyIsShownEndingSo)
{
    Sandbox sandbox(GetParam());

    // An application path without a slash ends the real run before the
    // receipts.
    const RunResult result = preview(sandbox, {"x", "App.app"});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_NE(result.standardOutput.find("\nRemoverTool would end abnormally (signal 6).\n\nWould remove:\n"),
              std::string::npos)
        << result.standardOutput;
    EXPECT_EQ(result.standardOutput.find("/usr/sbin/pkgutil"), std::string::npos) << result.standardOutput;
    EXPECT_NE(result.standardError.find("terminating on uncaught exception"), std::string::npos) << describe(result);
}

TEST_P(Preview, WithoutTheLibraryNoStandInAppearsAndTheLibraryIsReportedMissing)
{
    Sandbox sandbox(GetParam());
    installApp(sandbox, kDefaultApp);

    const RunResult result = preview(sandbox, {"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    const auto sections = sectionsOf(result.standardOutput);
    const auto& printed = sections.at(kWouldPrint);
    EXPECT_NE(std::find(printed.begin(), printed.end(),
                        std::string(kManagerFailed) + " MISSING_CORVANEHOV:" + kLibraryInBundle + "."),
              printed.end())
        << result.standardOutput;
    for (const std::string& call : sections.at(kWouldRun)) {
        EXPECT_EQ(call.find("install-manager library"), std::string::npos) << call;
    }
}

TEST_P(Preview, AFolderIconLeftBehindShowsItsCarriageReturnEscaped)
{
    Sandbox sandbox(GetParam());
    installApp(sandbox, kDefaultApp);
    sandbox.writeFile(std::string(kDefaultFolder) + "/Icon\r", "icon");
    sandbox.writeFile(std::string(kDefaultFolder) + "/Notes.txt", "someone else's notes");

    const RunResult result = preview(sandbox, {"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // The icon goes; the folder, not empty, stays.
    EXPECT_EQ(sectionsOf(result.standardOutput).at(kWouldRemove),
              (std::vector<std::string>{std::string(kDefaultApp) + " (folder, 4 items inside)",
                                        std::string(kDefaultFolder) + "/Icon\\r"}));
}

TEST_P(Preview, ARelativeApplicationPathIsResolvedInTheFolderItWasStartedIn)
{
    RunOptions fromApplications;
    fromApplications.workingFolder = "/Applications";
    expectPreviewMatchesARealRun([](Sandbox& sandbox) { layDownCompleteInstallation(sandbox); },
                                 {"x", "Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app"}, fromApplications);
}

TEST_P(Preview, AProtectedFolderReachedThroughABindMountOfItsDiskIsRefusedAsInARealRun)
{
    // /Applications/LibraryView shows /Library again: a second overlay of
    // it would give its folders other identities, and the guard would not
    // know /Library/Fonts there.
    const auto layDown = [](Sandbox& sandbox) {
        installApp(sandbox, kDefaultApp);
        sandbox.writeFile("/Library/Fonts/Unrelated.otf", "someone else's font");
        sandbox.bindFolder("/Library", "/Applications/LibraryView");
        sandbox.writeFile(kProductLog, "/Applications/LibraryView/Fonts\n");
    };
    expectPreviewMatchesARealRun(layDown, {"x", kDefaultApp});

    Sandbox sandbox(GetParam());
    layDown(sandbox);
    const RunResult result = preview(sandbox, {"x", kDefaultApp});
    const auto sections = sectionsOf(result.standardOutput);
    EXPECT_EQ(sections.at(kWouldPrint).front(), "Could not remove /Applications/LibraryView/Fonts.");
    const std::string overlaidAt = GetParam() == Layout::SingleDisk ? "/" : "/Library";
    const auto& unseen = sections.at(kNotPreviewed);
    EXPECT_NE(std::find(unseen.begin(), unseen.end(),
                        "/Applications/LibraryView (ext4, another view of a disk overlaid at " + overlaidAt + ")"),
              unseen.end())
        << result.standardOutput;
}

TEST_P(Preview, ARemoverLookingForAWayOutOfTheViewFindsNone)
{
    // In place of the remover, a script that tries every road out: the
    // roots, working folders and open folders of other processes in /proc
    // (a process outside the view is kept waiting in /Library), and a folder
    // descriptor the preview was started with.
    Sandbox sandbox(GetParam());
    sandbox.writeFile("/Library/Keep/marker", "must stay");
    sandbox.useBundleCopy();
    sandbox.writeFile(std::string(Sandbox::kRemoverPath),
                      "#!/bin/sh\n"
                      "for p in /proc/[0-9]*/root/Library /proc/[0-9]*/cwd /proc/[0-9]*/cwd/Library "
                      "/proc/[0-9]*/fd/* /proc/[0-9]*/fd/*/Library; do\n"
                      "  if [ -e \"$p/Keep/marker\" ]; then\n"
                      "    rm -f \"$p/Keep/marker\" && echo \"removed through $p\"\n"
                      "  fi\n"
                      "done\n"
                      "echo looked\n",
                      0755);

    const RunResult result = sandbox.runProgram(
        "/bin/sh", {"-c", std::string("cd /Library && { sleep 20 <&- >/dev/null 2>&1 & } ; exec 5</Library; exec ") +
                              Sandbox::kPreviewPath + " x '" + kDefaultApp + "'"});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_NE(result.standardOutput.find("  looked\n"), std::string::npos) << result.standardOutput;
    EXPECT_EQ(sandbox.readFile("/Library/Keep/marker"), "must stay") << result.standardOutput;
}

TEST_P(Preview, AnUnprivilegedUserIsToldToRunItAsRoot)
{
    Sandbox sandbox(GetParam());
    installApp(sandbox, kDefaultApp);
    const std::vector<std::string> tree = sandbox.tree();

    RunOptions options;
    options.user = User{65534, 65534};
    const RunResult result = preview(sandbox, {"x", kDefaultApp}, options);

    EXPECT_EQ(result.exitStatus, 77) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError, "RemoverPreview: cannot preview: it must run as root, as the remover does\n");
    EXPECT_EQ(sandbox.tree(), tree);
}

TEST_P(Preview, WithoutMountNamespacesItSaysSoAndRunsNothing)
{
    Sandbox sandbox(GetParam());
    layDownCompleteInstallation(sandbox);
    const std::vector<std::string> tree = sandbox.tree();

    // Root without its capabilities may not make a mount namespace.
    RunOptions options;
    options.withoutCapabilities = true;
    const RunResult result = preview(sandbox, {"x", kDefaultApp}, options);

    EXPECT_EQ(result.exitStatus, 69) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError,
              "RemoverPreview: cannot preview: cannot make a private mount namespace: Operation not permitted\n");
    EXPECT_EQ(sandbox.tree(), tree);
    EXPECT_TRUE(sandbox.journal().empty());
}

TEST_P(Preview, WithoutAnOverlayFileSystemItSaysSoAndRunsNothing)
{
    Sandbox sandbox(GetParam());
    layDownCompleteInstallation(sandbox);
    const std::vector<std::string> tree = sandbox.tree();
    // A kernel without the overlay file system answers ENODEV for its name.
    TempDir scratch;
    const std::string filter = scratch.path() + "/no-overlay.bpf";
    writeSyscallRefusal(filter, SYS_fsopen, ENODEV);

    RunOptions options;
    options.seccompFilter = filter;
    const RunResult result = preview(sandbox, {"x", kDefaultApp}, options);

    EXPECT_EQ(result.exitStatus, 69) << describe(result);
    EXPECT_EQ(result.standardOutput, "");
    EXPECT_EQ(result.standardError,
              "RemoverPreview: cannot preview: this kernel has no overlay file system: No such device\n");
    EXPECT_EQ(sandbox.tree(), tree);
    EXPECT_TRUE(sandbox.journal().empty());
}

TEST_P(Preview, ALogNamingThePackageToolEndsAbnormallyAsARealRunDoes)
{
    // /usr/sbin is writable: the real run removes the package tool and then
    // cannot start it; the preview must remove its stand-in alike.
    const auto layDown = [](Sandbox& sandbox) {
        layDownCompleteInstallation(sandbox);
        sandbox.writeFile(kProductLog, "/Library/Fonts/LumidocSans.otf\n/usr/sbin/pkgutil\n");
    };
    Sandbox previewed(GetParam());
    layDown(previewed);
    const std::vector<std::string> before = previewed.tree();
    const RunResult shown = preview(previewed, {"x", kDefaultApp});
    ASSERT_EQ(shown.exitStatus, 0) << describe(shown);
    EXPECT_EQ(previewed.tree(), before);
    EXPECT_TRUE(previewed.journal().empty());

    Sandbox real(GetParam());
    layDown(real);
    const RunResult done = real.run({"x", kDefaultApp});
    ASSERT_EQ(done.exitStatus, 128 + 6) << describe(done);

    const PrintedAndEnd previewedRun = printedAndEndOf(shown.standardOutput);
    const PrintedAndEnd realRun = printedAndEndOf(done);
    EXPECT_EQ(previewedRun.printed, realRun.printed) << shown.standardOutput;
    EXPECT_EQ(previewedRun.end, "RemoverTool would end abnormally (signal 6).") << shown.standardOutput;
    EXPECT_EQ(previewedRun.end, realRun.end);
    EXPECT_NE(std::find(previewedRun.printed.begin(), previewedRun.printed.end(), "Removed /usr/sbin/pkgutil."),
              previewedRun.printed.end())
        << shown.standardOutput;
    const auto sections = sectionsOf(shown.standardOutput);
    const auto& removed = sections.at(kWouldRemove);
    EXPECT_NE(std::find(removed.begin(), removed.end(), "/usr/sbin/pkgutil"), removed.end()) << shown.standardOutput;
    // The stand-in was never run as the package tool: it was gone first.
    for (const std::string& call : sections.at(kWouldRun)) {
        EXPECT_EQ(call.rfind("/usr/sbin/pkgutil", 0), std::string::npos) << call;
    }
    // The stand-in the preview wrote is not shown as a change of its own.
    EXPECT_EQ(sections.at(kWouldCreateOrChange), std::vector<std::string>{"nothing"}) << shown.standardOutput;
    // Nothing of the real run's receipts went: it ended before.
    EXPECT_EQ(real.receipts(), previewed.receipts());
}

TEST_P(Preview, ThePackageToolTheLogDoesNotNameIsNotShownAsChanged)
{
    Sandbox sandbox(GetParam());
    layDownCompleteInstallation(sandbox);

    const RunResult result = preview(sandbox, {"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    // The stand-ins the preview wrote over the tools (in the single-disk
    // layout over /bin/launchctl too) are its own changes, not the run's.
    EXPECT_EQ(sectionsOf(result.standardOutput).at(kWouldCreateOrChange), std::vector<std::string>{"nothing"})
        << result.standardOutput;
}

TEST_P(Preview, ALogNamingTheLibraryOfAWritableBundleShowsItsFailureAsARealRunDoes)
{
    // A bundle inside /Applications, which is writable: the real run removes
    // the library and then reports it missing.
    const std::string bundle = "/Applications/Tools/RemoverTool.app";
    const std::string library = bundle + "/Contents/Frameworks/CorvaneHOV.dylib";
    const auto layDown = [&](Sandbox& sandbox) {
        layDownCompleteInstallation(sandbox);
        std::filesystem::create_directories(std::filesystem::path(sandbox.hostPath(bundle)).parent_path());
        std::filesystem::copy(sandbox.hostPath(Sandbox::kBundlePath), sandbox.hostPath(bundle),
                              std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks);
        sandbox.writeFile(kProductLog, "/Library/Fonts/LumidocSans.otf\n" + library + "\n");
    };
    const std::vector<std::string> arguments = {"x", kDefaultApp};
    Sandbox previewed(GetParam());
    layDown(previewed);
    const std::vector<std::string> before = previewed.tree();
    const RunResult shown = previewed.runWith(bundle + "/Contents/MacOS/RemoverPreview", arguments, {});
    ASSERT_EQ(shown.exitStatus, 0) << describe(shown);
    EXPECT_EQ(previewed.tree(), before);
    EXPECT_TRUE(previewed.journal().empty());

    Sandbox real(GetParam());
    layDown(real);
    const RunResult done = real.runWith(bundle + "/Contents/MacOS/RemoverTool", arguments, {});
    ASSERT_FALSE(real.exists(library)) << describe(done);

    const PrintedAndEnd previewedRun = printedAndEndOf(shown.standardOutput);
    const PrintedAndEnd realRun = printedAndEndOf(done);
    EXPECT_EQ(previewedRun.printed, realRun.printed) << shown.standardOutput;
    EXPECT_EQ(previewedRun.end, realRun.end) << shown.standardOutput;
    EXPECT_NE(std::find(previewedRun.printed.begin(), previewedRun.printed.end(),
                        std::string(kManagerFailed) + " MISSING_CORVANEHOV:" + library + "."),
              previewedRun.printed.end())
        << shown.standardOutput;
    const auto sections = sectionsOf(shown.standardOutput);
    EXPECT_EQ(sections.at(kWouldRemove), removedItems(before, real.tree())) << shown.standardOutput;
    for (const std::string& call : sections.at(kWouldRun)) {
        EXPECT_EQ(call.find("install-manager library"), std::string::npos) << call;
    }
}

TEST_P(Preview, ALogNamingTheLibraryOfAReadOnlyBundleCannotRemoveItAsARealRunCannot)
{
    // The bundle at /opt is bound read-only: neither run removes the library,
    // and both call it.
    const auto layDown = [](Sandbox& sandbox) {
        layDownCompleteInstallation(sandbox);
        // Appended rather than added: GCC 12 reports a false out-of-bounds
        // copy for `std::string(...) + "\n"` here.
        std::string log(kLibraryInBundle);
        log += '\n';
        sandbox.writeFile(kProductLog, log);
    };
    Sandbox previewed(GetParam());
    layDown(previewed);
    const RunResult shown = preview(previewed, {"x", kDefaultApp});
    ASSERT_EQ(shown.exitStatus, 0) << describe(shown);

    Sandbox real(GetParam());
    layDown(real);
    const RunResult done = real.run({"x", kDefaultApp});

    const PrintedAndEnd previewedRun = printedAndEndOf(shown.standardOutput);
    EXPECT_EQ(previewedRun.printed, printedAndEndOf(done).printed) << shown.standardOutput;
    EXPECT_EQ(previewedRun.end, "");
    EXPECT_EQ(previewedRun.printed.front(), std::string(kCouldNotRemove) + " " + kLibraryInBundle + ".");
    const auto calls = sectionsOf(shown.standardOutput).at(kWouldRun);
    EXPECT_NE(std::find(calls.begin(), calls.end(),
                        std::string("call hov_uninstallCorvaneApplicationManager in the install-manager library ") +
                            kLibraryInBundle),
              calls.end())
        << shown.standardOutput;
}

TEST_P(Preview, AnEscapeSequenceInAListedPathReachesNoTerminal)
{
    Sandbox sandbox(GetParam());
    installApp(sandbox, kDefaultApp);
    // Made to show, on a terminal, as a line saying the password file went.
    sandbox.writeFile(kProductLog, "/Library/x\x1B]0;T\a\r\x1B[2KRemoved /etc/passwd\n");

    const RunResult result = preview(sandbox, {"x", kDefaultApp});

    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(sectionsOf(result.standardOutput).at(kWouldPrint).front(),
              "Not found /Library/x\\x1B]0;T\\x07\\r\\x1B[2KRemoved /etc/passwd.")
        << result.standardOutput;
    for (const char c : result.standardOutput) {
        EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20) << static_cast<int>(c);
    }
}

TEST_P(Preview, ARemoverRunningPastTheTimeLimitIsStoppedWithWhatItDidUntilThen)
{
    // In place of the remover, a script that removes a file, says so and
    // then hangs, with a child of its own.
    Sandbox sandbox(GetParam());
    sandbox.writeFile("/Library/Going/gone.dat", "data");
    sandbox.useBundleCopy();
    sandbox.writeFile(std::string(Sandbox::kRemoverPath),
                      "#!/bin/sh\n"
                      "rm /Library/Going/gone.dat && echo 'Removed /Library/Going/gone.dat.'\n"
                      "sleep 300 &\n"
                      "wait\n",
                      0755);

    const auto started = std::chrono::steady_clock::now();
    const RunResult result = preview(sandbox, {"-PreviewTimeLimit", "2", "x", kDefaultApp});
    const auto took = std::chrono::steady_clock::now() - started;

    EXPECT_EQ(result.exitStatus, 75) << describe(result);
    EXPECT_LT(took, std::chrono::seconds(60));
    const std::string title =
        "Preview of RemoverTool x '/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app' (nothing was changed)\n"
        "\n"
        "RemoverTool would print:\n"
        "  Removed /Library/Going/gone.dat.\n"
        "RemoverTool did not finish within 2 seconds: the preview stopped it, and shows what it did until then.\n"
        "\n"
        "Would remove:\n"
        "  /Library/Going/gone.dat\n";
    EXPECT_EQ(result.standardOutput.substr(0, title.size()), title) << result.standardOutput;
    EXPECT_EQ(sandbox.readFile("/Library/Going/gone.dat"), "data");
}

TEST_P(Preview, ATimeLimitThatIsNoWholeNumberOfSecondsIsRefused)
{
    Sandbox sandbox(GetParam());
    installApp(sandbox, kDefaultApp);
    const std::vector<std::string> tree = sandbox.tree();

    for (const std::string& limit : std::vector<std::string>{"0", "-5", "1.5", "ten", "86401", ""}) {
        const RunResult result = preview(sandbox, {"-PreviewTimeLimit", limit, "x", kDefaultApp});
        EXPECT_EQ(result.exitStatus, 64) << describe(result);
        EXPECT_EQ(result.standardOutput, "");
        EXPECT_EQ(result.standardError,
                  "RemoverPreview: cannot preview: -PreviewTimeLimit needs a whole number of seconds from 1 to "
                  "86400, not '" +
                      limit + "'\n");
    }
    EXPECT_EQ(sandbox.tree(), tree);
}

INSTANTIATE_TEST_SUITE_P(BothLayouts, Preview, ::testing::Values(Layout::SeparateMounts, Layout::SingleDisk),
                         [](const ::testing::TestParamInfo<Layout>& info) { return layoutName(info.param); });

}  // namespace
