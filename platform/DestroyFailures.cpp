#include "platform/DestroyFailures.h"

#include "platform/ConsoleLog.h"
#include "platform/Text.h"

namespace platform {

void DestroyFailures::add(const std::string& path, std::error_code reason)
{
    if (theCount++ == 0) {
        theFirstPath = path;
        theFirstReason = reason;
    }
}

TreeRemover::FailureHandler DestroyFailures::handler()
{
    return [this](const std::string& item, std::error_code reason) { add(item, reason); };
}

void DestroyFailures::log(const std::string& path) const
{
    if (theCount == 0) {
        // The destroy failed without telling which item stayed.
        ConsoleLog::log(line(path));
        return;
    }
    ConsoleLog::log(line(theFirstPath, theFirstReason.message(), theCount - 1));
}

std::string DestroyFailures::line(std::string_view path, std::string_view reason, std::size_t others)
{
    std::string text = "not removed: " + escapingControlCharacters(path);
    if (!reason.empty()) {
        text += ": " + escapingControlCharacters(reason);
    }
    if (others > 0) {
        text += " (and " + std::to_string(others) + " more)";
    }
    return text;
}

}  // namespace platform
