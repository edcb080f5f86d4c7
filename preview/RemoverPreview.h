// RemoverPreview: shows exactly what the remover would do, by running the
// remover of its own bundle, unchanged and for real, in a copy-on-write view
// of every file system (platform/OverlayRoot.h), with recording stand-ins in
// place of the package tool, the launch-agent tool and the install-manager
// library. Nothing outside the view changes; no real tool runs.
//
//   RemoverPreview x "/Applications/Corvane Lumidoc X Pro/Corvane Lumidoc Pro.app"
//   RemoverPreview -PreviewTimeLimit 60 x "/Applications/..."
//
// prints (PreviewReport) what the remover would print, what it would remove,
// create or change, what it would run, and where the view could not be made.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

class RemoverPreview {
public:
    RemoverPreview() = delete;

    // Exit statuses.
    static constexpr int kPreviewRan = 0;
    // No mount namespaces or no overlay file system here (EX_UNAVAILABLE).
    static constexpr int kCannotPreviewHere = 69;
    // Anything else that stopped the preview before the remover ran (EX_OSERR).
    static constexpr int kFailed = 71;
    // Not run as root (EX_NOPERM).
    static constexpr int kNotRoot = 77;
    // A time limit that is no whole number of seconds in range (EX_USAGE).
    static constexpr int kUsage = 64;
    // The remover ran longer than the time limit and was stopped; the
    // report shows what it did until then (EX_TEMPFAIL).
    static constexpr int kStoppedAtTimeLimit = 75;

    // "-PreviewTimeLimit SECONDS" in front of the remover's arguments: how
    // long the remover may run before the preview stops it, every process
    // it started with it. Long enough by default for the largest real
    // installation.
    static constexpr const char* kTimeLimitOption = "-PreviewTimeLimit";
    static constexpr int kDefaultTimeLimitSeconds = 600;
    static constexpr int kLongestTimeLimitSeconds = 86400;

    // The stand-ins, inside the bundle: one program for both tools (it
    // records the path it was started as and its arguments) and one library.
    static constexpr const char* kStandInFolder = "Contents/Resources/Preview";
    static constexpr const char* kRecordingTool = "RecordingTool";
    static constexpr const char* kRecordingLibrary = "RecordingInstallManager.so";

    // Previews the remover run with these arguments (after its program
    // name, with the time limit option in front when given): the report on
    // `output`, a reason it cannot be made on `console`.
    // The calling process must be single-threaded: it moves into a mount
    // namespace of its own and stays there. It closes every descriptor it
    // inherited first, so the remover reaches nothing through one.
    static int run(const std::vector<std::string>& arguments, std::FILE* output, std::FILE* console);

    // Inside the view, the remover does not run as a child of the preview
    // but of a first process of a PID namespace of its own: RemoverPreview
    // started again, which mounts that namespace's /proc, runs the remover,
    // records how it ended and ends. These tell and run that process.
    static bool isFirstProcessOfAPreview();
    static int runRemoverAsFirstProcess(const std::vector<std::string>& removerArguments);
};
