#include "platform/Signals.h"

#include <cerrno>
#include <csignal>

namespace platform {

std::error_code Signals::ignoreSignalsThatWouldCutARunShort() noexcept
{
    for (const int signalNumber : kSignalsThatWouldCutARunShort) {
        struct sigaction action {};
        action.sa_handler = SIG_IGN;
        sigemptyset(&action.sa_mask);
        if (::sigaction(signalNumber, &action, nullptr) != 0) {
            return {errno, std::generic_category()};
        }
    }
    return {};
}

bool Signals::isIgnored(int signalNumber) noexcept
{
    struct sigaction current {};
    return ::sigaction(signalNumber, nullptr, &current) == 0 && current.sa_handler == SIG_IGN;
}

}  // namespace platform
