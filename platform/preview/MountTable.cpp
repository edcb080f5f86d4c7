#include "platform/preview/MountTable.h"

#include <charconv>
#include <fcntl.h>

#include "platform/PosixIO.h"

namespace platform {

namespace {

// The next blank-separated field of `line` from `position` on; empty at the
// end.
std::string_view nextField(std::string_view line, std::size_t& position)
{
    while (position < line.size() && line[position] == ' ') {
        ++position;
    }
    const std::size_t start = position;
    while (position < line.size() && line[position] != ' ') {
        ++position;
    }
    return line.substr(start, position - start);
}

bool readNumber(std::string_view text, uint64_t& value)
{
    if (text.empty()) {
        return false;
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

bool hasCommaOption(std::string_view options, std::string_view option)
{
    std::size_t start = 0;
    while (start <= options.size()) {
        std::size_t end = options.find(',', start);
        if (end == std::string_view::npos) {
            end = options.size();
        }
        if (options.substr(start, end - start) == option) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

bool isOctalDigit(char c)
{
    return c >= '0' && c <= '7';
}

}  // namespace

bool MountEntry::isReadOnly() const
{
    return hasCommaOption(mountOptions, "ro") || hasCommaOption(superOptions, "ro");
}

bool MountEntry::hasMountOption(std::string_view option) const
{
    return hasCommaOption(mountOptions, option);
}

std::string MountTable::unescape(std::string_view field)
{
    std::string out;
    out.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && isOctalDigit(field[i + 1]) && isOctalDigit(field[i + 2]) &&
            isOctalDigit(field[i + 3])) {
            const int value = (field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0');
            if (value <= 0xFF) {
                out.push_back(static_cast<char>(value));
                i += 3;
                continue;
            }
        }
        out.push_back(field[i]);
    }
    return out;
}

std::vector<MountEntry> MountTable::parse(std::string_view text)
{
    // 36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue
    // (1)(2)(3)   (4)   (5)      (6)      (7...)  - (8)     (9)          (10)
    std::vector<MountEntry> entries;
    std::size_t lineStart = 0;
    while (lineStart < text.size()) {
        std::size_t lineEnd = text.find('\n', lineStart);
        if (lineEnd == std::string_view::npos) {
            lineEnd = text.size();
        }
        const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
        lineStart = lineEnd + 1;

        std::size_t position = 0;
        MountEntry entry;
        if (!readNumber(nextField(line, position), entry.mountId) ||
            !readNumber(nextField(line, position), entry.parentId)) {
            continue;
        }
        entry.device = std::string(nextField(line, position));
        const std::string_view root = nextField(line, position);
        const std::string_view mountPoint = nextField(line, position);
        const std::string_view mountOptions = nextField(line, position);
        if (root.empty() || mountPoint.empty() || mountOptions.empty()) {
            continue;
        }
        // Optional fields up to the lone hyphen.
        bool separated = false;
        for (std::string_view field = nextField(line, position); !field.empty(); field = nextField(line, position)) {
            if (field == "-") {
                separated = true;
                break;
            }
        }
        const std::string_view type = nextField(line, position);
        if (!separated || type.empty()) {
            continue;
        }
        entry.root = unescape(root);
        entry.mountPoint = unescape(mountPoint);
        entry.mountOptions = std::string(mountOptions);
        entry.fileSystemType = unescape(type);
        entry.source = unescape(nextField(line, position));
        entry.superOptions = std::string(nextField(line, position));
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::vector<MountEntry> MountTable::ofThisProcess(std::error_code* error)
{
    std::error_code failure;
    const posix::UniqueFd fd = posix::openFile("/proc/self/mountinfo", O_RDONLY, 0, &failure);
    std::string text;
    if (fd.valid()) {
        failure = posix::readAll(fd.get(), text);
    }
    if (error != nullptr) {
        *error = failure;
    }
    if (failure) {
        return {};
    }
    return parse(text);
}

}  // namespace platform
