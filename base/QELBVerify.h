// The two verify functions through which the shared services report checks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Error.h"

// When the check triggers: raises the non-fatal exception after logging the
// code if raise is non-zero, else only logs the code.
void QELBVerifyLogAndMaybeRaise(signed char condition, int32_t code, signed char raise);
// Logs message (level 0) when given, whether or not the condition holds; then
// raises the fatal exception with code (and error logged) when the check
// triggers.
void QELBVerifyWithErrorAndString(signed char condition, int32_t code, const std::optional<platform::Error>& error,
                                  const std::optional<std::string>& message);
