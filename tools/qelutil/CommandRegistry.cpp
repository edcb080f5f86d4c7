#include "tools/qelutil/CommandRegistry.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <utility>

namespace qelutil {

namespace {

std::map<std::string, Command>& commands()
{
    // Built on first use, so registrars in any file may run first.
    static std::map<std::string, Command> registry;
    return registry;
}

}  // namespace

void CommandRegistry::add(Command command)
{
    std::string name = command.name;
    commands().emplace(std::move(name), std::move(command));
}

const Command* CommandRegistry::find(const std::string& name)
{
    const auto& registry = commands();
    const auto found = registry.find(name);
    return found == registry.end() ? nullptr : &found->second;
}

std::vector<Command> CommandRegistry::all()
{
    std::vector<Command> result;
    for (const auto& entry : commands()) {
        result.push_back(entry.second);
    }
    return result;
}

std::string CommandRegistry::usageText()
{
    std::string text = "usage: qelutil COMMAND [ARGUMENT ...] [-Key value ...]\ncommands:\n";
    for (const auto& entry : commands()) {
        text += "  " + entry.second.usage + "\n";
    }
    return text;
}

std::string CommandRegistry::usageText(const Command& command)
{
    return "usage: qelutil " + command.usage + " [-Key value ...]\n";
}

CommandRegistrar::CommandRegistrar(Command command)
{
    CommandRegistry::add(std::move(command));
}

void requireArgumentCount(const std::vector<std::string>& positional, std::size_t min, std::size_t max)
{
    if (positional.size() < min) {
        throw UsageError("too few arguments");
    }
    if (positional.size() > max) {
        throw UsageError("too many arguments");
    }
}

int32_t parseInt32Argument(const std::string& text)
{
    int32_t value = 0;
    const char* first = text.data();
    const char* last = first + text.size();
    const auto [end, error] = std::from_chars(first, last, value);
    if (text.empty() || error != std::errc() || end != last) {
        throw UsageError("not a 32-bit number: " + text);
    }
    return value;
}

}  // namespace qelutil
