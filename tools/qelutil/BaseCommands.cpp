// qelutil commands of the error model, logging and process identity.
//
//   app-type             prints the application type
//   raise CODE           raises the fatal exception with CODE (exits 70)
//   raise-non-fatal CODE logs CODE and raises the non-fatal exception
//                        (exits 71)
//   log LEVEL MESSAGE... logs each MESSAGE at LEVEL (-1, 0 or 1), in order,
//                        in one process; prints nothing
//   log-path             prints the log file's path (setting the file up),
//                        or an empty line when the set-up failed
//   log-level [COUNT]    reads the verbosity level COUNT times (default 1),
//                        as every logged line does; prints the level and
//                        how many times a stored settings file was read and
//                        parsed meanwhile ("0 1")
//   verify CODE [COUNT]  runs COUNT (default 1) checks of CODE whose
//                        condition holds, as every check site does; prints
//                        the number of each check that passed, one a line.
//                        With -ForceError CODE a check can still fail: the
//                        fatal exception then escapes (exits 70).
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "base/QELBase.h"
#include "platform/UserDefaults.h"
#include "tools/qelutil/CommandRegistry.h"

namespace {

int runAppType(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 0, 0);
    std::printf("%s\n", QELBase::appType().c_str());
    return 0;
}

int runRaise(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 1, 1);
    QELBase::raiseWithErrorCode(qelutil::parseInt32Argument(positional[0]));
}

int runRaiseNonFatal(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 1, 1);
    QELBase::raiseAndLogErrorCode(qelutil::parseInt32Argument(positional[0]));
}

int runLog(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 2, SIZE_MAX);
    const int32_t level = qelutil::parseInt32Argument(positional[0]);
    for (std::size_t i = 1; i < positional.size(); ++i) {
        QELBase::log(positional[i], level);
    }
    return 0;
}

int runLogPath(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 0, 0);
    std::printf("%s\n", QELBase::logFilePath().value_or(std::string()).c_str());
    return 0;
}

int runLogLevel(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 0, 1);
    const int32_t count = positional.empty() ? 1 : qelutil::parseInt32Argument(positional[0]);
    if (count < 1) {
        throw qelutil::UsageError("COUNT must be at least 1");
    }
    const platform::UserDefaults& defaults = platform::UserDefaults::standardUserDefaults();
    const uint64_t readsBefore = defaults.storedDomainReadCount();
    int32_t level = 0;
    for (int32_t i = 0; i < count; ++i) {
        level = QELBase::verbosityLevel();
    }
    std::printf("%d %llu\n", level, static_cast<unsigned long long>(defaults.storedDomainReadCount() - readsBefore));
    return 0;
}

int runVerify(const std::vector<std::string>& positional)
{
    qelutil::requireArgumentCount(positional, 1, 2);
    const int32_t code = qelutil::parseInt32Argument(positional[0]);
    const int32_t count = positional.size() > 1 ? qelutil::parseInt32Argument(positional[1]) : 1;
    if (count < 0) {
        throw qelutil::UsageError("COUNT must not be negative");
    }
    for (int32_t i = 1; i <= count; ++i) {
        QELBase::verifyCondition(true, code);
        std::printf("%d\n", i);
        std::fflush(stdout);
    }
    return 0;
}

const qelutil::CommandRegistrar appTypeCommand({"app-type", "app-type", runAppType});
const qelutil::CommandRegistrar raiseCommand({"raise", "raise CODE", runRaise});
const qelutil::CommandRegistrar raiseNonFatalCommand({"raise-non-fatal", "raise-non-fatal CODE", runRaiseNonFatal});
const qelutil::CommandRegistrar logCommand({"log", "log LEVEL MESSAGE...", runLog});
const qelutil::CommandRegistrar logPathCommand({"log-path", "log-path", runLogPath});
const qelutil::CommandRegistrar logLevelCommand({"log-level", "log-level [COUNT]", runLogLevel});
const qelutil::CommandRegistrar verifyCommand({"verify", "verify CODE [COUNT]", runVerify});

}  // namespace
