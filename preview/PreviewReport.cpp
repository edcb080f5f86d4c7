#include "preview/PreviewReport.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <tuple>

#include "platform/Text.h"

namespace {

using platform::OverlayChange;

void appendItemsInside(std::string& out, uint64_t count)
{
    if (count == 0) {
        out += "empty folder";
        return;
    }
    out += "folder, ";
    out += std::to_string(count);
    out += count == 1 ? " item inside" : " items inside";
}

// "PATH", "PATH (folder, 3 items inside)", "PATH (link)"... appended.
void appendDescription(std::string& out, const OverlayChange& change)
{
    platform::appendEscapingControlCharacters(out, change.path);
    switch (change.type) {
    case OverlayChange::Type::File: break;
    case OverlayChange::Type::Folder:
        if (change.kind != OverlayChange::Kind::Changed) {
            out += " (";
            appendItemsInside(out, change.itemsInside);
            out += ")";
        } else {
            out += " (folder)";
        }
        break;
    case OverlayChange::Type::Link: out += " (link)"; break;
    case OverlayChange::Type::Other: out += " (special file)"; break;
    }
}

void appendHeading(std::string& out, const std::string& heading)
{
    out += "\n";
    out += heading;
    out += "\n";
}

void appendSection(std::string& out, const std::string& heading, const std::vector<std::string>& items)
{
    appendHeading(out, heading);
    if (items.empty()) {
        out += "  nothing\n";
    }
    for (const std::string& item : items) {
        out += "  ";
        out += item;
        out += "\n";
    }
}

// The changes of the kinds `wanted` asks for, one line each in `sorted`'s
// order, "  nothing" when there are none.
template <typename Wanted>
void appendChanges(std::string& out, const std::string& heading, const std::vector<const OverlayChange*>& sorted,
                   Wanted wanted)
{
    appendHeading(out, heading);
    bool any = false;
    for (const OverlayChange* change : sorted) {
        if (!wanted(change->kind)) {
            continue;
        }
        any = true;
        out += "  ";
        if (change->kind == OverlayChange::Kind::Created) {
            out += "created ";
        } else if (change->kind == OverlayChange::Kind::Changed) {
            out += "changed ";
        }
        appendDescription(out, *change);
        out += "\n";
    }
    if (!any) {
        out += "  nothing\n";
    }
}

std::string commandLine(const std::vector<std::string>& fields, std::size_t first)
{
    std::string line;
    for (std::size_t i = first; i < fields.size(); ++i) {
        if (i > first) {
            line.push_back(' ');
        }
        line += PreviewReport::shellQuoted(fields[i]);
    }
    return line;
}

std::string describeCall(const platform::InheritedJournal::Record& call)
{
    if (call.size() >= 2 && call[0] == "run") {
        return commandLine(call, 1);
    }
    if (call.size() >= 3 && call[0] == "call") {
        return "call " + PreviewReport::escapedPath(call[2]) + " in the install-manager library " +
               PreviewReport::escapedPath(call[1]);
    }
    // A record no stand-in writes: shown as it is, so nothing is hidden.
    return "unreadable record: " + commandLine(call, 0);
}

}  // namespace

std::string PreviewReport::escapedPath(std::string_view path)
{
    return platform::escapingControlCharacters(path);
}

std::string PreviewReport::shellQuoted(std::string_view argument)
{
    if (argument.empty()) {
        return "''";
    }
    const bool plain = std::all_of(argument.begin(), argument.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string_view("@%+=:,./-_").find(c) != std::string_view::npos;
    });
    if (plain) {
        return std::string(argument);
    }
    if (std::any_of(argument.begin(), argument.end(),
                    [](char c) { return platform::isControlCharacter(static_cast<unsigned char>(c)); })) {
        return "$'" + platform::escapingControlCharacters(argument, '\'') + "'";
    }
    std::string out = "'";
    for (const char c : argument) {
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return out + "'";
}

std::string PreviewReport::text() const
{
    std::string out = "Preview of RemoverTool";
    if (!removerArguments.empty()) {
        out.push_back(' ');
        out += commandLine(removerArguments, 0);
    }
    out += " (nothing was changed)\n";

    // Every line printed and every change is one line of the report.
    std::size_t size = removerOutput.size() +
                       2 * static_cast<std::size_t>(std::count(removerOutput.begin(), removerOutput.end(), '\n'));
    for (const OverlayChange& change : changes) {
        size += change.path.size() + 48;
    }
    out.reserve(size + 4096);

    out += "\nRemoverTool would print:\n";
    std::size_t start = 0;
    while (start < removerOutput.size()) {
        std::size_t end = removerOutput.find('\n', start);
        if (end == std::string::npos) {
            end = removerOutput.size();
        }
        out += "  ";
        platform::appendEscapingControlCharacters(out, std::string_view(removerOutput).substr(start, end - start));
        out += "\n";
        start = end + 1;
    }
    if (removerOutput.empty()) {
        out += "  nothing\n";
    }
    if (stoppedAfterSeconds) {
        out += "RemoverTool did not finish within " + std::to_string(*stoppedAfterSeconds) +
               (*stoppedAfterSeconds == 1 ? " second" : " seconds") +
               ": the preview stopped it, and shows what it did until then.\n";
    } else if (removerSignalled) {
        out += "RemoverTool would end abnormally (signal " + std::to_string(removerStatus - 128) + ").\n";
    } else if (removerStatus != 0) {
        out += "RemoverTool would exit with status " + std::to_string(removerStatus) + ".\n";
    }

    // Sorted by path without copying the changes.
    std::vector<const OverlayChange*> sorted;
    sorted.reserve(changes.size());
    for (const OverlayChange& change : changes) {
        sorted.push_back(&change);
    }
    std::sort(sorted.begin(), sorted.end(), [](const OverlayChange* a, const OverlayChange* b) {
        return std::tie(a->path, a->kind) < std::tie(b->path, b->kind);
    });
    appendChanges(out, "Would remove:", sorted,
                  [](OverlayChange::Kind kind) { return kind == OverlayChange::Kind::Removed; });
    appendChanges(out, "Would create or change:", sorted,
                  [](OverlayChange::Kind kind) { return kind != OverlayChange::Kind::Removed; });

    std::vector<std::string> commands;
    for (const platform::InheritedJournal::Record& call : calls) {
        commands.push_back(describeCall(call));
    }
    appendSection(out, "Would run, in this order:", commands);

    std::vector<std::string> unseen;
    for (const platform::OverlayRoot::ReadOnlyMount& mount : readOnlyMounts) {
        unseen.push_back(escapedPath(mount.mountPoint) + " (" + escapedPath(mount.fileSystemType) + ", " +
                         escapedPath(mount.reason) + ")");
    }
    appendSection(
        out, "Not previewed (read-only during the preview, so what the remover would do there may differ):", unseen);
    return out;
}
