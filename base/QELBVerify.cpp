#include "base/QELBVerify.h"

#include "base/QELBase.h"

void QELBVerifyLogAndMaybeRaise(signed char condition, int32_t code, signed char raise)
{
    if (!QELBase::condShouldTriggerErrorCode(condition != 0, code)) {
        return;
    }
    if (raise != 0) {
        QELBase::raiseAndLogErrorCode(code);
    }
    QELBase::logErrorCode(code);
}

void QELBVerifyWithErrorAndString(signed char condition, int32_t code, const std::optional<platform::Error>& error,
                                  const std::optional<std::string>& message)
{
    if (message) {
        QELBase::log(*message, 0);
    }
    QELBase::verifyCondition(condition != 0, code, error);
}
