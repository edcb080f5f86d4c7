#include "remover/InstallLogList.h"

#include <new>
#include <utility>

#include "platform/Path.h"
#include "platform/Scanner.h"
#include "platform/TextEncoding.h"
#include "platform/UTF8.h"

namespace {

constexpr std::string_view kUTF8ByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kUTF16LittleEndianMark = "\xFF\xFE";
constexpr std::string_view kUTF16BigEndianMark = "\xFE\xFF";

bool isUTF8(std::string_view bytes)
{
    for (std::size_t position = 0; position < bytes.size();) {
        if (static_cast<unsigned char>(bytes[position]) < 0x80) {
            ++position;
            continue;
        }
        const auto character = platform::decodeUTF8At(bytes, position);
        if (!character) {
            return false;
        }
        position += character->length;
    }
    return true;
}

// The next entry's path; none at the end of the text.
std::optional<std::string> nextEntry(platform::Scanner& lines, std::string_view appFolder)
{
    if (lines.isAtEnd()) {
        return std::nullopt;
    }
    std::string line;
    if (!lines.scanUpToString("\n", &line)) {
        return std::nullopt;
    }
    std::string field;
    platform::Scanner(std::move(line)).scanUpToString("\t", &field);
    std::string path = platform::expandingTildeInPath(field);
    if (!platform::isAbsolutePath(path)) {
        // The raw field, not the expanded one, as the list has it.
        path = platform::appendingPathComponent(appFolder, field);
    }
    return path;
}

}  // namespace

std::optional<std::string> InstallLogList::text(std::string bytes)
{
    try {
        const std::string_view view(bytes);
        if (view.starts_with(kUTF16LittleEndianMark)) {
            return platform::utf16ToUTF8(view.substr(kUTF16LittleEndianMark.size()), false);
        }
        if (view.starts_with(kUTF16BigEndianMark)) {
            return platform::utf16ToUTF8(view.substr(kUTF16BigEndianMark.size()), true);
        }
        if (view.starts_with(kUTF8ByteOrderMark)) {
            // In place: the buffer stays the one the bytes came in.
            bytes.erase(0, kUTF8ByteOrderMark.size());
        }
        if (!isUTF8(bytes)) {
            return std::nullopt;
        }
        return std::optional<std::string>(std::move(bytes));
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

bool InstallLogList::forEachEntry(std::string text, std::string_view appFolder, const EntryHandler& entry)
{
    platform::Scanner lines(std::move(text));
    for (;;) {
        std::optional<std::string> path;
        try {
            path = nextEntry(lines, appFolder);
        } catch (const std::bad_alloc&) {
            return false;
        }
        if (!path) {
            return true;
        }
        entry(*path);
    }
}
