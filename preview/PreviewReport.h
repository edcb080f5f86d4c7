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
// The remover's lines and the paths of every other section show a control
// character as \r, \n, \t or \xHH and a backslash as \\, so that every item
// is one line and a terminal meets no escape sequence of the remover's
// making (a line "/Library/x\e]0;T\a\r\e[2KRemoved /etc/passwd" shows as
// "/Library/x\x1B]0;T\x07\r\x1B[2KRemoved /etc/passwd"); commands are quoted
// as a shell would read them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/preview/InheritedJournal.h"
#include "platform/preview/OverlayChanges.h"
#include "platform/preview/OverlayRoot.h"

struct PreviewReport {
    // The remover's command line after its program name.
    std::vector<std::string> removerArguments;
    // What it printed on standard output.
    std::string removerOutput;
    // How it ended, as platform::Task tells it: the exit status, or, when a
    // signal ended it, 128 + the signal.
    bool removerSignalled = false;
    int removerStatus = 0;
    // Set when the preview stopped the remover after this many seconds:
    // then removerSignalled and removerStatus say nothing, and the report
    // shows what it printed, changed and ran until then.
    std::optional<int> stoppedAfterSeconds;
    // What it changed, in any order.
    std::vector<platform::OverlayChange> changes;
    // The calls the stand-ins recorded, in order: {"run", PATH, ARGUMENT...}
    // for a tool, {"call", LIBRARY PATH, ENTRY} for the library.
    std::vector<platform::InheritedJournal::Record> calls;
    // Where it could not be previewed.
    std::vector<platform::OverlayRoot::ReadOnlyMount> readOnlyMounts;

    std::string text() const;

    // A path, or a line the remover printed, with control characters and
    // backslashes escaped.
    static std::string escapedPath(std::string_view path);
    // An argument as a shell reads it: as it is when it holds only letters,
    // digits and "@%+=:,./-_"; in single quotes otherwise; as $'...' when it
    // holds a control character.
    static std::string shellQuoted(std::string_view argument);
};
