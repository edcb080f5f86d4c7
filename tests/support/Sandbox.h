// A fixture root and a runner for end-to-end tests.
//
// Programs run inside a bubblewrap sandbox (tests/sandbox/sandbox.sh, which
// the demo and the benchmarks use too, and which alone knows where each
// folder lies in the fixture) where
//   /Applications, /Library   are the fixture's own folders,
//   /root                     is the fixture's home folder (the tests run as
//                             root, and the password database names /root),
//   /usr/sbin/pkgutil         is the package tool double (alone in /usr/sbin),
//   /bin/launchctl            is the launch-agent tool double,
//   /var/db/doubles           holds the doubles' journal, receipts database
//                             and loaded agents,
//   /opt/RemoverTool.app      is the built bundle, read-only, or the fixture's
//                             own copy of it after useBundleCopy().
// In the separate layout each of /Applications, /Library and /root is a mount
// of its own and /tmp is a fresh tmpfs; in the single-disk layout they are
// plain folders of one fixture folder bound as "/", /tmp included.
// Paths given to the fixture functions are paths as a program inside sees
// them ("/Library/Preferences/x.plist", "/root/Library/...", or "~/..." for
// the home folder); they work the same in both layouts.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "tests/support/Subprocess.h"
#include "tests/support/TempDir.h"

namespace testsupport {

// Variables set inside the sandbox on top of its clean defaults
// (PATH=/usr/bin:/bin, HOME=/root, USER=LOGNAME=root, LANG=C.UTF-8).
using Environment = std::vector<std::pair<std::string, std::string>>;

// One call that a double saw: its program name, then each argument.
// The library double journals {"CorvaneHOV", "load"},
// {"CorvaneHOV", "hov_uninstallCorvaneApplicationManager"} and
// {"CorvaneHOV", "unload"} ("CorvaneHOVNoEntry" for the one without entry).
using JournalEntry = std::vector<std::string>;

struct User {
    uid_t uid;
    gid_t gid;
};

// Where a run's file system comes from.
enum class Layout {
    // /Applications, /Library and /root each bound from a fixture folder.
    SeparateMounts,
    // One fixture folder bound as "/", holding all of them.
    SingleDisk,
};
// "SeparateMounts" / "SingleDisk", for test names.
const char* layoutName(Layout layout);
void PrintTo(Layout layout, std::ostream* out);

// How runWith() starts a program.
struct RunOptions {
    Environment environment;
    // Another user to run as; root without one.
    std::optional<User> user;
    // What the program reads on its standard input; /dev/null without it.
    std::optional<std::string> input;
    // Every capability dropped: root inside can neither mount nor make
    // namespaces.
    bool withoutCapabilities = false;
    // A compiled seccomp filter (see Seccomp.h) loaded before the program.
    std::optional<std::string> seccompFilter;
    // The working folder inside ("/" without one).
    std::optional<std::string> workingFolder;
    // No /proc mounted inside.
    bool withoutProc = false;
};

class Sandbox {
public:
    static constexpr const char* kBundlePath = "/opt/RemoverTool.app";
    static constexpr const char* kRemoverPath = "/opt/RemoverTool.app/Contents/MacOS/RemoverTool";
    static constexpr const char* kQelutilPath = "/opt/RemoverTool.app/Contents/MacOS/qelutil";
    static constexpr const char* kPreviewPath = "/opt/RemoverTool.app/Contents/MacOS/RemoverPreview";
    static constexpr const char* kHomePath = "/root";
    static constexpr const char* kStatePath = "/var/db/doubles";

    // An empty fixture: empty Applications, Library and home folders, no
    // receipts, no loaded agents, an empty journal.
    explicit Sandbox(Layout layout = Layout::SeparateMounts);
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    Layout layout() const noexcept { return theLayout; }
    // The fixture root on this machine.
    const std::string& root() const noexcept { return theRoot.path(); }
    // Where a path inside the sandbox lies on this machine. Throws
    // std::invalid_argument for a path outside the fixture's folders
    // (/Applications, /Library, /root, /var/db/doubles; /tmp too in the
    // single-disk layout) and /opt/RemoverTool.app while it is not a copy.
    std::string hostPath(const std::string& path) const;

    // Fixture contents; parent folders are created as needed (mode 0755).
    void writeFile(const std::string& path, const std::string& contents, mode_t mode = 0644) const;
    void makeDirectory(const std::string& path, mode_t mode = 0755) const;
    void makeSymlink(const std::string& path, const std::string& target) const;
    void remove(const std::string& path) const;
    // Whether anything, a dangling link included, is at the path.
    bool exists(const std::string& path) const;
    std::string readFile(const std::string& path) const;
    // Binds the path (which must exist) read-only in later runs: nothing in
    // it can be changed, and the path itself cannot be removed.
    void makeReadOnly(const std::string& path);
    // Binds the fixture folder source (which must exist) at mountPoint in
    // later runs, creating mountPoint: a mount of its own on the disk of the
    // fixture. tree() and the other fixture functions see mountPoint as the
    // empty folder it is outside the sandbox.
    void bindFolder(const std::string& source, const std::string& mountPoint);

    // Copies the built bundle into the fixture; later runs bind the copy at
    // /opt/RemoverTool.app, and the fixture functions may change it.
    void useBundleCopy();
    // Puts a built library double (CorvaneHOV or CorvaneHOVNoEntry) into the
    // bundle copy as Contents/Frameworks/CorvaneHOV.dylib, making the copy
    // first when there is none.
    void installLibraryDouble(const std::string& doubleName = "CorvaneHOV");

    // The receipts database of the pkgutil double.
    void addReceipt(const std::string& identifier, const std::string& volume = "/") const;
    // The identifiers of the receipts on the volume, sorted.
    std::vector<std::string> receipts(const std::string& volume = "/") const;
    // The loaded agents of the launchctl double: plist paths, in load order.
    void addLoadedAgent(const std::string& plistPath) const;
    std::vector<std::string> loadedAgents() const;
    // Every call the doubles saw, in order.
    std::vector<JournalEntry> journal() const;
    void clearJournal() const;

    // Every path below /Applications, /Library and /root (or below `under`
    // only), sorted by path, one line each with a type mark:
    // "d /Library/Foo", "f /Library/Foo/x", "l /Library/L -> target",
    // "p" a pipe, "s" a socket, "c"/"b" a device.
    std::vector<std::string> tree(const std::string& under = "") const;

    // Runs the remover with these arguments after its program name.
    RunResult run(const std::vector<std::string>& arguments, const Environment& environment = {}) const;
    // Runs any program by its path inside the sandbox, as root.
    RunResult runProgram(const std::string& program, const std::vector<std::string>& arguments,
                         const Environment& environment = {}) const;
    // Runs a program as another user (setpriv inside the sandbox). The
    // user's home is what the password database says, not the fixture's.
    RunResult runProgramAs(User user, const std::string& program, const std::vector<std::string>& arguments,
                           const Environment& environment = {}) const;
    // Runs any program by its path inside the sandbox, as options say.
    RunResult runWith(const std::string& program, const std::vector<std::string>& arguments,
                      const RunOptions& options) const;

private:
    // A folder a program inside sees, and where it lies in the fixture.
    struct Folder {
        std::string inside;
        std::string host;
        bool listed;  // by tree()
    };

    std::string bundleCopyPath() const;

    Layout theLayout;
    TempDir theRoot;
    std::vector<Folder> theFolders;
    bool theBundleIsCopy = false;
    std::vector<std::string> theReadOnlyPaths;
    std::vector<std::pair<std::string, std::string>> theBinds;
};

}  // namespace testsupport
