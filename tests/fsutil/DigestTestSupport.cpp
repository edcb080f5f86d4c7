#include "tests/fsutil/DigestTestSupport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sstream>
#include <stdexcept>

#include "base/QELBase.h"
#include "base/QELBaseConstants.h"
#include "fsutil/Sha256.h"
#include "platform/Error.h"
#include "platform/Exception.h"
#include "platform/UserDefaults.h"

extern char** environ;

namespace digesttest {

namespace {

int spawnWithRedirections(const std::string& program, const std::vector<std::string>& arguments, int stdinFd,
                          const std::string& outPath, const std::string& errPath)
{
    std::vector<std::string> argvStrings;
    argvStrings.push_back(program);
    argvStrings.insert(argvStrings.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(argvStrings.size() + 1);
    for (std::string& s : argvStrings) {
        argv.push_back(s.data());
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, stdinFd, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        throw std::runtime_error("cannot start " + program);
    }
    return pid;
}

int waitForExit(int pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::runtime_error("waitpid failed");
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

uint64_t nextRandom(uint64_t& state)
{
    // splitmix64
    state += 0x9e3779b97f4a7c15ULL;
    uint64_t z = state;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

}  // namespace

std::string hex(const unsigned char* bytes, size_t count)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * count);
    for (size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0f];
    }
    return text;
}

std::string sha224Hex(const std::string& message)
{
    unsigned char digest[SHA224_DIGEST_SIZE] = {};
    sha224(reinterpret_cast<const unsigned char*>(message.data()), static_cast<uint32_t>(message.size()), digest);
    return hex(digest, sizeof digest);
}

std::string sha256Hex(const std::string& message)
{
    unsigned char digest[SHA256_DIGEST_SIZE] = {};
    sha256(reinterpret_cast<const unsigned char*>(message.data()), static_cast<uint32_t>(message.size()), digest);
    return hex(digest, sizeof digest);
}

std::string hexOfState(const uint32_t* state)
{
    unsigned char digest[SHA256_DIGEST_SIZE];
    for (size_t i = 0; i < 8; ++i) {
        for (size_t j = 0; j < 4; ++j) {
            digest[4 * i + j] = static_cast<unsigned char>(state[i] >> (24 - 8 * j));
        }
    }
    return hex(digest, sizeof digest);
}

ByteStream::ByteStream(uint64_t seed) : theState(seed) {}

void ByteStream::fill(unsigned char* bytes, size_t count)
{
    size_t i = 0;
    while (i < count) {
        uint64_t r = nextRandom(theState);
        for (int j = 0; j < 8 && i < count; ++j, ++i) {
            bytes[i] = static_cast<unsigned char>(r);
            r >>= 8;
        }
    }
}

std::string messageBytes(size_t count, uint64_t seed)
{
    std::string bytes(count, '\0');
    ByteStream stream(seed * 0x100000001b3ULL + count);
    stream.fill(reinterpret_cast<unsigned char*>(bytes.data()), count);
    return bytes;
}

CommandResult runCommand(const std::string& program, const std::vector<std::string>& arguments,
                         const std::string& stdinText)
{
    const testsupport::TempDir dir;
    testsupport::writeFile(dir.at("stdin"), stdinText);
    const int stdinFd = open(dir.at("stdin").c_str(), O_RDONLY | O_CLOEXEC);
    if (stdinFd < 0) {
        throw std::runtime_error("cannot open the standard input file");
    }
    CommandResult result;
    try {
        const int pid = spawnWithRedirections(program, arguments, stdinFd, dir.at("stdout"), dir.at("stderr"));
        close(stdinFd);
        result.exitStatus = waitForExit(pid);
    } catch (...) {
        close(stdinFd);
        throw;
    }
    result.out = testsupport::readFile(dir.at("stdout"));
    result.err = testsupport::readFile(dir.at("stderr"));
    return result;
}

std::vector<std::string> opensslDigestsOfFiles(const std::string& algorithm, const std::vector<std::string>& files)
{
    std::vector<std::string> arguments = {"dgst", "-" + algorithm, "-r"};
    arguments.insert(arguments.end(), files.begin(), files.end());
    const CommandResult result = runCommand("openssl", arguments);
    if (result.exitStatus != 0) {
        throw std::runtime_error("openssl failed: " + result.err);
    }
    // One line per file: "<hex> *<path>".
    std::vector<std::string> digests;
    std::istringstream lines(result.out);
    std::string line;
    while (std::getline(lines, line)) {
        digests.push_back(line.substr(0, line.find(' ')));
    }
    if (digests.size() != files.size()) {
        throw std::runtime_error("openssl printed an unexpected number of digests");
    }
    return digests;
}

OpensslDigestPipe::OpensslDigestPipe(const std::string& algorithm)
{
    // A child that dies early must show up as a failed write, not kill us.
    std::signal(SIGPIPE, SIG_IGN);
    int fds[2] = {-1, -1};
    if (pipe2(fds, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    try {
        thePid = spawnWithRedirections("openssl", {"dgst", "-" + algorithm, "-r"}, fds[0], theDirectory.at("stdout"),
                                       theDirectory.at("stderr"));
    } catch (...) {
        close(fds[0]);
        close(fds[1]);
        throw;
    }
    close(fds[0]);
    theInput = fds[1];
}

OpensslDigestPipe::~OpensslDigestPipe()
{
    if (theInput >= 0) {
        close(theInput);
    }
    if (thePid > 0) {
        try {
            waitForExit(thePid);
        } catch (...) {  // NOLINT(bugprone-empty-catch)
        }
    }
}

void OpensslDigestPipe::write(const unsigned char* bytes, size_t count)
{
    while (count > 0) {
        const ssize_t written = ::write(theInput, bytes, count);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::runtime_error("writing to openssl failed");
        }
        bytes += written;
        count -= static_cast<size_t>(written);
    }
}

std::string OpensslDigestPipe::finish()
{
    close(theInput);
    theInput = -1;
    const int status = waitForExit(thePid);
    thePid = -1;
    if (status != 0) {
        throw std::runtime_error("openssl failed");
    }
    const std::string out = testsupport::readFile(theDirectory.at("stdout"));
    return out.substr(0, out.find(' '));
}

std::string qelutilPath()
{
    return std::string(REMOVER_BUNDLE_PATH) + "/Contents/MacOS/qelutil";
}

CommandResult runQelutil(const std::vector<std::string>& arguments, const std::vector<std::string>& visiblePaths,
                         const std::string& stdinText)
{
    const passwd* user = getpwuid(geteuid());
    if (user == nullptr || user->pw_dir == nullptr) {
        throw std::runtime_error("no home folder for the running user");
    }
    const testsupport::TempDir home;
    std::vector<std::string> sandbox = {"--ro-bind", "/", "/", "--tmpfs", "/tmp", "--bind", home.path(), user->pw_dir,
                                        // The bundle stays visible wherever it was built.
                                        "--ro-bind", REMOVER_BUNDLE_PATH, REMOVER_BUNDLE_PATH};
    for (const std::string& path : visiblePaths) {
        sandbox.insert(sandbox.end(), {"--ro-bind", path, path});
    }
    sandbox.emplace_back("--");
    sandbox.push_back(qelutilPath());
    sandbox.insert(sandbox.end(), arguments.begin(), arguments.end());
    return runCommand("bwrap", sandbox, stdinText);
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

int32_t fatalErrorCodeRaisedBy(const std::function<void()>& fn)
{
    try {
        fn();
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), QEL_FATAL_EXCEPTION_NAME);
        const std::optional<platform::Error> error = QELBase::errorOfException(exception);
        return error ? error->code() : 0;
    }
    ADD_FAILURE() << "nothing was raised";
    return 0;
}

void useCommandLineSettings(std::vector<std::string> arguments)
{
    const std::string appTypeKey = std::string("-") + APP_TYPE_KEY;
    if (std::find(arguments.begin(), arguments.end(), appTypeKey) == arguments.end()) {
        arguments.insert(arguments.end(), {appTypeKey, "Digest Test"});
    }
    platform::UserDefaults::standardUserDefaults().setArgumentDomainFromArguments(arguments);
}

}  // namespace digesttest
