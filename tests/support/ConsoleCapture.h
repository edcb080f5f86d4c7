// Collects the console messages (without their prefix) while it lives.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

class ConsoleCapture {
public:
    ConsoleCapture();
    ~ConsoleCapture();
    ConsoleCapture(const ConsoleCapture&) = delete;
    ConsoleCapture& operator=(const ConsoleCapture&) = delete;

    std::vector<std::string> messages() const;

private:
    mutable std::mutex theMutex;
    std::vector<std::string> theMessages;
};

}  // namespace testsupport
