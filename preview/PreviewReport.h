// The text RemoverPreview prints: what a run of the remover would print,
// remove, create or change and run, and where the preview could not tell.
//
//   PreviewReport report;
//   report.removerArguments = {"x", "/Applications/A/A.app"};
//   report.removerOutput = "Removed /Library/Fonts/A.otf.\n";
//   report.changes = {{OverlayChange::Kind::Removed, "/Library/Fonts/A.otf", OverlayChange::Type::File, 0}};
//   std::fputs(report.text().c_str(), stdout);
//
// gives
//
//   Preview of RemoverTool x /Applications/A/A.app (nothing was changed)
//
//   RemoverTool would print:
//     Removed /Library/Fonts/A.otf.
//
//   Would remove:
//     /Library/Fonts/A.otf
//   ...
//
// Every section lists its items two blanks in, "nothing" when it has none.
// The remover's own lines stand as it prints them; paths in the other
// sections show a control character as \r, \n, \t or \xHH and a backslash as
// \\, so that every item is one line; commands are quoted as a shell would
// read them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/InheritedJournal.h"
#include "platform/OverlayChanges.h"
#include "platform/OverlayRoot.h"

struct PreviewReport {
    // The remover's command line after its program name.
    std::vector<std::string> removerArguments;
    // What it printed on standard output.
    std::string removerOutput;
    // How it ended, as platform::Task tells it: the exit status, or, when a
    // signal ended it, 128 + the signal.
    bool removerSignalled = false;
    int removerStatus = 0;
    // What it changed, in any order.
    std::vector<platform::OverlayChange> changes;
    // The calls the stand-ins recorded, in order: {"run", PATH, ARGUMENT...}
    // for a tool, {"call", LIBRARY PATH, ENTRY} for the library.
    std::vector<platform::InheritedJournal::Record> calls;
    // Where it could not be previewed.
    std::vector<platform::OverlayRoot::ReadOnlyMount> readOnlyMounts;

    std::string text() const;

    // A path with control characters and backslashes escaped.
    static std::string escapedPath(std::string_view path);
    // An argument as a shell reads it: as it is when it holds only letters,
    // digits and "@%+=:,./-_"; in single quotes otherwise; as $'...' when it
    // holds a control character.
    static std::string shellQuoted(std::string_view argument);
};
