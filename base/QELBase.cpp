// The error model of QELBase, its settings and process identity, and the
// start and end of its process-wide state. Logging is in QELBaseLog.cpp.
#include "base/QELBase.h"

#include <any>
#include <atomic>
#include <memory>

#include "base/QELBVerify.h"
#include "platform/Bundle.h"
#include "platform/ConsoleLog.h"
#include "platform/ProcessInfo.h"
#include "platform/PropertyList.h"
#include "platform/Text.h"
#include "platform/UserDefaults.h"

namespace {

constexpr int32_t kCancelledErrorCode = 1901;
constexpr int32_t kNoAppTypeErrorCode = 1859;
constexpr char kFatalReason[] = "Stopping due to error";
constexpr char kNonFatalReason[] = "Continuing after error";

// Process-wide state, all empty at start.
std::optional<platform::Error> gPriorError;
std::unique_ptr<std::recursive_mutex> gErrorLock;
// Unguarded counters (no lock, each access on its own): neither is touched
// by init or terminate.
std::atomic<int32_t> gForcedErrorCount{0};
std::atomic<int32_t> gLastLoggedErrorCode{0};

// 32-bit addition that wraps instead of overflowing.
int32_t wrappingAdd(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// The integer value of a setting of the argument domain only; 0 when absent.
int32_t argumentDomainIntValue(const char* key)
{
    const auto& domain = platform::UserDefaults::standardUserDefaults().argumentDomain();
    const auto found = domain.find(key);
    if (found == domain.end()) {
        return 0;
    }
    if (const std::string* text = found->second.asString()) {
        return platform::intValue(*text);
    }
    if (const int64_t* number = found->second.asInteger()) {
        return platform::intValue(platform::stringFromNumber(*number));
    }
    return 0;
}

// An information-dictionary value used as it is, whatever its type: a
// string stays itself, a number or boolean becomes its decimal text, as a
// stored setting's number does.
std::string textOfInfoValue(const platform::PropertyList& value)
{
    if (std::optional<std::string> text = platform::UserDefaults::stringFromValue(value)) {
        return *std::move(text);
    }
    return value.toXML();
}

}  // namespace

QELBase::ErrorLockHolder::ErrorLockHolder() : theLock(gErrorLock.get())
{
    if (theLock != nullptr) {
        theLock->lock();
    }
}

QELBase::ErrorLockHolder::~ErrorLockHolder()
{
    if (theLock != nullptr) {
        theLock->unlock();
    }
}

void QELBase::init()
{
    gPriorError.reset();
    gErrorLock = std::make_unique<std::recursive_mutex>();
}

void QELBase::terminate()
{
    gPriorError.reset();
    gErrorLock.reset();
}

std::optional<platform::Error> QELBase::error()
{
    std::optional<platform::Error> result;
    const ErrorLockHolder holder;
    guarded([&] { result = gPriorError; });
    return result;
}

void QELBase::setError(const platform::Error& error)
{
    const ErrorLockHolder holder;
    guarded([&] {
        logError(error);
        if (!gPriorError) {
            gPriorError = error;
        }
    });
}

void QELBase::setErrorCode(int32_t code)
{
    setError(platform::Error(QEL_ERROR_DOMAIN, code));
}

void QELBase::raiseOnPriorError()
{
    int32_t code = 0;
    {
        const ErrorLockHolder holder;
        guarded([&] { code = gPriorError ? gPriorError->code() : 0; });
    }
    if (code != 0) {
        raiseWithErrorCode(code);
    }
}

void QELBase::raiseWithErrorCode(int32_t code)
{
    raiseWithErrorCode(code, std::nullopt);
}

void QELBase::raiseWithErrorCode(int32_t code, const std::optional<platform::Error>& loggingError)
{
    platform::UserInfo userInfo;
    {
        const ErrorLockHolder holder;
        guarded([&] {
            if (loggingError) {
                logError(*loggingError);
            }
            setErrorCode(code);
            // Without a prior error there is nothing to carry: no user info.
            if (gPriorError) {
                userInfo = platform::UserInfo{{QEL_ERROR_KEY, *gPriorError}};
            }
        });
    }
    platform::Exception::raise(QEL_FATAL_EXCEPTION_NAME, kFatalReason, std::move(userInfo));
}

void QELBase::raiseAndLogErrorCode(int32_t code)
{
    {
        const ErrorLockHolder holder;
        guarded([&] { logErrorCode(code); });
    }
    platform::Exception::raise(QEL_NON_FATAL_EXCEPTION_NAME, kNonFatalReason);
}

void QELBase::verifyCondition(bool condition, int32_t code)
{
    verifyCondition(condition, code, std::nullopt);
}

void QELBase::verifyCondition(bool condition, int32_t code, const std::optional<platform::Error>& loggingError)
{
    if (condShouldTriggerErrorCode(condition, code)) {
        raiseWithErrorCode(code, loggingError);
    }
}

bool QELBase::condShouldTriggerErrorCode(bool condition, int32_t code)
{
    if (!condition) {
        return true;
    }
    if (forceErrorCode() != code) {
        return false;
    }
    // One counter for all codes, never reset.
    const int32_t forcedCount = wrappingAdd(gForcedErrorCount.fetch_add(1, std::memory_order_relaxed), 1);
    const int32_t skipCount = forceErrorCodeSkipCount();
    if (skipCount < forcedCount) {
        platform::ConsoleLog::log("Error " + std::to_string(code) + " forced for testing");
        return true;
    }
    platform::ConsoleLog::log("Error " + std::to_string(code) + " forced for testing but count only " +
                              std::to_string(forcedCount) + " out of " + std::to_string(wrappingAdd(skipCount, 1)));
    return false;
}

int32_t QELBase::forceErrorCode()
{
    return argumentDomainIntValue(FORCE_ERROR_KEY);
}

int32_t QELBase::forceErrorCodeSkipCount()
{
    return argumentDomainIntValue(FORCE_ERROR_SKIP_COUNT_KEY);
}

std::optional<platform::Error> QELBase::errorFromOSStatus(int32_t status)
{
    if (status == 0) {
        return std::nullopt;
    }
    return platform::Error(QEL_OSSTATUS_ERROR_DOMAIN, status);
}

std::optional<platform::Error> QELBase::errorOfException(const platform::Exception& exception)
{
    const auto& userInfo = exception.userInfo();
    const auto found = userInfo.find(QEL_ERROR_KEY);
    if (found == userInfo.end()) {
        return std::nullopt;
    }
    if (const auto* carried = std::any_cast<platform::Error>(&found->second)) {
        return *carried;
    }
    return std::nullopt;
}

platform::Error QELBase::errorFromException(const platform::Exception& exception, int32_t handlerID)
{
    if (std::optional<platform::Error> carried = errorOfException(exception)) {
        return *std::move(carried);
    }
    return platform::Error(QEL_ERROR_DOMAIN, handlerID, platform::UserInfo{{QEL_OS_EXCEPTION_KEY, exception}});
}

void QELBase::handleRaise(const platform::Exception& exception, int32_t handlerID)
{
    const ErrorLockHolder holder;
    guarded([&] {
        if (gPriorError) {
            return;
        }
        // A non-fatal exception never becomes the prior error.
        if (exception.name() == QEL_NON_FATAL_EXCEPTION_NAME) {
            return;
        }
        setError(errorFromException(exception, handlerID));
    });
}

void QELBase::logError(const platform::Error& error)
{
    logErrorCode(error.code());
}

void QELBase::logErrorCode(int32_t code)
{
    // Only consecutive repeats are suppressed.
    if (code == gLastLoggedErrorCode.load(std::memory_order_relaxed)) {
        return;
    }
    guarded([&] {
        // Recorded before the application type is asked for: a failure there
        // (1859) comes back here with the same code and stops.
        gLastLoggedErrorCode.store(code, std::memory_order_relaxed);
        const std::string message = code == kCancelledErrorCode
                                        ? appType() + " Updater cancelled"
                                        : appType() + " Updater encountered errorCode " + std::to_string(code);
        log(message, -1);
    });
}

void QELBase::logErrorString(const std::string& text)
{
    guarded([&] { log(appType() + " Updater encountered error \"" + text + "\"", -1); });
}

std::string QELBase::appType()
{
    std::optional<std::string> value = platform::UserDefaults::standardUserDefaults().stringForKey(APP_TYPE_KEY);
    if (!value) {
        if (const auto bundle = platform::Bundle::mainBundle()) {
            if (const auto info = bundle->objectForInfoDictionaryKey(APP_TYPE_KEY)) {
                value = textOfInfoValue(*info);
            }
        }
    }
    QELBVerifyWithErrorAndString(static_cast<signed char>(value.has_value()), kNoAppTypeErrorCode, std::nullopt,
                                 std::nullopt);
    return value.value_or(std::string());
}

std::string QELBase::pathToUs()
{
    return platform::objectAtIndex(platform::ProcessInfo::arguments(), 0);
}
