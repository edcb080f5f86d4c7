#include "tests/support/ConsoleCapture.h"

#include "platform/ConsoleLog.h"

namespace testsupport {

ConsoleCapture::ConsoleCapture()
{
    platform::ConsoleLog::setSinkForTesting([this](const std::string& message) {
        const std::lock_guard<std::mutex> guard(theMutex);
        theMessages.push_back(message);
    });
}

ConsoleCapture::~ConsoleCapture()
{
    platform::ConsoleLog::setSinkForTesting(nullptr);
}

std::vector<std::string> ConsoleCapture::messages() const
{
    const std::lock_guard<std::mutex> guard(theMutex);
    return theMessages;
}

}  // namespace testsupport
