#include "tests/base/BaseTestSupport.h"

#include <array>
#include <filesystem>
#include <cerrno>
#include <poll.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/ConsoleLog.h"
#include "platform/UserDefaults.h"

namespace basetest {

void useCommandLineSettings(const std::vector<std::string>& arguments)
{
    platform::UserDefaults::standardUserDefaults().setArgumentDomainFromArguments(arguments);
}

ConsoleCapture::ConsoleCapture()
{
    platform::ConsoleLog::setSinkForTesting([this](const std::string& message) {
        const std::lock_guard<std::mutex> guard(theMutex);
        theMessages.push_back(message);
    });
}

ConsoleCapture::~ConsoleCapture()
{
    platform::ConsoleLog::setSinkForTesting(nullptr);
}

std::vector<std::string> ConsoleCapture::messages() const
{
    const std::lock_guard<std::mutex> guard(theMutex);
    return theMessages;
}

std::string bundlePath()
{
    return REMOVER_BUNDLE_PATH;
}

std::string qelutilPathIn(const std::string& bundle)
{
    return bundle + "/Contents/MacOS/qelutil";
}

namespace {

std::string homeOfRunningUser()
{
    const passwd* entry = getpwuid(geteuid());
    if (entry == nullptr || entry->pw_dir == nullptr) {
        throw std::runtime_error("no password entry for the running user");
    }
    return entry->pw_dir;
}

// Reads both pipes to their end, whichever has data, so that neither fills.
void drain(int outFd, int errFd, std::string& out, std::string& err)
{
    std::array<pollfd, 2> fds{{{outFd, POLLIN, 0}, {errFd, POLLIN, 0}}};
    std::array<std::string*, 2> sinks{&out, &err};
    int open = 2;
    std::array<char, 4096> buffer{};
    while (open > 0) {
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::runtime_error("poll failed");
        }
        for (std::size_t i = 0; i < fds.size(); ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            const ssize_t count = read(fds[i].fd, buffer.data(), buffer.size());
            if (count > 0) {
                sinks[i]->append(buffer.data(), static_cast<std::size_t>(count));
            } else if (count == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
}

}  // namespace

RunResult runSandboxed(const std::string& homeFolder, const std::string& executable,
                       const std::vector<std::string>& arguments, const std::vector<std::string>& readablePaths)
{
    std::vector<std::string> argv{"bwrap",    "--ro-bind",        "/", "/", "--tmpfs", "/tmp", "--bind",
                                  homeFolder, homeOfRunningUser()};
    // The fresh /tmp would hide a build that lives below /tmp: the
    // executable's own bundle (X.app/Contents/MacOS/exe) is bound back in.
    const std::string bundle = std::filesystem::path(executable).parent_path().parent_path().parent_path().string();
    argv.insert(argv.end(), {"--ro-bind", bundle, bundle});
    for (const auto& path : readablePaths) {
        argv.insert(argv.end(), {"--ro-bind", path, path});
    }
    argv.emplace_back("--");
    argv.push_back(executable);
    argv.insert(argv.end(), arguments.begin(), arguments.end());

    std::vector<char*> cArgv;
    cArgv.reserve(argv.size() + 1);
    for (auto& each : argv) {
        cArgv.push_back(each.data());
    }
    cArgv.push_back(nullptr);

    std::array<int, 2> outPipe{};
    std::array<int, 2> errPipe{};
    if (pipe(outPipe.data()) != 0 || pipe(errPipe.data()) != 0) {
        throw std::runtime_error("pipe failed");
    }
    const pid_t pid = fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        dup2(outPipe[1], STDOUT_FILENO);
        dup2(errPipe[1], STDERR_FILENO);
        close(outPipe[0]);
        close(outPipe[1]);
        close(errPipe[0]);
        close(errPipe[1]);
        execvp(cArgv[0], cArgv.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    RunResult result;
    drain(outPipe[0], errPipe[0], result.out, result.err);
    int waitStatus = 0;
    while (waitpid(pid, &waitStatus, 0) < 0) {
        if (errno != EINTR) {
            throw std::runtime_error("waitpid failed");
        }
    }
    result.status = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
    return result;
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

bool anyLineEndsWith(const std::vector<std::string>& lines, const std::string& suffix)
{
    return !linesEndingWith(lines, suffix).empty();
}

std::vector<std::string> linesEndingWith(const std::vector<std::string>& lines, const std::string& suffix)
{
    std::vector<std::string> found;
    for (const auto& line : lines) {
        if (line.size() >= suffix.size() && line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0) {
            found.push_back(line);
        }
    }
    return found;
}

}  // namespace basetest
