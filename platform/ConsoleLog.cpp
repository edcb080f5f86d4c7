#include "platform/ConsoleLog.h"

#include "platform/PosixIO.h"
#include "platform/ProcessInfo.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <utility>

namespace platform {

namespace {

struct SinkStore {
    std::mutex lock;
    ConsoleLog::Sink sink;
};

SinkStore& sinkStore()
{
    static SinkStore theStore;
    return theStore;
}

ConsoleLog::Sink currentSink()
{
    SinkStore& theStore = sinkStore();
    const std::lock_guard<std::mutex> guard(theStore.lock);
    return theStore.sink;
}

// Writes the whole text to standard error; a line shorter than the pipe and
// file limits arrives in one piece. A failure to write the log is dropped.
void writeToStandardError(const std::string& text)
{
    static_cast<void>(posix::writeAll(STDERR_FILENO, text));
}

}  // namespace

std::string ConsoleLog::formatLine(const std::string& message)
{
    const auto now = std::chrono::system_clock::now();
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[64] = {};
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char ids[64] = {};
    std::snprintf(ids, sizeof ids, "[%ld:%ld] ", static_cast<long>(getpid()), static_cast<long>(gettid()));
    char fraction[8] = {};
    std::snprintf(fraction, sizeof fraction, ".%03d ", static_cast<int>(milliseconds < 0 ? 0 : milliseconds));

    std::string line = stamp;
    line += fraction;
    line += ProcessInfo::processName();
    line += ids;
    line += message;
    // A message that already ends its line gets no second line end.
    if (line.back() != '\n') {
        line.push_back('\n');
    }
    return line;
}

void ConsoleLog::log(const std::string& message)
{
    const Sink sink = currentSink();
    if (sink) {
        sink(message);
        return;
    }
    writeToStandardError(formatLine(message));
}

void ConsoleLog::setSinkForTesting(Sink sink)
{
    SinkStore& theStore = sinkStore();
    const std::lock_guard<std::mutex> guard(theStore.lock);
    theStore.sink = std::move(sink);
}

}  // namespace platform
