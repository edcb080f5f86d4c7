#include "platform/ProcessInfo.h"

#include "platform/Path.h"
#include "platform/PosixIO.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>

namespace platform {

namespace {

struct ArgumentStore {
    std::mutex lock;
    std::optional<std::vector<std::string>> arguments;
};

ArgumentStore& store()
{
    static ArgumentStore theStore;
    return theStore;
}

// The arguments the kernel kept for this process, each ended by a NUL byte.
std::vector<std::string> readOwnCommandLine()
{
    std::string contents;
    const posix::UniqueFd file = posix::openFile("/proc/self/cmdline", O_RDONLY);
    if (file.valid()) {
        static_cast<void>(posix::readAll(file.get(), contents));
    }
    std::vector<std::string> arguments;
    std::size_t start = 0;
    while (start < contents.size()) {
        auto end = contents.find('\0', start);
        if (end == std::string::npos) {
            end = contents.size();
        }
        arguments.emplace_back(contents, start, end - start);
        start = end + 1;
    }
    return arguments;
}

}  // namespace

void ProcessInfo::setArguments(int argc, const char* const* argv)
{
    std::vector<std::string> arguments;
    for (int i = 0; i < argc && argv != nullptr && argv[i] != nullptr; ++i) {
        arguments.emplace_back(argv[i]);
    }
    setArguments(std::move(arguments));
}

void ProcessInfo::setArguments(std::vector<std::string> arguments)
{
    ArgumentStore& theStore = store();
    const std::lock_guard<std::mutex> guard(theStore.lock);
    theStore.arguments = std::move(arguments);
}

const std::vector<std::string>& ProcessInfo::arguments()
{
    ArgumentStore& theStore = store();
    const std::lock_guard<std::mutex> guard(theStore.lock);
    if (!theStore.arguments) {
        theStore.arguments = readOwnCommandLine();
    }
    return *theStore.arguments;
}

std::string ProcessInfo::processName()
{
    const std::vector<std::string>& all = arguments();
    return all.empty() ? std::string() : lastPathComponent(all.front());
}

pid_t ProcessInfo::processIdentifier()
{
    return ::getpid();
}

std::optional<std::string> ProcessInfo::environmentValue(const char* name)
{
    const char* value = std::getenv(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::string(value);
}

std::optional<std::string> ProcessInfo::currentDirectoryPath()
{
    std::string buffer(4096, '\0');
    for (;;) {
        if (::getcwd(buffer.data(), buffer.size()) != nullptr) {
            buffer.resize(std::char_traits<char>::length(buffer.c_str()));
            return buffer;
        }
        if (errno != ERANGE) {
            return std::nullopt;
        }
        buffer.resize(buffer.size() * 2);
    }
}

void ProcessInfo::closeInheritedDescriptors()
{
    ::close_range(3, ~0U, 0);
}

}  // namespace platform
