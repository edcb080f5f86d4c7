#include "tests/support/Subprocess.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

extern char** environ;

namespace testsupport {

namespace {

[[noreturn]] void throwErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

struct PipeEnds {
    Descriptor read;
    Descriptor write;
};

PipeEnds makePipe()
{
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throwErrno("pipe2");
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

// Owns the file actions of one spawn.
class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&theActions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&theActions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    posix_spawn_file_actions_t* get() noexcept { return &theActions; }

private:
    posix_spawn_file_actions_t theActions{};
};

std::vector<char*> pointersTo(std::vector<std::string>& words)
{
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

Subprocess::Subprocess(const std::vector<std::string>& command, Input input,
                       const std::vector<std::string>& extraEnvironment)
{
    if (command.empty()) {
        throw std::invalid_argument("no command to run");
    }
    std::vector<std::string> arguments = command;
    std::vector<char*> argv = pointersTo(arguments);
    std::vector<std::string> environment = extraEnvironment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        environment.emplace_back(*entry);
    }
    std::vector<char*> envp = pointersTo(environment);

    PipeEnds out = makePipe();
    PipeEnds err = makePipe();
    PipeEnds in;
    SpawnActions actions;
    if (input == Input::Pipe) {
        // A child that stops reading must show up as a failed write, not end
        // the test process.
        std::signal(SIGPIPE, SIG_IGN);
        in = makePipe();
        posix_spawn_file_actions_adddup2(actions.get(), in.read.get(), STDIN_FILENO);
    } else {
        posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    posix_spawn_file_actions_adddup2(actions.get(), out.write.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(actions.get(), err.write.get(), STDERR_FILENO);
    const int spawned = posix_spawnp(&thePid, argv[0], actions.get(), nullptr, argv.data(), envp.data());
    if (spawned != 0) {
        thePid = -1;
        throw std::system_error(spawned, std::generic_category(), "cannot start " + command[0]);
    }
    theOutput = std::move(out.read);
    theError = std::move(err.read);
    if (input == Input::Pipe) {
        theInput = std::move(in.write);
        // Written only when poll says there is room, never blocking on a
        // child that is busy writing its output.
        ::fcntl(theInput.get(), F_SETFL, O_NONBLOCK);
    }
}

Subprocess::~Subprocess()
{
    if (thePid > 0) {
        ::kill(thePid, SIGKILL);
        int status = 0;
        while (waitpid(thePid, &status, 0) < 0 && errno == EINTR) {
        }
    }
}

void Subprocess::write(std::string_view bytes)
{
    if (!theInput.isOpen()) {
        throw std::logic_error("the child's standard input is not a pipe of the test");
    }
    if (!bytes.empty()) {
        pump(bytes);
    }
}

void Subprocess::pump(std::string_view pending)
{
    const bool writing = !pending.empty();
    std::array<char, 65536> buffer{};
    for (;;) {
        if (writing ? pending.empty() : !theOutput.isOpen() && !theError.isOpen()) {
            return;
        }
        std::array<pollfd, 3> fds{
            {{theOutput.get(), POLLIN, 0}, {theError.get(), POLLIN, 0}, {writing ? theInput.get() : -1, POLLOUT, 0}}};
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            throwErrno("poll");
        }
        const std::array<std::pair<Descriptor*, std::string*>, 2> outputs{
            {{&theOutput, &theResult.standardOutput}, {&theError, &theResult.standardError}}};
        for (std::size_t i = 0; i < outputs.size(); ++i) {
            if (fds.at(i).fd < 0 || fds.at(i).revents == 0) {
                continue;
            }
            const ssize_t n = ::read(fds.at(i).fd, buffer.data(), buffer.size());
            if (n > 0) {
                outputs.at(i).second->append(buffer.data(), static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                outputs.at(i).first->close();
            }
        }
        if (fds[2].fd >= 0 && fds[2].revents != 0) {
            const ssize_t n = ::write(theInput.get(), pending.data(), pending.size());
            if (n > 0) {
                pending.remove_prefix(static_cast<std::size_t>(n));
            } else if (errno != EINTR && errno != EAGAIN) {
                throwErrno("writing to the child's standard input");
            }
        }
    }
}

RunResult Subprocess::finish()
{
    if (thePid <= 0) {
        throw std::logic_error("the child has been waited for already");
    }
    theInput.close();
    pump({});
    int status = 0;
    while (waitpid(thePid, &status, 0) < 0) {
        if (errno != EINTR) {
            throwErrno("waitpid");
        }
    }
    thePid = -1;
    if (WIFSIGNALED(status)) {
        theResult.signaled = true;
        theResult.signalNumber = WTERMSIG(status);
        theResult.exitStatus = 128 + theResult.signalNumber;
    } else {
        theResult.exitStatus = WEXITSTATUS(status);
    }
    return std::move(theResult);
}

RunResult runCommand(const std::vector<std::string>& command)
{
    return runCommand(command, CommandOptions{});
}

RunResult runCommand(const std::vector<std::string>& command, const CommandOptions& options)
{
    Subprocess child(command, options.input ? Subprocess::Input::Pipe : Subprocess::Input::Null,
                     options.extraEnvironment);
    if (options.input) {
        child.write(*options.input);
    }
    return child.finish();
}

}  // namespace testsupport
