// The updater base services' error model, logging and process identity.
// Class-level state only: there are no instances.
//
// Every failure is an error code in QEL_ERROR_DOMAIN. The first error of the
// process is kept as the prior error and never replaced. A failed check
// either only logs its code, or logs it and raises the non-fatal exception
// ("QELNonFatalException"), or records it and raises the fatal exception
// ("QELFatalException", carrying the prior error under "QELErrorKey").
// Both exceptions are platform::Exception objects.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "base/QELBaseConstants.h"
#include "platform/Date.h"
#include "platform/Error.h"
#include "platform/Exception.h"

class QELBase {
public:
    QELBase() = delete;

    // Process-wide state. A host that runs several threads calls init once
    // before anything else and terminate at the end; without init there is
    // no lock and locking is skipped.
    static void init();
    static void terminate();

    // The prior error, or none.
    static std::optional<platform::Error> error();
    static void setError(const platform::Error& error);
    static void setErrorCode(int32_t code);
    static void raiseOnPriorError();
    [[noreturn]] static void raiseWithErrorCode(int32_t code);
    [[noreturn]] static void raiseWithErrorCode(int32_t code, const std::optional<platform::Error>& loggingError);
    [[noreturn]] static void raiseAndLogErrorCode(int32_t code);
    static void verifyCondition(bool condition, int32_t code);
    static void verifyCondition(bool condition, int32_t code, const std::optional<platform::Error>& loggingError);
    // The decision point of every check: true when the error is to be
    // reported (the condition is false, or the code is being forced).
    static bool condShouldTriggerErrorCode(bool condition, int32_t code);
    static int32_t forceErrorCode();
    static int32_t forceErrorCodeSkipCount();
    static std::optional<platform::Error> errorFromOSStatus(int32_t status);
    // The error an exception carries under QEL_ERROR_KEY (as the fatal
    // exception does), or none when it carries no error there.
    static std::optional<platform::Error> errorOfException(const platform::Exception& exception);
    // The carried error, else a new error of handlerID wrapping the exception.
    static platform::Error errorFromException(const platform::Exception& exception, int32_t handlerID);
    static void handleRaise(const platform::Exception& exception, int32_t handlerID);
    static void logError(const platform::Error& error);
    static void logErrorCode(int32_t code);
    static void logErrorString(const std::string& text);

    // Command pipes: short text commands between two processes of the
    // updater family over a descriptor the caller has opened and handed over.
    // A command is its bytes and one line feed, one byte per character: the
    // writer sends the low 8 bits of each UTF-16 unit of the command; the
    // reader takes bytes up to 0x7F as those characters and bytes above as
    // the characters U+0080 to U+00FF. The reader carries out the control
    // commands kCommandError, kCommandLogNormal and kCommandLogVerbose itself
    // and returns only ordinary commands.
    //
    // Writes the command and a line feed, each byte with a write of its own.
    // A failed write (a broken or full pipe) is not reported.
    static void sendCommand(const std::string& command, int32_t fd);
    // The next ordinary command, without its line feed; waits for ever.
    static std::string receiveCommandOnPipe(int32_t fd);
    // As above until deadline, an absolute date that also holds for a control
    // command's argument line and the command after it. Raises the fatal
    // exception: 1852 when the deadline passes before a line is complete,
    // 1880 when a read fails, the writer's code after kCommandError, and an
    // error already pending before anything is read. A failure inside a read
    // becomes the pending error and is raised at the next pass, so a
    // partially read line is lost. The deadline is tested between bytes only:
    // a read that blocks is not interrupted by it.
    static std::string receiveCommandOnPipe(int32_t fd, const platform::Date& deadline);

    // Settings and identity.
    static std::string appType();
    static std::string pathToUs();

    // Logging: levels -1 (error, also to the console), 0 (normal), 1 (verbose).
    // A line goes to the running user's log file,
    // ~/Library/Logs/Corvane/<application type> Updater.log (the home from
    // the password database), which the first line of the process finds,
    // creates with mode 0700, rotates to "<application type>
    // Updater.old.log" at 1 MiB and checks; when that fails, or a line
    // cannot be written, the line goes to the console. Never raises a
    // platform::Exception.
    static void log(const std::string& message, int32_t verbosityLevel);
    // The "LogLevel" setting when it is 0 or 1, else 0; read at every call.
    static int32_t verbosityLevel();
    // The log file's path, setting the file up if nothing has been logged
    // yet; none when the set-up failed. For tools that show where lines go.
    static std::optional<std::string> logFilePath();

private:
    static void logToFile(const std::string& message, bool andConsole);
    // The set-up's one attempt, then the cached path (or none); holds
    // errorLock throughout.
    static std::optional<std::string> logPath();

    // Holds errorLock (recursive) for its lifetime; holds nothing when init
    // has not made the lock.
    class ErrorLockHolder {
    public:
        ErrorLockHolder();
        ~ErrorLockHolder();
        ErrorLockHolder(const ErrorLockHolder&) = delete;
        ErrorLockHolder& operator=(const ErrorLockHolder&) = delete;

    private:
        std::recursive_mutex* theLock;
    };

    // Runs body and swallows a platform::Exception thrown from it; any other
    // thrown object passes on unchanged.
    template <typename Body>
    static void guarded(Body&& body)
    {
        try {
            std::forward<Body>(body)();
        } catch (const platform::Exception&) {
            // Swallowed on purpose: logging and bookkeeping never raise.
        }
    }
};
