// The format of a list of paths to remove (an install log, or the bundle's
// own list): one path per line, the text before the first tab, with leading
// white space skipped, "~" expanded, and a relative entry taken relative to
// the application's folder.
//
// A list is walked one entry at a time, so a list of a hundred thousand paths
// is held in memory once, as its text, and never as a second copy of entries.
//
// @code
//   std::optional<std::string> text = InstallLogList::text(std::move(bytes));
//   if (!text) { /* not text: the list is not read */ }
//   InstallLogList::forEachEntry(std::move(*text), "/Applications/X",
//                                [](const std::string& path) { remove(path); });
// @endcode
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

class InstallLogList {
public:
    InstallLogList() = delete;

    // The text of a list's bytes, which it takes over: a UTF-8 byte-order
    // mark is dropped, bytes after a UTF-16 one ("\xFF\xFE" little-endian,
    // "\xFE\xFF" big-endian) are decoded to UTF-8, and anything else must be
    // UTF-8 already, in which case the same buffer is handed back (no second
    // copy). None when the bytes do not decode as text: UTF-16 that does not
    // decode, or bytes without a byte-order mark that are not UTF-8.
    static std::optional<std::string> text(std::string bytes);

    // Calls `entry` with each path of the text, in file order. A path may
    // hold a NUL byte (it names no file; the caller decides what to do).
    // Reads and deletes nothing. False when the walk could not go on for
    // want of memory (the entries before it were handed over).
    using EntryHandler = std::function<void(const std::string& path)>;
    static bool forEachEntry(std::string text, std::string_view appFolder, const EntryHandler& entry);
};
