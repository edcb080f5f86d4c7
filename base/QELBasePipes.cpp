// Command pipes of QELBase: one text line per command over a descriptor that
// the caller opened, read and written one byte at a time.
//
// The reader works in passes of one byte each. Every pass runs in a scope of
// its own, so a reader that waits for a long time holds nothing but the line
// it is building. A failure inside a pass (the deadline, a failed read) is
// caught there and recorded as the process's pending error, which the next
// pass raises once the failed pass has ended.
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "base/QELBase.h"
#include "base/QELBaseConstants.h"
#include "platform/PipeBytes.h"
#include "platform/Text.h"
#include "platform/UTF8.h"

namespace {

constexpr uint32_t kPollIntervalMicroseconds = 100000;
constexpr int32_t kDeadlinePassedErrorCode = 1852;
constexpr int32_t kReadFailedErrorCode = 1880;
constexpr int32_t kPipeExceptionHandlerID = 1881;
constexpr unsigned char kLineFeed = '\n';
constexpr int32_t kLogLevelNormal = 0;
constexpr int32_t kLogLevelVerbose = 1;

// The low 8 bits of a UTF-16 code unit.
unsigned char lowByte(char32_t unit)
{
    return static_cast<unsigned char>(unit & 0xFFU);
}

// Writes the low 8 bits of each UTF-16 unit of the UTF-8 text: a character
// past U+FFFF is two units (its surrogate pair). A byte that starts no
// well-formed UTF-8 sequence stands for the unit of its own value.
void writeUTF16LowBytes(int32_t fd, std::string_view text)
{
    std::size_t position = 0;
    while (position < text.size()) {
        const std::optional<platform::DecodedCharacter> decoded = platform::decodeUTF8At(text, position);
        if (!decoded) {
            platform::PipeBytes::write(fd, static_cast<unsigned char>(text[position]));
            ++position;
            continue;
        }
        const char32_t codePoint = decoded->codePoint;
        if (codePoint > 0xFFFFU) {
            const char32_t offset = codePoint - 0x10000U;
            platform::PipeBytes::write(fd, lowByte(0xD800U + (offset >> 10U)));
            platform::PipeBytes::write(fd, lowByte(0xDC00U + (offset & 0x3FFU)));
        } else {
            platform::PipeBytes::write(fd, lowByte(codePoint));
        }
        position += decoded->length;
    }
}

// One byte as one character: up to 0x7F itself, above that the character of
// the same value (U+0080 to U+00FF), so every line read is UTF-8 and a
// Latin-1 command comes back as it was sent.
void appendByte(std::string& line, unsigned char byte)
{
    if (byte < 0x80U) {
        line.push_back(static_cast<char>(byte));
    } else {
        platform::appendUTF8(line, byte);
    }
}

enum class ControlCommand : unsigned char { Error, LogNormal, LogVerbose };

// The control command a line names exactly, if any.
std::optional<ControlCommand> controlCommandNamed(std::string_view line)
{
    if (line == kCommandError) {
        return ControlCommand::Error;
    }
    if (line == kCommandLogNormal) {
        return ControlCommand::LogNormal;
    }
    if (line == kCommandLogVerbose) {
        return ControlCommand::LogVerbose;
    }
    return std::nullopt;
}

// One line without its line feed, read in passes of one byte.
std::string receiveLineOnPipe(int32_t fd, const platform::Date& deadline)
{
    std::string line;
    // The exception a pass caught, until the next pass has asked for the
    // pending error.
    std::optional<platform::Exception> caught;
    bool complete = false;
    while (!complete) {
        QELBase::raiseOnPriorError();
        if (caught) {
            // The pending error raised nothing: the error recorded first has
            // code 0 (a writer's "error" with no number). Raising what the
            // pass caught keeps the deadline and a failed read final.
            throw platform::Exception(*std::move(caught));
        }
        try {
            if (platform::Date::now().compare(deadline) > 0) {
                QELBase::raiseWithErrorCode(kDeadlinePassedErrorCode);
            }
            unsigned char byte = 0;
            const platform::PipeBytes::Read read = platform::PipeBytes::read(fd, byte);
            if (read == platform::PipeBytes::Read::Failed) {
                QELBase::raiseWithErrorCode(kReadFailedErrorCode);
            }
            if (read == platform::PipeBytes::Read::NoData) {
                // Nothing yet, or the writer has closed its end: poll.
                platform::PipeBytes::pause(kPollIntervalMicroseconds);
            } else if (byte == kLineFeed) {
                complete = true;
            } else {
                appendByte(line, byte);
            }
        } catch (const platform::Exception& exception) {
            // Recorded as the pending error (unless one is pending already or
            // it is the non-fatal kind) and raised by the next pass.
            QELBase::handleRaise(exception, kPipeExceptionHandlerID);
            if (exception.name() == QEL_FATAL_EXCEPTION_NAME) {
                caught = exception;
            }
        }
    }
    return line;
}

}  // namespace

void QELBase::sendCommand(const std::string& command, int32_t fd)
{
    writeUTF16LowBytes(fd, command);
    platform::PipeBytes::write(fd, kLineFeed);
}

std::string QELBase::receiveCommandOnPipe(int32_t fd)
{
    return receiveCommandOnPipe(fd, platform::Date::distantFuture());
}

std::string QELBase::receiveCommandOnPipe(int32_t fd, const platform::Date& deadline)
{
    // The argument of a control command is read as a command itself, so a
    // control command there is carried out first and takes the next line as
    // its own argument. The control commands still waiting for their argument
    // are kept here, the latest last, rather than one call deeper each: a
    // writer's long run of control commands costs heap, not stack.
    std::vector<ControlCommand> waiting;
    for (;;) {
        std::string line = receiveLineOnPipe(fd, deadline);
        if (const std::optional<ControlCommand> control = controlCommandNamed(line)) {
            waiting.push_back(*control);
            continue;
        }
        if (waiting.empty()) {
            return line;
        }
        // An ordinary line is the argument of the latest control command.
        const ControlCommand control = waiting.back();
        waiting.pop_back();
        if (control == ControlCommand::Error) {
            raiseWithErrorCode(platform::intValue(line));
        }
        log(line, control == ControlCommand::LogNormal ? kLogLevelNormal : kLogLevelVerbose);
        // The command after a logged message is what the control command
        // below it (or the caller) gets: read on.
    }
}
