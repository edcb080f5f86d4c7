// Helpers for the tests of the base services: capturing console lines,
// setting the command-line settings of this process, and running the built
// qelutil in a sandbox whose home folder is a fixture of the test.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace basetest {

// The application type the in-process tests give on their command line, so
// that no stored setting of the machine decides it.
inline constexpr char kTestAppType[] = "Lumidoc Test";

// Replaces the argument domain of the user defaults, as if the process had
// been started with these "-Key value" arguments.
void useCommandLineSettings(const std::vector<std::string>& arguments);

// Collects the console messages (without their prefix) while it lives.
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

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};

// The built bundle and the qelutil inside it.
std::string bundlePath();
std::string qelutilPathIn(const std::string& bundle);

// Runs executable with arguments inside a sandbox: the file system read-only,
// a fresh /tmp, and homeFolder (a folder of the test) bound over the running
// user's home, so the user's stored settings are those of the fixture. Every
// path in readablePaths is bound into the sandbox at the same place.
RunResult runSandboxed(const std::string& homeFolder, const std::string& executable,
                       const std::vector<std::string>& arguments, const std::vector<std::string>& readablePaths = {});

// The lines of text, without their line ends.
std::vector<std::string> linesOf(const std::string& text);
// True when some line ends with suffix.
bool anyLineEndsWith(const std::vector<std::string>& lines, const std::string& suffix);
// The lines that end with suffix.
std::vector<std::string> linesEndingWith(const std::vector<std::string>& lines, const std::string& suffix);

}  // namespace basetest
