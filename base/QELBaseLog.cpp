// Logging of QELBase: the verbosity filter, the per-user log file and the
// console.
//
// The log file lies in the running user's Library folder, under
// Logs/Corvane, named after the application type. It is found, created,
// rotated and checked once per process, on first use, by logPath; every
// line then opens the file, appends, synchronizes it to disk and closes it,
// so a line that was logged is on the disk even if the process dies next.
// When the set-up fails, every line of the process goes to the console.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/QELBVerify.h"
#include "base/QELBase.h"
#include "fsutil/QELSecurity.h"
#include "fsutil/QELUPath.h"
#include "platform/ConsoleLog.h"
#include "platform/Date.h"
#include "platform/FileHandle.h"
#include "platform/FileManager.h"
#include "platform/Path.h"
#include "platform/User.h"
#include "platform/UTF8.h"
#include "platform/UserDefaults.h"

namespace {

// The log is rotated when it has reached this size.
constexpr uint64_t kRotationSize = 0x100000;
// Codes of the set-up's checks.
constexpr int32_t kNoLibraryDirectory = 1847;  // 1848 when the entry is no text
constexpr int32_t kOldLogNotDeleted = 1865;
constexpr int32_t kUnreadableLogDeleted = 1864;
constexpr int32_t kImmutableNotANumber = 1536;
constexpr int32_t kLogImmutable = 1558;
constexpr int32_t kLogNotMoved = 1866;
constexpr int32_t kLogDirectoryNotCreated = 1874;
constexpr int32_t kPermissionsUnreadable = 1959;
constexpr int32_t kLogNotOwnerWritable = 1960;
// The size status of an existing log is logged less this offset (1862 for
// 1953, 1863 for 1954), so that its code tells the log's size apart from
// the same failure elsewhere.
constexpr int32_t kSizeStatusOffset = 91;
constexpr unsigned long kOwnerWrite = 0200;

// Guarded by errorLock.
bool gMayCreateLog = true;
std::optional<std::string> gCachedLogPath;

bool isWellFormedUTF8(std::string_view text)
{
    std::size_t position = 0;
    while (position < text.size()) {
        const auto character = platform::decodeUTF8At(text, position);
        if (!character) {
            return false;
        }
        position += character->length;
    }
    return true;
}

// A line of the log: the date's description, a colon and the message.
std::string logLine(const std::string& message)
{
    return platform::Date::now().description() + ": " + message + "\n";
}

// True when the immutable attribute is a number (a boolean is one).
bool isNumber(const std::optional<platform::FileAttributeValue>& value)
{
    return value && (std::holds_alternative<bool>(*value) || std::holds_alternative<uint64_t>(*value));
}

bool isTrue(const std::optional<platform::FileAttributeValue>& value)
{
    if (!value) {
        return false;
    }
    if (const bool* flag = std::get_if<bool>(&*value)) {
        return *flag;
    }
    if (const uint64_t* number = std::get_if<uint64_t>(&*value)) {
        return *number != 0;
    }
    return false;
}

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
        bool written = false;
        if (path) {
            const std::string line = logLine(message);
            if (isWellFormedUTF8(line)) {
                // The handle closes when it goes, also when a step raised.
                if (std::optional<platform::FileHandle> handle =
                        platform::FileHandle::fileHandleForUpdatingAtPath(*path)) {
                    guarded([&] {
                        handle->seekToEndOfFile();
                        handle->writeData(line);
                        handle->synchronizeFile();
                        written = true;
                    });
                    handle->closeFile();
                }
            }
        }
        if (!written || andConsole) {
            platform::ConsoleLog::log(message);
        }
    });
}

std::optional<std::string> QELBase::logFilePath()
{
    return logPath();
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
    // Only for the message below, when the application type can't be had.
    std::string name = "???";
    try {
        name = appType();
        const std::string file = name + " Updater.log";
        const std::string library =
            QELUUserDirectoryOfType(static_cast<uint32_t>(platform::SearchPathDirectory::Library), kNoLibraryDirectory);
        const std::string directory = platform::appendingPathComponents(library, {"Logs", "Corvane"});
        const bool created = QELUCreateDirectoryAndIntermediates(directory, library, 1);
        QELBVerifyWithErrorAndString(static_cast<signed char>(created), kLogDirectoryNotCreated, std::nullopt,
                                     std::nullopt);
        const std::string path = platform::appendingPathComponent(directory, file);
        gCachedLogPath = path;

        platform::FileManager& files = platform::FileManager::defaultManager();
        if (files.fileExistsAtPath(path)) {
            int32_t status = 0;
            const uint64_t size = QELUFileSize(path, &status);
            QELBVerifyLogAndMaybeRaise(static_cast<signed char>(status == 0), status - kSizeStatusOffset, 0);
            if (status != 0) {
                QELUDeletePathIfExists(path, kUnreadableLogDeleted, 0, 1);
            } else if (size >= kRotationSize) {
                const std::string old = platform::appendingPathComponent(directory, name + " Updater.old.log");
                if (QELUDeletePathIfExists(old, kOldLogNotDeleted, 0, 1)) {
                    const auto immutable = QELUAttributesOfPathForKey(path, platform::kFileImmutable);
                    QELBVerifyLogAndMaybeRaise(static_cast<signed char>(isNumber(immutable)), kImmutableNotANumber, 1);
                    QELBVerifyLogAndMaybeRaise(static_cast<signed char>(!isTrue(immutable)), kLogImmutable, 1);
                    const bool moved = files.moveItemAtPath(path, old);
                    QELBVerifyLogAndMaybeRaise(static_cast<signed char>(moved), kLogNotMoved, 1);
                }
            }
        }
        if (!files.fileExistsAtPath(path)) {
            // Whether the file could be made shows in the checks below.
            static_cast<void>(
                files.createFileWithAttributes(path, logLine("Log created"), QELSecurity::desiredFileAttributes()));
        }
        int32_t status = 0;
        const unsigned long permissions = QELUPosixPermissionsAtPath(path, &status);
        QELBVerifyLogAndMaybeRaise(static_cast<signed char>(status == 0), kPermissionsUnreadable, 1);
        QELBVerifyLogAndMaybeRaise(static_cast<signed char>((permissions & kOwnerWrite) != 0), kLogNotOwnerWritable, 1);
    } catch (const platform::Exception& exception) {
        platform::ConsoleLog::log(name + " Updater: exception trying to create log file:\n" + exception.description() +
                                  "\n");
        gCachedLogPath.reset();
    }
    return gCachedLogPath;
}
