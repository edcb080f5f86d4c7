#include "fsutil/QELUPath.h"

#include <vector>

#include "base/QELBVerify.h"
#include "base/QELBase.h"
#include "fsutil/QELSecurity.h"
#include "platform/ConsoleLog.h"
#include "platform/DestroyFailures.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/ItemHandle.h"
#include "platform/Path.h"
#include "platform/User.h"

namespace {

platform::FileManager& fileManager()
{
    return platform::FileManager::defaultManager();
}

void storeStatus(int32_t* status, int32_t value)
{
    if (status != nullptr) {
        *status = value;
    }
}

// A check in the logging style: logs the code when the check triggers, then
// asks the trigger test again. True when the caller is to fail with the code.
bool loggedCheckFails(bool condition, int32_t code)
{
    QELBVerifyLogAndMaybeRaise(static_cast<signed char>(condition), code, 0);
    return QELBase::condShouldTriggerErrorCode(condition, code);
}

// A check in the raising style: the fatal exception with the code when it
// triggers.
void verifyOrRaise(bool condition, int32_t code)
{
    QELBVerifyWithErrorAndString(static_cast<signed char>(condition), code, std::nullopt, std::nullopt);
}

}  // namespace

bool QELUDeletePathIfExists(const std::string& path, int32_t code, signed char recordOnly, signed char raise)
{
    if (!QELBase::condShouldTriggerErrorCode(true, code) && !path.empty()) {
        std::error_code reason;
        if (!fileManager().fileExistsAtPath(path) || fileManager().removeItemAtPath(path, &reason)) {
            return true;
        }
        // What stayed and why, on the console only (the log keeps the
        // lines its readers expect), before the code that says it failed.
        platform::ConsoleLog::log(platform::DestroyFailures::line(path, reason.message()));
    }
    if (recordOnly != 0) {
        QELBase::setErrorCode(code);
    } else {
        QELBase::logErrorCode(code);
    }
    if (raise != 0) {
        QELBase::raiseAndLogErrorCode(code);
    }
    return false;
}

namespace {

std::optional<platform::FileAttributeValue>
valueForKey(const std::optional<platform::FileAttributeDictionary>& attributes, const std::string& key)
{
    if (!attributes) {
        return std::nullopt;
    }
    const auto found = attributes->find(key);
    if (found == attributes->end()) {
        return std::nullopt;
    }
    return found->second;
}

// The checks of setting one attribute, around the change itself (`change`,
// given the attributes, answering whether it was made).
template <typename Change>
bool setAttribute(const std::string& key, const platform::FileAttributeValue& value, int32_t* status,
                  const Change& change)
{
    const platform::FileAttributeDictionary attributes{{key, value}};
    const bool made = attributes.size() == 1;
    if (loggedCheckFails(made, kQELUAttributeNotSet)) {
        storeStatus(status, kQELUAttributeNotSet);
        return false;
    }
    const bool changed = change(attributes);
    if (loggedCheckFails(changed, kQELUAttributeNotSet)) {
        storeStatus(status, kQELUAttributeNotSet);
    }
    return changed;
}

// The checks of reading the permission bits from the value read.
unsigned long permissionsFromValue(const std::optional<platform::FileAttributeValue>& value, int32_t* status)
{
    if (loggedCheckFails(value.has_value(), kQELUPermissionsUnreadable)) {
        storeStatus(status, kQELUPermissionsUnreadable);
        return 0;
    }
    const uint64_t* number = value ? std::get_if<uint64_t>(&*value) : nullptr;
    if (loggedCheckFails(number != nullptr, kQELUPermissionsNotANumber)) {
        storeStatus(status, kQELUPermissionsNotANumber);
        return 0;
    }
    return number != nullptr ? static_cast<unsigned long>(*number) : 0;
}

platform::FileAttributeValue permissionsValue(unsigned long bits)
{
    return platform::FileAttributeValue(uint64_t{bits});
}

}  // namespace

std::optional<platform::FileAttributeValue> QELUAttributesOfPathForKey(const std::string& path, const std::string& key)
{
    return valueForKey(fileManager().fileAttributesAtPath(path), key);
}

std::optional<platform::FileAttributeValue> QELUAttributesOfItemForKey(const platform::ItemHandle& item,
                                                                       const std::string& key)
{
    return valueForKey(fileManager().fileAttributesOfItem(item), key);
}

bool QELUSetAttributeForPath(const std::string& path, const std::string& key, const platform::FileAttributeValue& value,
                             int32_t* status)
{
    return setAttribute(key, value, status, [&](const platform::FileAttributeDictionary& attributes) {
        return fileManager().changeFileAttributes(attributes, path);
    });
}

bool QELUSetAttributeForItem(const platform::ItemHandle& item, const std::string& key,
                             const platform::FileAttributeValue& value, int32_t* status)
{
    return setAttribute(key, value, status, [&](const platform::FileAttributeDictionary& attributes) {
        return fileManager().changeFileAttributes(attributes, item);
    });
}

bool QELUSetPosixPermissionsAtPath(const std::string& path, unsigned long bits, int32_t* status)
{
    storeStatus(status, 0);
    return QELUSetAttributeForPath(path, platform::kFilePosixPermissions, permissionsValue(bits), status);
}

bool QELUSetPosixPermissionsOfItem(const platform::ItemHandle& item, unsigned long bits, int32_t* status)
{
    storeStatus(status, 0);
    return QELUSetAttributeForItem(item, platform::kFilePosixPermissions, permissionsValue(bits), status);
}

uint64_t QELUFileSize(const std::string& path, int32_t* status)
{
    storeStatus(status, 0);
    const auto attributes = fileManager().fileAttributesAtPath(path);
    if (loggedCheckFails(attributes.has_value(), kQELUAttributesUnreadable)) {
        storeStatus(status, kQELUAttributesUnreadable);
        return kQELUFileSizeFailed;
    }
    const std::optional<uint64_t> size =
        attributes ? platform::numberForKey(*attributes, platform::kFileSize) : std::nullopt;
    if (loggedCheckFails(size.has_value(), kQELUSizeMissing)) {
        storeStatus(status, kQELUSizeMissing);
        return kQELUFileSizeFailed;
    }
    return size.value_or(kQELUFileSizeFailed);
}

unsigned long QELUPosixPermissionsAtPath(const std::string& path, int32_t* status)
{
    storeStatus(status, 0);
    return permissionsFromValue(QELUAttributesOfPathForKey(path, platform::kFilePosixPermissions), status);
}

unsigned long QELUPosixPermissionsOfItem(const platform::ItemHandle& item, int32_t* status)
{
    storeStatus(status, 0);
    return permissionsFromValue(QELUAttributesOfItemForKey(item, platform::kFilePosixPermissions), status);
}

std::string QELUUserDirectoryOfType(uint32_t type, int32_t code)
{
    const std::vector<std::string> directories = platform::searchPathForDirectoriesInDomains(
        static_cast<platform::SearchPathDirectory>(type), platform::SearchPathDomainMask::User, true);
    verifyOrRaise(!directories.empty(), code);
    // The search path gives texts only; the check stays so that the code
    // after the caller's is reported as the design of the pair has it (and
    // can be forced).
    const bool firstIsText = !directories.empty();
    verifyOrRaise(firstIsText, static_cast<int32_t>(static_cast<uint32_t>(code) + 1U));
    return directories.front();
}

bool QELUCreateDirectoryAndIntermediates(const std::string& path, const std::string& base, signed char skipCheck)
{
    bool result = false;
    try {
        const std::vector<std::string> components = platform::pathComponents(path);
        std::string current = base;
        for (std::size_t i = platform::pathComponents(base).size(); i < components.size(); ++i) {
            const std::string& component = components[i];
            if (component == "." || component == "..") {
                // It would lead the walk back up, to folders that are not the
                // caller's to check, repair or create in.
                QELBase::raiseWithErrorCode(kQELUComponentUnsafe);
            }
            current = platform::appendingPathComponent(current, component);
            bool isDirectory = false;
            if (fileManager().fileExistsAtPath(current, &isDirectory)) {
                verifyOrRaise(isDirectory, kQELUComponentUnsafe);
                if (skipCheck == 0) {
                    verifyOrRaise(QELSecurity::makePathOK(current, platform::userName()), kQELUComponentUnsafe);
                }
            } else {
                verifyOrRaise(
                    fileManager().createDirectoryWithAttributes(current, QELSecurity::desiredDirectoryAttributes()),
                    kQELUDirectoryNotCreated);
            }
        }
        result = true;
    } catch (const platform::Exception&) {
        // Reported already by the check that raised; the result says NO.
    }
    return result;
}
