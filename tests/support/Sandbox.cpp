#include "tests/support/Sandbox.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>

#include "tests/support/Lines.h"

namespace testsupport {

namespace fs = std::filesystem;

namespace {

const std::string kSandboxScript = REMOVER_SANDBOX_SCRIPT;
const std::string kBuiltBundle = REMOVER_BUNDLE_PATH;
const std::string kBuiltDoubles = std::string(REMOVER_TEST_BINARY_DIR) + "/doubles";

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

// Runs the sandbox script; its own failures throw.
RunResult runScript(const std::vector<std::string>& arguments)
{
    std::vector<std::string> command{"/bin/bash", kSandboxScript};
    command.insert(command.end(), arguments.begin(), arguments.end());
    RunResult result = runCommand(command);
    // The script's own failures (a bad fixture or option) exit 125 before
    // anything runs inside.
    if (result.exitStatus == 125 && result.standardError.rfind("sandbox.sh: ", 0) == 0) {
        throw std::runtime_error(result.standardError);
    }
    return result;
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

}  // namespace

const char* layoutName(Layout layout)
{
    return layout == Layout::SingleDisk ? "SingleDisk" : "SeparateMounts";
}

void PrintTo(Layout layout, std::ostream* out)
{
    *out << layoutName(layout);
}

Sandbox::Sandbox(Layout layout) : theLayout(layout)
{
    const RunResult init =
        runScript({"init", "--layout", layout == Layout::SingleDisk ? "single-disk" : "separate", root()});
    if (init.exitStatus != 0) {
        throw std::runtime_error("cannot lay down the fixture: " + init.standardError);
    }
    const RunResult folders = runScript({"layout", root()});
    for (const std::string& line : linesOf(folders.standardOutput)) {
        const std::size_t first = line.find('\t');
        const std::size_t second = line.rfind('\t');
        if (first == std::string::npos || second == first) {
            throw std::runtime_error("unexpected fixture layout line: " + line);
        }
        theFolders.push_back(
            {line.substr(0, first), line.substr(first + 1, second - first - 1), line.substr(second + 1) == "listed"});
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
    for (const Folder& folder : theFolders) {
        if (remainderBelow(inside, folder.inside, remainder)) {
            return folder.host + remainder;
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
    const bool inTree = std::any_of(theFolders.begin(), theFolders.end(), [&](const Folder& folder) {
        return folder.listed && remainderBelow(path, folder.inside, remainder);
    });
    if (!inTree || !exists(path)) {
        throw std::invalid_argument("nothing to make read-only at " + path);
    }
    theReadOnlyPaths.push_back(path);
}

void Sandbox::bindFolder(const std::string& source, const std::string& mountPoint)
{
    if (!fs::is_directory(hostPath(source))) {
        throw std::invalid_argument("no folder to bind at " + source);
    }
    makeDirectory(mountPoint);
    theBinds.emplace_back(source, mountPoint);
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
    return linesOf(testsupport::readFile(hostPath(std::string(kStatePath) + "/launchd-loaded")));
}

std::vector<JournalEntry> Sandbox::journal() const
{
    std::vector<JournalEntry> entries;
    for (const std::string& line : linesOf(testsupport::readFile(hostPath(std::string(kStatePath) + "/journal")))) {
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
    for (const Folder& folder : theFolders) {
        if (!folder.listed) {
            continue;
        }
        std::string top = folder.inside;
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
    return runWith(kRemoverPath, arguments,
                   {environment, std::nullopt, std::nullopt, false, std::nullopt, std::nullopt});
}

RunResult Sandbox::runProgram(const std::string& program, const std::vector<std::string>& arguments,
                              const Environment& environment) const
{
    return runWith(program, arguments, {environment, std::nullopt, std::nullopt, false, std::nullopt, std::nullopt});
}

RunResult Sandbox::runProgramAs(User user, const std::string& program, const std::vector<std::string>& arguments,
                                const Environment& environment) const
{
    return runWith(program, arguments, {environment, user, std::nullopt, false, std::nullopt, std::nullopt});
}

RunResult Sandbox::runWith(const std::string& program, const std::vector<std::string>& arguments,
                           const RunOptions& options) const
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
    for (const auto& [source, mountPoint] : theBinds) {
        command.insert(command.end(), {"--bind", source, mountPoint});
    }
    for (const auto& [name, value] : options.environment) {
        command.insert(command.end(), {"--setenv", name, value});
    }
    if (options.workingFolder) {
        command.insert(command.end(), {"--chdir", *options.workingFolder});
    }
    if (options.withoutCapabilities) {
        command.push_back("--no-caps");
    }
    if (options.withoutProc) {
        command.push_back("--no-proc");
    }
    if (options.seccompFilter) {
        command.insert(command.end(), {"--seccomp", *options.seccompFilter});
    }
    if (options.user) {
        command.insert(command.end(),
                       {"--user", std::to_string(options.user->uid) + ":" + std::to_string(options.user->gid)});
    }
    command.insert(command.end(), {"--", root(), program});
    command.insert(command.end(), arguments.begin(), arguments.end());

    CommandOptions commandOptions;
    commandOptions.input = options.input;
    RunResult result = runCommand(command, commandOptions);
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
