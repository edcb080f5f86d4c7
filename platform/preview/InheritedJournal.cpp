#include "platform/preview/InheritedJournal.h"

#include <charconv>
#include <cstdlib>
#include <fcntl.h>
#include <utility>

namespace platform {

namespace {

void appendEscaped(std::string& out, std::string_view field)
{
    for (const char c : field) {
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\t': out += "\\t"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        default: out.push_back(c); break;
        }
    }
}

InheritedJournal::Record decodeLine(std::string_view line)
{
    InheritedJournal::Record fields(1);
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '\t') {
            fields.emplace_back();
        } else if (c == '\\' && i + 1 < line.size()) {
            const char next = line[i + 1];
            char decoded = '\0';
            switch (next) {
            case 't': decoded = '\t'; break;
            case 'n': decoded = '\n'; break;
            case 'r': decoded = '\r'; break;
            case '\\': decoded = '\\'; break;
            default: break;
            }
            if (decoded != '\0') {
                fields.back().push_back(decoded);
                ++i;
            } else {
                fields.back().push_back(c);
            }
        } else {
            fields.back().push_back(c);
        }
    }
    return fields;
}

}  // namespace

std::optional<InheritedJournal> InheritedJournal::create(std::error_code* error)
{
    // Close-on-exec like every descriptor of the platform: a child gets it
    // only where a launch names it.
    posix::UniqueFd fd = posix::anonymousFile("journal", error);
    if (!fd.valid()) {
        return std::nullopt;
    }
    // Every write lands at the end, also when processes sharing the
    // descriptor write at once: a file in memory keeps no lock on the shared
    // offset.
    if (::fcntl(fd.get(), F_SETFL, O_APPEND) != 0) {
        if (error != nullptr) {
            *error = posix::lastError();
        }
        return std::nullopt;
    }
    return InheritedJournal(std::move(fd));
}

std::string InheritedJournal::environmentValue() const
{
    return std::to_string(theFd.get());
}

std::vector<InheritedJournal::Record> InheritedJournal::records(std::error_code* error) const
{
    std::string bytes;
    // Read from the start without moving the offset the children append at.
    const std::error_code failure = posix::readAllFromStart(theFd.get(), bytes);
    if (error != nullptr) {
        *error = failure;
    }
    return decode(bytes);
}

bool InheritedJournal::appendToInherited(const Record& fields)
{
    const char* value = std::getenv(kEnvironmentVariable);
    if (value == nullptr) {
        return false;
    }
    const std::string_view text(value);
    int fd = -1;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), fd);
    if (failure != std::errc() || end != text.data() + text.size() || fd < 0) {
        return false;
    }
    return !posix::writeAll(fd, encode(fields));
}

std::string InheritedJournal::encode(const Record& fields)
{
    std::string line;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (i > 0) {
            line.push_back('\t');
        }
        appendEscaped(line, fields[i]);
    }
    line.push_back('\n');
    return line;
}

std::vector<InheritedJournal::Record> InheritedJournal::decode(std::string_view bytes)
{
    std::vector<Record> records;
    std::size_t start = 0;
    for (std::size_t end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n', start)) {
        records.push_back(decodeLine(bytes.substr(start, end - start)));
        start = end + 1;
    }
    return records;
}

}  // namespace platform
