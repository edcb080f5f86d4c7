#include "remover/DestroyFailures.h"

#include "platform/ConsoleLog.h"
#include "platform/Text.h"

void DestroyFailures::add(const std::string& path, std::error_code reason)
{
    if (theCount++ == 0) {
        theFirstPath = path;
        theFirstReason = reason;
    }
}

platform::TreeRemover::FailureHandler DestroyFailures::handler()
{
    return [this](const std::string& item, std::error_code reason) { add(item, reason); };
}

void DestroyFailures::log(const std::string& path) const
{
    if (theCount == 0) {
        // The destroy failed without telling which item stayed.
        platform::ConsoleLog::log(line(path));
        return;
    }
    platform::ConsoleLog::log(line(theFirstPath, theFirstReason.message(), theCount - 1));
}

std::string DestroyFailures::line(std::string_view path, std::string_view reason, std::size_t others)
{
    std::string text = "not removed: " + platform::escapingControlCharacters(path);
    if (!reason.empty()) {
        text += ": " + platform::escapingControlCharacters(reason);
    }
    if (others > 0) {
        text += " (and " + std::to_string(others) + " more)";
    }
    return text;
}
