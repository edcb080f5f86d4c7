// qelutil's help, the same usage text a bad command line prints on standard
// error, on standard output:
//
//   help            the usage of qelutil and of every command
//   help COMMAND    the usage of COMMAND; an unknown one is a usage error
#include <cstdio>
#include <string>
#include <vector>

#include "tools/qelutil/CommandRegistry.h"

namespace {

int runHelp(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 0, 1);
    if (positional.empty()) {
        std::fputs(qelutil::CommandRegistry::usageText().c_str(), stdout);
        return 0;
    }
    const qelutil::Command* command = qelutil::CommandRegistry::find(positional.front());
    if (command == nullptr) {
        throw qelutil::UsageError("unknown command \"" + positional.front() + "\"");
    }
    std::fputs(qelutil::CommandRegistry::usageText(*command).c_str(), stdout);
    return 0;
}

const qelutil::CommandRegistrar helpCommand({"help", "help [COMMAND]", runHelp});

}  // namespace
