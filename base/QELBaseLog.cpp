// Logging of QELBase: the verbosity filter and where each line goes.
//
// The log file is found and set up once per process, on first use, by
// logPath. That set-up is not built yet: logPath makes its one attempt,
// finds no file and leaves every line to the console.
#include <cstdint>

#include "base/QELBase.h"
#include "platform/ConsoleLog.h"
#include "platform/UserDefaults.h"

namespace {

// Guarded by errorLock.
bool gMayCreateLog = true;
std::optional<std::string> gCachedLogPath;

}  // namespace

void QELBase::log(const std::string& message, int32_t verbosityLevel)
{
    if (QELBase::verbosityLevel() < verbosityLevel) {
        return;
    }
    logToFile(message, verbosityLevel == -1);
}

int32_t QELBase::verbosityLevel()
{
    int32_t level = 0;
    guarded([&] {
        const int64_t configured = platform::UserDefaults::standardUserDefaults().integerForKey(LOG_LEVEL_KEY);
        // An unsigned test: negative values are out of range as well.
        if (static_cast<uint64_t>(configured) <= 1) {
            level = static_cast<int32_t>(configured);
        }
    });
    return level;
}

void QELBase::logToFile(const std::string& message, bool andConsole)
{
    const std::optional<std::string> path = logPath();
    const ErrorLockHolder holder;
    guarded([&] {
        // Lines are written to the file at path once the set-up gives one;
        // until then path is always none and nothing is written there.
        const bool written = false;
        static_cast<void>(path);
        if (!written || andConsole) {
            platform::ConsoleLog::log(message);
        }
    });
}

std::optional<std::string> QELBase::logPath()
{
    const ErrorLockHolder holder;
    if (gCachedLogPath || !gMayCreateLog) {
        return gCachedLogPath;
    }
    // Cleared first: a log or raise during the set-up comes back here and
    // must find the attempt already made.
    gMayCreateLog = false;
    return gCachedLogPath;
}
