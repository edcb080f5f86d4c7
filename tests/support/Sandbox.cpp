#include "tests/support/Sandbox.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

extern char** environ;

namespace testsupport {

namespace fs = std::filesystem;

namespace {

const std::string kSandboxScript = std::string(REMOVER_DOUBLES_DIR) + "/sandbox.sh";
const std::string kBuiltBundle = REMOVER_BUNDLE_PATH;
const std::string kBuiltDoubles = std::string(REMOVER_TEST_BINARY_DIR) + "/doubles";

// The mounts of the fixture: a path inside the sandbox and the folder of the
// fixture root bound there.
struct Mount {
    const char* inside;
    const char* fixture;
};
constexpr std::array<Mount, 4> kMounts{{
    {"/Applications", "Applications"},
    {"/Library", "Library"},
    {"/root", "home"},
    {"/var/db/doubles", "state"},
}};
constexpr std::array<Mount, 3> kTreeMounts{{kMounts[0], kMounts[1], kMounts[2]}};

// The rest of `path` when it is `prefix` or lies below it, with its slash.
bool remainderBelow(const std::string& path, const std::string& prefix, std::string& remainder)
{
    if (path == prefix) {
        remainder.clear();
        return true;
    }
    if (path.size() > prefix.size() && path.compare(0, prefix.size(), prefix) == 0 && path[prefix.size()] == '/') {
        remainder = path.substr(prefix.size());
        return true;
    }
    return false;
}

void throwErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

void makeParents(const fs::path& path)
{
    if (path.has_parent_path()) {
        fs::create_directories(path.parent_path());
    }
}

std::vector<std::string> readLines(const std::string& path)
{
    std::vector<std::string> lines;
    std::istringstream in(readFile(path));
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

// A journal field with its escapes (\\, \t, \n, \r) undone.
std::string unescapeField(const std::string& field)
{
    std::string out;
    out.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] != '\\' || i + 1 == field.size()) {
            out += field[i];
            continue;
        }
        switch (field[++i]) {
        case 't': out += '\t'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        default: out += field[i]; break;
        }
    }
    return out;
}

char typeMark(fs::file_type type)
{
    switch (type) {
    case fs::file_type::directory: return 'd';
    case fs::file_type::regular: return 'f';
    case fs::file_type::symlink: return 'l';
    case fs::file_type::fifo: return 'p';
    case fs::file_type::socket: return 's';
    case fs::file_type::character: return 'c';
    case fs::file_type::block: return 'b';
    default: return '?';
    }
}

class Pipe {
public:
    Pipe()
    {
        if (pipe2(theEnds.data(), O_CLOEXEC) != 0) {
            throwErrno("pipe2");
        }
    }
    ~Pipe()
    {
        closeRead();
        closeWrite();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    int readEnd() const noexcept { return theEnds[0]; }
    int writeEnd() const noexcept { return theEnds[1]; }
    void closeRead() noexcept { closeEnd(0); }
    void closeWrite() noexcept { closeEnd(1); }

private:
    void closeEnd(std::size_t which) noexcept
    {
        if (theEnds.at(which) >= 0) {
            ::close(theEnds.at(which));
            theEnds.at(which) = -1;
        }
    }
    std::array<int, 2> theEnds{-1, -1};
};

// Reads both pipes to their ends, whichever has data first.
void collect(Pipe& out, std::string& outText, Pipe& err, std::string& errText)
{
    std::array<pollfd, 2> fds{{{out.readEnd(), POLLIN, 0}, {err.readEnd(), POLLIN, 0}}};
    std::array<std::string*, 2> texts{&outText, &errText};
    std::array<char, 65536> buffer{};
    int open = 2;
    while (open > 0) {
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            throwErrno("poll");
        }
        for (std::size_t i = 0; i < fds.size(); ++i) {
            if (fds.at(i).fd < 0 || fds.at(i).revents == 0) {
                continue;
            }
            const ssize_t n = ::read(fds.at(i).fd, buffer.data(), buffer.size());
            if (n > 0) {
                texts.at(i)->append(buffer.data(), static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                fds.at(i).fd = -1;
                --open;
            }
        }
    }
}

}  // namespace

RunResult runCommand(const std::vector<std::string>& command)
{
    if (command.empty()) {
        throw std::invalid_argument("runCommand: no command");
    }
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (const std::string& word : command) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);

    Pipe out;
    Pipe err;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out.writeEnd(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.writeEnd(), STDERR_FILENO);
    pid_t pid = -1;
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        throw std::system_error(spawned, std::generic_category(), "cannot start " + command[0]);
    }
    out.closeWrite();
    err.closeWrite();

    RunResult result;
    collect(out, result.standardOutput, err, result.standardError);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            throwErrno("waitpid");
        }
    }
    if (WIFSIGNALED(status)) {
        result.signaled = true;
        result.signalNumber = WTERMSIG(status);
        result.exitStatus = 128 + result.signalNumber;
    } else {
        result.exitStatus = WEXITSTATUS(status);
    }
    return result;
}

Sandbox::Sandbox()
{
    const RunResult init = runCommand({"/bin/bash", kSandboxScript, "init", root()});
    if (init.exitStatus != 0) {
        throw std::runtime_error("cannot lay down the fixture: " + init.standardError);
    }
}

Sandbox::~Sandbox() = default;

std::string Sandbox::bundleCopyPath() const
{
    return root() + "/bundle/RemoverTool.app";
}

std::string Sandbox::hostPath(const std::string& path) const
{
    std::string inside = path;
    if (inside == "~" || inside.rfind("~/", 0) == 0) {
        inside = kHomePath + inside.substr(1);
    }
    std::string remainder;
    for (const Mount& mount : kMounts) {
        if (remainderBelow(inside, mount.inside, remainder)) {
            return root() + "/" + mount.fixture + remainder;
        }
    }
    if (remainderBelow(inside, kBundlePath, remainder)) {
        if (!theBundleIsCopy) {
            throw std::invalid_argument("the built bundle is not the fixture's; call useBundleCopy() first: " + path);
        }
        return bundleCopyPath() + remainder;
    }
    throw std::invalid_argument("not a path inside the fixture: " + path);
}

void Sandbox::writeFile(const std::string& path, const std::string& contents, mode_t mode) const
{
    const std::string host = hostPath(path);
    makeParents(host);
    testsupport::writeFile(host, contents);
    if (::chmod(host.c_str(), mode) != 0) {
        throwErrno("chmod " + host);
    }
}

void Sandbox::makeDirectory(const std::string& path, mode_t mode) const
{
    const std::string host = hostPath(path);
    fs::create_directories(host);
    if (::chmod(host.c_str(), mode) != 0) {
        throwErrno("chmod " + host);
    }
}

void Sandbox::makeSymlink(const std::string& path, const std::string& target) const
{
    const std::string host = hostPath(path);
    makeParents(host);
    fs::create_symlink(target, host);
}

void Sandbox::remove(const std::string& path) const
{
    fs::remove_all(hostPath(path));
}

bool Sandbox::exists(const std::string& path) const
{
    struct stat info {};
    return ::lstat(hostPath(path).c_str(), &info) == 0;
}

std::string Sandbox::readFile(const std::string& path) const
{
    return testsupport::readFile(hostPath(path));
}

void Sandbox::makeReadOnly(const std::string& path)
{
    std::string remainder;
    const bool inTree = std::any_of(kTreeMounts.begin(), kTreeMounts.end(),
                                    [&](const Mount& mount) { return remainderBelow(path, mount.inside, remainder); });
    if (!inTree || !exists(path)) {
        throw std::invalid_argument("nothing to make read-only at " + path);
    }
    theReadOnlyPaths.push_back(path);
}

void Sandbox::useBundleCopy()
{
    if (theBundleIsCopy) {
        return;
    }
    if (!fs::is_directory(kBuiltBundle)) {
        throw std::runtime_error("no built bundle at " + kBuiltBundle);
    }
    fs::create_directories(fs::path(bundleCopyPath()).parent_path());
    fs::copy(kBuiltBundle, bundleCopyPath(), fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    theBundleIsCopy = true;
}

void Sandbox::installLibraryDouble(const std::string& doubleName)
{
    useBundleCopy();
    const std::string library = kBuiltDoubles + "/" + doubleName + ".so";
    const std::string destination = hostPath(std::string(kBundlePath) + "/Contents/Frameworks/CorvaneHOV.dylib");
    makeParents(destination);
    fs::copy_file(library, destination, fs::copy_options::overwrite_existing);
}

void Sandbox::addReceipt(const std::string& identifier, const std::string& volume) const
{
    testsupport::writeFile(hostPath(std::string(kStatePath) + "/receipts/" + identifier), volume + "\n");
}

std::vector<std::string> Sandbox::receipts(const std::string& volume) const
{
    std::vector<std::string> identifiers;
    for (const fs::directory_entry& entry : fs::directory_iterator(hostPath(std::string(kStatePath) + "/receipts"))) {
        const std::string text = testsupport::readFile(entry.path().string());
        std::string on = text.substr(0, text.find('\n'));
        if (on.empty()) {
            on = "/";
        }
        if (on == volume) {
            identifiers.push_back(entry.path().filename().string());
        }
    }
    std::sort(identifiers.begin(), identifiers.end());
    return identifiers;
}

void Sandbox::addLoadedAgent(const std::string& plistPath) const
{
    const std::string loaded = hostPath(std::string(kStatePath) + "/launchd-loaded");
    testsupport::writeFile(loaded, testsupport::readFile(loaded) + plistPath + "\n");
}

std::vector<std::string> Sandbox::loadedAgents() const
{
    return readLines(hostPath(std::string(kStatePath) + "/launchd-loaded"));
}

std::vector<JournalEntry> Sandbox::journal() const
{
    std::vector<JournalEntry> entries;
    for (const std::string& line : readLines(hostPath(std::string(kStatePath) + "/journal"))) {
        JournalEntry entry;
        std::size_t start = 0;
        for (;;) {
            const std::size_t tab = line.find('\t', start);
            entry.push_back(unescapeField(line.substr(start, tab - start)));
            if (tab == std::string::npos) {
                break;
            }
            start = tab + 1;
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

void Sandbox::clearJournal() const
{
    testsupport::writeFile(hostPath(std::string(kStatePath) + "/journal"), "");
}

std::vector<std::string> Sandbox::tree(const std::string& under) const
{
    std::vector<std::pair<std::string, std::string>> listing;
    for (const Mount& mount : kTreeMounts) {
        std::string top = mount.inside;
        std::string remainder;
        if (!under.empty() && !remainderBelow(under, top, remainder)) {
            continue;
        }
        top += remainder;
        const fs::path start = hostPath(top);
        if (!fs::is_directory(fs::symlink_status(start))) {
            continue;
        }
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(start)) {
            const std::string inside = top + "/" + entry.path().lexically_relative(start).string();
            const fs::file_type type = entry.symlink_status().type();
            std::string line = std::string(1, typeMark(type)) + " " + inside;
            if (type == fs::file_type::symlink) {
                line += " -> " + fs::read_symlink(entry.path()).string();
            }
            listing.emplace_back(inside, std::move(line));
        }
    }
    std::sort(listing.begin(), listing.end());
    std::vector<std::string> lines;
    lines.reserve(listing.size());
    for (auto& [path, line] : listing) {
        lines.push_back(std::move(line));
    }
    return lines;
}

RunResult Sandbox::run(const std::vector<std::string>& arguments, const Environment& environment) const
{
    return runSandboxed(nullptr, kRemoverPath, arguments, environment);
}

RunResult Sandbox::runProgram(const std::string& program, const std::vector<std::string>& arguments,
                              const Environment& environment) const
{
    return runSandboxed(nullptr, program, arguments, environment);
}

RunResult Sandbox::runProgramAs(User user, const std::string& program, const std::vector<std::string>& arguments,
                                const Environment& environment) const
{
    return runSandboxed(&user, program, arguments, environment);
}

RunResult Sandbox::runSandboxed(const User* user, const std::string& program, const std::vector<std::string>& arguments,
                                const Environment& environment) const
{
    std::vector<std::string> command{"/bin/bash", kSandboxScript, "run", "--bundle"};
    if (theBundleIsCopy) {
        command.push_back(bundleCopyPath());
    } else {
        command.push_back(fs::is_directory(kBuiltBundle) ? kBuiltBundle : "");
    }
    for (const std::string& path : theReadOnlyPaths) {
        command.insert(command.end(), {"--ro", path});
    }
    for (const auto& [name, value] : environment) {
        command.insert(command.end(), {"--setenv", name, value});
    }
    if (user != nullptr) {
        command.insert(command.end(), {"--user", std::to_string(user->uid) + ":" + std::to_string(user->gid)});
    }
    command.insert(command.end(), {"--", root(), program});
    command.insert(command.end(), arguments.begin(), arguments.end());

    RunResult result = runCommand(command);
    // The script's own failures (a bad fixture or option) exit 125 before
    // anything runs inside.
    if (result.exitStatus == 125 && result.standardError.rfind("sandbox.sh: ", 0) == 0) {
        throw std::runtime_error(result.standardError);
    }
    if (!result.signaled && result.exitStatus > 128 && result.exitStatus < 128 + 65) {
        result.signaled = true;
        result.signalNumber = result.exitStatus - 128;
    }
    return result;
}

}  // namespace testsupport
