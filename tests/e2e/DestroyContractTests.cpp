// What destroying an item promises, held once for each of the three ways the
// product removes an item with everything in it (the workspace's destroy, the
// file manager's removeItemAtPath and the tree remover's removePath), in both
// sandbox layouts. The built destroy-probe makes the calls inside the sandbox
// and prints "yes"/"no", the first reason, and every item the failure handler
// was told of (destroy-probe.cpp has the format).
//
// Every case checks what must go and what must stay: the fixture's tree after
// the run is compared with a list written out here.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/Descriptor.h"
#include "tests/support/FolderSwapper.h"
#include "tests/support/Lines.h"
#include "tests/support/RemoverFixture.h"
#include "tests/support/RunUnprivileged.h"
#include "tests/support/Sandbox.h"

namespace {

using namespace testsupport;
namespace fs = std::filesystem;

constexpr char kProbe[] = REMOVER_DESTROY_PROBE_PATH;
constexpr char kBuiltBundle[] = REMOVER_BUNDLE_PATH;

constexpr char kSystemFolder[] = "a protected system folder";
constexpr char kHomeStandardFolder[] = "a standard folder of the home folder";
constexpr char kRunningBundle[] = "the running program's bundle";
constexpr char kInvalidArgument[] = "Invalid argument";

// A bundle copy inside a listed folder, where a vendor may ship its
// uninstaller: inside the folder the uninstaller removes.
constexpr char kVendorFolder[] = "/Library/Vendor";
constexpr char kNestedBundle[] = "/Library/Vendor/Support/RemoverTool.app";

enum class Entry { Workspace, FileManager, TreeRemover };

const char* probeName(Entry entry)
{
    switch (entry) {
    case Entry::Workspace: return "workspace";
    case Entry::FileManager: return "file-manager";
    case Entry::TreeRemover: return "tree-remover";
    }
    return "";
}

const char* title(Entry entry)
{
    switch (entry) {
    case Entry::Workspace: return "WorkspaceDestroy";
    case Entry::FileManager: return "FileManagerRemove";
    case Entry::TreeRemover: return "TreeRemover";
    }
    return "";
}

void PrintTo(Entry entry, std::ostream* out)
{
    *out << title(entry);
}

const auto kEntries = testing::Values(Entry::Workspace, Entry::FileManager, Entry::TreeRemover);

// The tree() lines of these folders.
std::vector<std::string> folderLines(const std::vector<std::string>& folders)
{
    std::vector<std::string> lines;
    lines.reserve(folders.size());
    for (const std::string& folder : folders) {
        lines.push_back("d " + folder);
    }
    return lines;
}

class DestroyContractTest : public testing::TestWithParam<std::tuple<Entry, Layout>> {
protected:
    DestroyContractTest() : sandbox(std::get<1>(GetParam())) {}

    static Entry entry() { return std::get<0>(GetParam()); }

    // A copy of the built bundle at `bundle` (a path inside the sandbox) with
    // the probe in its Contents/MacOS, so the probe runs as that bundle's
    // program. Returns the probe's path inside.
    std::string installProbe(const std::string& bundle = Sandbox::kBundlePath)
    {
        std::string host;
        if (bundle == Sandbox::kBundlePath) {
            sandbox.useBundleCopy();
            host = sandbox.hostPath(bundle);
        } else {
            host = sandbox.hostPath(bundle);
            fs::create_directories(fs::path(host).parent_path());
            fs::copy(kBuiltBundle, host, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        }
        fs::copy_file(kProbe, host + "/Contents/MacOS/destroy-probe", fs::copy_options::overwrite_existing);
        probe = bundle + "/Contents/MacOS/destroy-probe";
        return probe;
    }

    RunResult destroy(const std::vector<std::string>& paths, const RunOptions& options = {})
    {
        if (probe.empty()) {
            installProbe();
        }
        std::vector<std::string> arguments{probeName(entry())};
        arguments.insert(arguments.end(), paths.begin(), paths.end());
        return sandbox.runWith(probe, arguments, options);
    }

    static RunOptions withoutProc()
    {
        RunOptions options;
        options.withoutProc = true;
        return options;
    }

    // The probe's lines for an item that went.
    static std::string went() { return "yes\n"; }

    // The probe's lines for an item that stayed because of `item`: the
    // reason, and the item itself where the entry point takes a handler.
    static std::string stayed(const std::string& item, const std::string& reason)
    {
        std::string lines = "no\nerror: " + reason + "\n";
        if (entry() != Entry::FileManager) {
            lines += item + ": " + reason + "\n";
        }
        return lines;
    }

    Sandbox sandbox;
    std::string probe;
};

TEST_P(DestroyContractTest, FileFolderAndLinksGoButNothingALinkPointsAt)
{
    sandbox.writeFile("/Library/Vendor/file", "f");
    sandbox.writeFile("/Library/Vendor/Folder/a", "a");
    sandbox.writeFile("/Library/Vendor/Folder/Sub/b", "b");
    sandbox.writeFile("/Library/Target/kept", "k");
    sandbox.makeSymlink("/Library/Vendor/Link", "/Library/Target");
    sandbox.writeFile("/Library/Vendor/WithLinkOut/own", "o");
    sandbox.makeSymlink("/Library/Vendor/WithLinkOut/out", "/Library/Target");
    sandbox.makeSymlink("/Library/Vendor/WithLinkOut/up", "..");

    const RunResult result = destroy(
        {"/Library/Vendor/file", "/Library/Vendor/Folder", "/Library/Vendor/Link", "/Library/Vendor/WithLinkOut"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, went() + went() + went() + went());
    EXPECT_EQ(sandbox.tree(),
              (std::vector<std::string>{"d /Library/Target", "f /Library/Target/kept", "d /Library/Vendor"}));
}

TEST_P(DestroyContractTest, DotDotInTheMiddleLeadingToAnUnprotectedItemIsFollowed)
{
    sandbox.makeDirectory("/Library/Vendor/Sub");
    sandbox.writeFile("/Library/Other/item/x", "x");
    sandbox.writeFile("/Library/Other/beside", "b");
    const RunResult result = destroy({"/Library/Vendor/Sub/../../Other/item"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, went());
    EXPECT_EQ(sandbox.tree(), (std::vector<std::string>{"d /Library/Other", "f /Library/Other/beside",
                                                        "d /Library/Vendor", "d /Library/Vendor/Sub"}));
}

TEST_P(DestroyContractTest, NamesDotDotDotAndEmptyAreRefused)
{
    sandbox.writeFile("/Library/Vendor/Sub/file", "f");
    // The empty path names nothing, not even the working folder.
    RunOptions inSub;
    inSub.workingFolder = "/Library/Vendor/Sub";
    const RunResult result = destroy({"/Library/Vendor/Sub/..", "/Library/Vendor/Sub/.", ""}, inSub);
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, stayed("/Library/Vendor/Sub/..", kInvalidArgument) +
                                         stayed("/Library/Vendor/Sub/.", kInvalidArgument) +
                                         stayed("", kInvalidArgument));
    EXPECT_EQ(sandbox.tree(),
              (std::vector<std::string>{"d /Library/Vendor", "d /Library/Vendor/Sub", "f /Library/Vendor/Sub/file"}));
}

TEST_P(DestroyContractTest, ProtectedFoldersNamedDirectlyStayWithTheirReason)
{
    sandbox.writeFile("/Library/Fonts/font", "f");
    sandbox.writeFile("/Applications/Other.app/file", "o");
    sandbox.writeFile("/root/Documents/letter", "l");
    sandbox.writeFile("/root/Library/Keychains/login.keychain", "k");
    const std::vector<std::string> before = sandbox.tree();
    ASSERT_EQ(before, (std::vector<std::string>{
                          "d /Applications/Other.app", "f /Applications/Other.app/file", "d /Library/Fonts",
                          "f /Library/Fonts/font", "d /root/Documents", "f /root/Documents/letter", "d /root/Library",
                          "d /root/Library/Keychains", "f /root/Library/Keychains/login.keychain"}));

    const RunResult result = destroy({"/Library", "/Applications", "/Library/Fonts", "/root", "/root/Library",
                                      "/root/Documents", "/root/Library/Keychains"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, stayed("/Library", kSystemFolder) + stayed("/Applications", kSystemFolder) +
                                         stayed("/Library/Fonts", kSystemFolder) + stayed("/root", kSystemFolder) +
                                         stayed("/root/Library", kHomeStandardFolder) +
                                         stayed("/root/Documents", kHomeStandardFolder) +
                                         stayed("/root/Library/Keychains", kHomeStandardFolder));
    EXPECT_EQ(sandbox.tree(), before);
}

// The running program's bundle inside the folder being removed: the bundle
// stays whole, so do the folders above it up to the listed one, and the rest
// goes.
TEST_P(DestroyContractTest, RunningBundleInsideAListedFolderStaysWithTheFoldersAboveIt)
{
    installProbe(kNestedBundle);
    sandbox.writeFile("/Library/Vendor/file", "f");
    sandbox.writeFile("/Library/Vendor/Support/Cache/entry", "c");
    sandbox.writeFile("/Library/Vendor/Support/notes", "n");
    const std::vector<std::string> bundle = sandbox.tree(kNestedBundle);
    ASSERT_FALSE(bundle.empty());

    const RunResult result = destroy({kVendorFolder});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, stayed(kNestedBundle, kRunningBundle));
    std::vector<std::string> expected = folderLines({kVendorFolder, "/Library/Vendor/Support", kNestedBundle});
    expected.insert(expected.end(), bundle.begin(), bundle.end());
    EXPECT_EQ(sandbox.tree(), expected);
}

TEST_P(DestroyContractTest, RunningBundleAndItsContentsNamedDirectlyStay)
{
    installProbe(kNestedBundle);
    const std::vector<std::string> before = sandbox.tree();
    const std::string contents = std::string(kNestedBundle) + "/Contents";
    const RunResult result = destroy({kNestedBundle, contents});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, stayed(kNestedBundle, kRunningBundle) + stayed(contents, kRunningBundle));
    EXPECT_EQ(sandbox.tree(), before);
}

// Without /proc a program cannot read where it was started from or where an
// open folder lies: the guard must still know its bundle and judge items.
TEST_P(DestroyContractTest, WithoutProcTheRunningBundleStaysAndOrdinaryItemsGo)
{
    installProbe(kNestedBundle);
    sandbox.writeFile("/Library/Vendor/file", "f");
    sandbox.writeFile("/Library/Vendor/Support/Cache/entry", "c");
    const std::vector<std::string> bundle = sandbox.tree(kNestedBundle);

    const RunResult result = destroy({"/Library/Vendor/file", kNestedBundle, kVendorFolder}, withoutProc());
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput,
              went() + stayed(kNestedBundle, kRunningBundle) + stayed(kNestedBundle, kRunningBundle));
    std::vector<std::string> expected = folderLines({kVendorFolder, "/Library/Vendor/Support", kNestedBundle});
    expected.insert(expected.end(), bundle.begin(), bundle.end());
    EXPECT_EQ(sandbox.tree(), expected);
}

// A chain of folders whose path is 5,000 bytes long, longer than any path
// the system takes whole: made and examined through descriptors.
class LongPathTest : public DestroyContractTest {
protected:
    static constexpr int kLevels = 20;
    static constexpr std::size_t kNameLength = 250;

    ~LongPathTest() override
    {
        // The fixture's own clean-up cannot reach this deep.
        if (!top.empty()) {
            runCommand({"rm", "-rf", "--", sandbox.hostPath(top)});
        }
    }

    // The chain below `at` (inside); returns the path of its deepest folder.
    std::string buildChain(const std::string& at)
    {
        top = at;
        sandbox.makeDirectory(at);
        std::string inside = at;
        Descriptor folder = openFolder(sandbox.hostPath(at));
        for (int level = 0; level < kLevels && folder.isOpen(); ++level) {
            const std::string name = std::to_string(level) + std::string(kNameLength - 2, 'n');
            if (::mkdirat(folder.get(), name.c_str(), 0755) != 0) {
                return "";
            }
            folder = Descriptor(::openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            inside += "/" + name;
        }
        return folder.isOpen() ? inside : std::string();
    }

    // Whether an item `name` is in the deepest folder of the chain.
    bool inDeepest(const std::string& name) const
    {
        Descriptor folder = openFolder(sandbox.hostPath(top));
        for (int level = 0; level < kLevels && folder.isOpen(); ++level) {
            const std::string child = std::to_string(level) + std::string(kNameLength - 2, 'n');
            folder = Descriptor(::openat(folder.get(), child.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        }
        struct stat status {};
        return folder.isOpen() && ::fstatat(folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    }

    // Makes an item in the deepest folder: a file, or a folder with a file.
    bool makeInDeepest(const std::string& name, bool asFolder) const
    {
        Descriptor folder = openFolder(sandbox.hostPath(top));
        for (int level = 0; level < kLevels && folder.isOpen(); ++level) {
            const std::string child = std::to_string(level) + std::string(kNameLength - 2, 'n');
            folder = Descriptor(::openat(folder.get(), child.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        }
        if (!folder.isOpen()) {
            return false;
        }
        if (asFolder) {
            if (::mkdirat(folder.get(), name.c_str(), 0755) != 0) {
                return false;
            }
            folder = Descriptor(::openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        }
        const std::string file = asFolder ? "inside" : name;
        const Descriptor made(::openat(folder.get(), file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        return made.isOpen();
    }

    std::string top;
};

TEST_P(LongPathTest, ItemsAtTheEndOfA5000BytePathGoAndTheFileBesideThemStays)
{
    const std::string deepest = buildChain("/Library/Deep");
    ASSERT_FALSE(deepest.empty());
    ASSERT_GE(deepest.size(), 5000U);
    ASSERT_TRUE(makeInDeepest("target", false));
    ASSERT_TRUE(makeInDeepest("folder", true));
    ASSERT_TRUE(makeInDeepest("beside", false));

    const RunResult result = destroy({deepest + "/target", deepest + "/folder"});
    ASSERT_EQ(result.exitStatus, 0) << describe(result);
    EXPECT_EQ(result.standardOutput, went() + went());
    EXPECT_FALSE(inDeepest("target"));
    EXPECT_FALSE(inDeepest("folder"));
    EXPECT_TRUE(inDeepest("beside"));
}

INSTANTIATE_TEST_SUITE_P(EntryPointsInBothLayouts, DestroyContractTest,
                         testing::Combine(kEntries, testing::Values(Layout::SeparateMounts, Layout::SingleDisk)),
                         [](const testing::TestParamInfo<std::tuple<Entry, Layout>>& info) {
                             return std::string(title(std::get<0>(info.param))) + "_" +
                                    layoutName(std::get<1>(info.param));
                         });

INSTANTIATE_TEST_SUITE_P(EntryPointsInBothLayouts, LongPathTest,
                         testing::Combine(kEntries, testing::Values(Layout::SeparateMounts, Layout::SingleDisk)),
                         [](const testing::TestParamInfo<std::tuple<Entry, Layout>>& info) {
                             return std::string(title(std::get<0>(info.param))) + "_" +
                                    layoutName(std::get<1>(info.param));
                         });

// How often the probe's --repeat output counted `line` (0 when it did not).
std::size_t countOf(const std::string& output, const std::string& line)
{
    for (const std::string& counted : linesOf(output)) {
        const std::size_t space = counted.find(' ');
        if (space != std::string::npos && counted.substr(space + 1) == line) {
            return std::stoul(counted.substr(0, space));
        }
    }
    return 0;
}

class DestroyRaceTest : public DestroyContractTest {
protected:
    static constexpr int kRounds = 100000;

    // The user's folder /Library/att with the real folder A and the link B
    // to `linkTarget`; returns its host path.
    std::string layDownSwappableFolder(const std::string& linkTarget)
    {
        sandbox.makeDirectory("/Library/att/A");
        sandbox.makeSymlink("/Library/att/B", linkTarget);
        for (const char* path : {"/Library/att", "/Library/att/A", "/Library/att/B"}) {
            if (::lchown(sandbox.hostPath(path).c_str(), kUnprivilegedUser, kUnprivilegedGroup) != 0) {
                return "";
            }
        }
        return sandbox.hostPath("/Library/att");
    }

    // Removes /Library/att/A/NAME kRounds times while the user swaps A for
    // the link; expects the protected item at `protectedHost` (a host path)
    // to be the same item afterwards, the fixture outside the user's folder
    // to be `elsewhere`, and the swaps to have been seen.
    void raceAgainst(const std::string& linkTarget, const std::string& name, const std::string& protectedHost,
                     const std::vector<std::string>& elsewhere)
    {
        struct stat before {};
        ASSERT_EQ(::lstat(protectedHost.c_str(), &before), 0) << protectedHost;
        const std::string owned = layDownSwappableFolder(linkTarget);
        ASSERT_FALSE(owned.empty());
        const std::string listed = "/Library/att/A/" + name;
        installProbe();
        RunResult result;
        std::uint64_t swaps = 0;
        {
            FolderSwapper swapper(owned, name);
            result = sandbox.runProgram(probe, {probeName(entry()), "--repeat", std::to_string(kRounds), listed});
            swaps = swapper.stop();
        }
        ASSERT_EQ(result.exitStatus, 0) << describe(result);
        struct stat after {};
        EXPECT_EQ(::lstat(protectedHost.c_str(), &after), 0) << protectedHost << " was removed\n"
                                                             << result.standardOutput;
        EXPECT_EQ(after.st_ino, before.st_ino) << protectedHost << " was replaced";
        std::vector<std::string> outside;
        for (const std::string& entry : sandbox.tree()) {
            if (entry.find(" /Library/att/") == std::string::npos) {
                outside.push_back(entry);
            }
        }
        EXPECT_EQ(outside, elsewhere);
        // The run met both sides of the swap: the user's own entry went
        // and the protected one was refused.
        EXPECT_GT(swaps, 0U);
        EXPECT_GT(countOf(result.standardOutput, "yes"), 0U) << result.standardOutput;
        EXPECT_GT(countOf(result.standardOutput, std::string("error: ") + kSystemFolder), 0U) << result.standardOutput;
        // Nothing was refused for any other reason than the protection or
        // the entry being gone at that moment.
        for (const std::string& counted : linesOf(result.standardOutput)) {
            const std::string line = counted.substr(counted.find(' ') + 1);
            EXPECT_TRUE(line == "yes" || line == "no" || line == std::string("error: ") + kSystemFolder ||
                        line == listed + ": " + kSystemFolder || line == "error: No such file or directory" ||
                        line == listed + ": No such file or directory")
                << counted;
        }
    }
};

// A root-owned folder (/Library) holding a root-owned protected item: the
// standard folder Preferences, here a link to the real folder.
TEST_P(DestroyRaceTest, SwappingAMiddleFolderForALinkNeverRemovesTheProtectedItemItLeadsTo)
{
    sandbox.makeDirectory("/Library/Preference Files");
    sandbox.makeSymlink("/Library/Preferences", "/Library/Preference Files");
    raceAgainst(
        "/Library", "Preferences", sandbox.hostPath("/Library/Preferences"),
        {"d /Library/Preference Files", "l /Library/Preferences -> /Library/Preference Files", "d /Library/att"});
}

INSTANTIATE_TEST_SUITE_P(EntryPointsInBothLayouts, DestroyRaceTest,
                         testing::Combine(kEntries, testing::Values(Layout::SeparateMounts, Layout::SingleDisk)),
                         [](const testing::TestParamInfo<std::tuple<Entry, Layout>>& info) {
                             return std::string(title(std::get<0>(info.param))) + "_" +
                                    layoutName(std::get<1>(info.param));
                         });

// Cases that need a "/" of the fixture's own, where the test can make the
// system's folders: the single-disk layout only.
class DestroyOnOwnRootTest : public DestroyRaceTest {
protected:
    // Makes a file at `path` below the fixture's "/".
    void writeAtRoot(const std::string& path, const std::string& contents) const
    {
        const fs::path host = sandbox.root() + "/fs" + path;
        fs::create_directories(host.parent_path());
        std::ofstream(host) << contents;
    }

    bool presentAtRoot(const std::string& path) const
    {
        struct stat status {};
        return ::lstat((sandbox.root() + "/fs" + path).c_str(), &status) == 0;
    }
};

TEST_P(DestroyOnOwnRootTest, ItemsBelowTheSystemTreeAreRefusedWithAndWithoutProc)
{
    writeAtRoot("/System/Library/item", "i");
    writeAtRoot("/System/Library/Sub/other", "o");
    sandbox.writeFile("/Library/Vendor/file", "f");
    sandbox.writeFile("/Library/Vendor/again", "a");

    const RunResult withProc = destroy({"/System/Library/item", "/Library/Vendor/file"});
    ASSERT_EQ(withProc.exitStatus, 0) << describe(withProc);
    EXPECT_EQ(withProc.standardOutput, stayed("/System/Library/item", kSystemFolder) + went());

    const RunResult noProc =
        destroy({"/System/Library/item", "/System/Library/Sub", "/Library/Vendor/again"}, withoutProc());
    ASSERT_EQ(noProc.exitStatus, 0) << describe(noProc);
    EXPECT_EQ(noProc.standardOutput,
              stayed("/System/Library/item", kSystemFolder) + stayed("/System/Library/Sub", kSystemFolder) + went());

    EXPECT_TRUE(presentAtRoot("/System/Library/item"));
    EXPECT_TRUE(presentAtRoot("/System/Library/Sub/other"));
    EXPECT_EQ(sandbox.tree(), (std::vector<std::string>{"d /Library/Vendor"}));
}

// The system's own link /lib64, reached through a link to "/".
TEST_P(DestroyOnOwnRootTest, SwappingAMiddleFolderForALinkToTheRootNeverRemovesLib64)
{
    raceAgainst("/", "lib64", sandbox.root() + "/fs/lib64", {"d /Library/att"});
}

INSTANTIATE_TEST_SUITE_P(EntryPointsOnASingleDisk, DestroyOnOwnRootTest,
                         testing::Combine(kEntries, testing::Values(Layout::SingleDisk)),
                         [](const testing::TestParamInfo<std::tuple<Entry, Layout>>& info) {
                             return std::string(title(std::get<0>(info.param))) + "_" +
                                    layoutName(std::get<1>(info.param));
                         });

}  // namespace
