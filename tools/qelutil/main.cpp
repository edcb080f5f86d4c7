// qelutil: the shared services on the command line, for scripts and tests.
//
//   qelutil COMMAND [ARGUMENT ...] [-Key value ...]
//
// Positional arguments come first. Everything from the first argument that
// is a hyphen followed by an ASCII letter on is handed to the user defaults'
// argument domain, so "log -1 MESSAGE" still reads -1 as a level while
// "-ForceError 1874 -LogLevel 1 -AppType X" are settings.
//
// Exit status: what the command returns (0 on success unless it says
// otherwise); 64 with a usage text on standard error for a bad command line;
// 70 with "QELFatalException <code>" on standard error when the fatal
// exception escapes (the code of the error it carries, 0 without one); 71
// with "QELNonFatalException" when the non-fatal one escapes. Any other
// platform exception that escapes prints "<name>: <reason>" and exits 70.
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "base/QELBase.h"
#include "base/QELBaseConstants.h"
#include "platform/Error.h"
#include "platform/Exception.h"
#include "platform/ProcessInfo.h"
#include "platform/UserDefaults.h"
#include "tools/qelutil/CommandRegistry.h"

namespace {

void printUsage(const qelutil::Command* command)
{
    const std::string text =
        command != nullptr ? qelutil::CommandRegistry::usageText(*command) : qelutil::CommandRegistry::usageText();
    std::fputs(text.c_str(), stderr);
}

int runCommand(const qelutil::Command& command, const std::vector<std::string>& positional)
{
    try {
        return command.run(positional);
    } catch (const qelutil::UsageError& error) {
        std::fprintf(stderr, "qelutil %s: %s\n", command.name.c_str(), error.what());
        printUsage(&command);
        return qelutil::kExitUsage;
    } catch (const platform::Exception& exception) {
        std::fflush(stdout);
        if (exception.name() == QEL_FATAL_EXCEPTION_NAME) {
            const std::optional<platform::Error> carried = QELBase::errorOfException(exception);
            std::fprintf(stderr, "%s %d\n", QEL_FATAL_EXCEPTION_NAME, carried ? carried->code() : 0);
            return qelutil::kExitFatalException;
        }
        if (exception.name() == QEL_NON_FATAL_EXCEPTION_NAME) {
            std::fprintf(stderr, "%s\n", QEL_NON_FATAL_EXCEPTION_NAME);
            return qelutil::kExitNonFatalException;
        }
        std::fprintf(stderr, "%s: %s\n", exception.name().c_str(), exception.reason().c_str());
        return qelutil::kExitFatalException;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    platform::ProcessInfo::setArguments(argc, argv);

    std::vector<std::string> positional;
    std::vector<std::string> settings;
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        if (!settings.empty() || platform::UserDefaults::isKeyArgument(argument)) {
            settings.push_back(std::move(argument));
        } else {
            positional.push_back(std::move(argument));
        }
    }
    platform::UserDefaults::standardUserDefaults().setArgumentDomainFromArguments(settings);

    if (positional.empty()) {
        printUsage(nullptr);
        return qelutil::kExitUsage;
    }
    const qelutil::Command* command = qelutil::CommandRegistry::find(positional.front());
    if (command == nullptr) {
        std::fprintf(stderr, "qelutil: unknown command \"%s\"\n", positional.front().c_str());
        printUsage(nullptr);
        return qelutil::kExitUsage;
    }
    positional.erase(positional.begin());
    const int status = runCommand(*command, positional);
    std::fflush(stdout);
    return status;
}
