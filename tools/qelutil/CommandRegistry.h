// The commands of qelutil. Each command file registers its commands with a
// static registrar object, so adding a command never touches another file:
//
//   namespace {
//   int runAppType(const std::vector<std::string>& positional) { ... }
//   const qelutil::CommandRegistrar appTypeCommand({"app-type", "app-type", runAppType});
//   }
//
// run receives the positional arguments that follow the command name (the
// settings part of the command line, "-Key value ...", is already handed to
// the user defaults) and returns the exit status. A command that finds its
// command line malformed throws UsageError; qelutil then prints the
// command's usage on standard error and exits 64.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qelutil {

struct Command {
    std::string name;
    // The command line after "qelutil", e.g. "raise CODE".
    std::string usage;
    int (*run)(const std::vector<std::string>& positional);
};

class CommandRegistry {
public:
    CommandRegistry() = delete;

    // Adds a command; a second command of the same name replaces nothing and
    // is ignored.
    static void add(Command command);
    // The command of that name, or nullptr.
    static const Command* find(const std::string& name);
    // Every command, sorted by name.
    static std::vector<Command> all();
    // The usage of qelutil: its command line and every command's usage, one
    // a line. Made from the registry, so a new command appears by itself.
    static std::string usageText();
    // "usage: qelutil <command's usage> [-Key value ...]" and a new line.
    static std::string usageText(const Command& command);
};

struct CommandRegistrar {
    explicit CommandRegistrar(Command command);
};

// Thrown by a command whose positional arguments are wrong.
class UsageError : public std::runtime_error {
public:
    explicit UsageError(const std::string& why) : std::runtime_error(why) {}
};

// Throws UsageError unless positional holds between min and max arguments.
void requireArgumentCount(const std::vector<std::string>& positional, std::size_t min, std::size_t max);
// A whole decimal signed 32-bit number ("-1", "1874"); anything else, blanks
// included, throws UsageError.
int32_t parseInt32Argument(const std::string& text);

// Exit statuses of qelutil.
inline constexpr int kExitUsage = 64;
inline constexpr int kExitFatalException = 70;
inline constexpr int kExitNonFatalException = 71;

}  // namespace qelutil
