#include "preview/RemoverPreview.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <system_error>

#include "identities/ExternalTools.h"
#include "platform/Bundle.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/preview/InheritedJournal.h"
#include "platform/preview/OverlayChanges.h"
#include "platform/preview/OverlayRoot.h"
#include "platform/Path.h"
#include "platform/ProcessInfo.h"
#include "platform/Text.h"
#include "platform/Task.h"
#include "platform/User.h"
#include "preview/PreviewReport.h"

namespace {

// The folder whose tmpfs holds the writable layers while they are made.
constexpr char kWorkFolder[] = "/tmp";
// Set to "1" for the first process of the preview's PID namespace.
constexpr char kFirstProcessVariable[] = "REMOVER_PREVIEW_FIRST_PROCESS";
// The journal records of that process, beside the stand-ins' calls:
// {"ended", "exit" or "signal", status} and {"failed", reason}.
constexpr char kEndedRecord[] = "ended";
constexpr char kFailedRecord[] = "failed";

std::string removerPathIn(const platform::Bundle& bundle)
{
    return platform::appendingPathComponents(bundle.bundlePath(), {"Contents", "MacOS", "RemoverTool"});
}

int cannotPreview(std::FILE* console, int status, const std::string& reason)
{
    std::fprintf(console, "RemoverPreview: cannot preview: %s\n", reason.c_str());
    return status;
}

}  // namespace

namespace {

// What the preview's command line asks for.
struct PreviewRequest {
    int timeLimitSeconds = RemoverPreview::kDefaultTimeLimitSeconds;
    std::vector<std::string> removerArguments;
};

// "-PreviewTimeLimit SECONDS" in front, then the remover's own arguments;
// none when the time limit is not a whole number in range.
std::optional<PreviewRequest> requestOf(const std::vector<std::string>& arguments, std::string& problem)
{
    PreviewRequest request;
    std::size_t first = 0;
    if (!arguments.empty() && arguments[0] == RemoverPreview::kTimeLimitOption) {
        const std::string value = arguments.size() > 1 ? arguments[1] : std::string();
        const bool digits =
            !value.empty() && value.size() <= 6 && value.find_first_not_of("0123456789") == std::string::npos;
        const int64_t seconds = digits ? platform::integerValue(value) : 0;
        if (seconds < 1 || seconds > RemoverPreview::kLongestTimeLimitSeconds) {
            problem = std::string(RemoverPreview::kTimeLimitOption) + " needs a whole number of seconds from 1 to " +
                      std::to_string(RemoverPreview::kLongestTimeLimitSeconds) + ", not '" + value + "'";
            return std::nullopt;
        }
        request.timeLimitSeconds = static_cast<int>(seconds);
        first = 2;
    }
    request.removerArguments.assign(arguments.begin() + static_cast<std::ptrdiff_t>(first), arguments.end());
    return request;
}

// The parts of the bundle the preview runs or puts in place.
struct BundleParts {
    std::string remover;
    std::string firstProcess;
    std::string recordingTool;
    std::string recordingLibrary;
    std::string library;
};

BundleParts partsOf(const platform::Bundle& bundle)
{
    const std::string& bundlePath = bundle.bundlePath();
    const std::string standIns = platform::appendingPathComponent(bundlePath, RemoverPreview::kStandInFolder);
    return {removerPathIn(bundle),
            platform::appendingPathComponents(bundlePath, {"Contents", "MacOS", "RemoverPreview"}),
            platform::appendingPathComponent(standIns, RemoverPreview::kRecordingTool),
            platform::appendingPathComponent(standIns, RemoverPreview::kRecordingLibrary),
            platform::appendingPathComponents(bundlePath, {"Contents", "Frameworks", kInstallManagerLibrary})};
}

// A stand-in goes only where the real thing is: where it is missing (or is a
// folder, which nothing can run or load), the remover finds that, as it
// would. Anywhere else the stand-in must be in place, or nothing runs.
// An empty string when all are in place, the reason otherwise.
std::string placeStandIns(platform::OverlayRoot& root, const BundleParts& parts)
{
    const platform::FileManager& files = platform::FileManager::defaultManager();
    const std::vector<std::pair<std::string, std::string>> standInFor = {
        {parts.recordingTool, kPackageToolPath},
        {parts.recordingTool, kLaunchctl_ToolPath},
        {parts.recordingLibrary, parts.library},
    };
    for (const auto& [standIn, real] : standInFor) {
        bool isFolder = false;
        if (!files.fileExistsAtPath(real, &isFolder) || isFolder) {
            continue;
        }
        std::error_code error;
        if (!root.placeStandIn(standIn, real, &error)) {
            return "cannot put a stand-in in place of " + real + ": " + error.message();
        }
    }
    return {};
}

// How the run of the first process went.
struct RunOutcome {
    std::string output;
    bool stopped = false;
    // Why it could not be started; empty when it was.
    std::string launchFailure;
};

RunOutcome runFirstProcess(const BundleParts& parts, const PreviewRequest& request,
                           const platform::InheritedJournal& journal, const std::string& workingFolder)
{
    RunOutcome outcome;
    try {
        platform::TaskOptions options;
        options.captureStandardOutput = true;
        options.inheritedDescriptors = {journal.descriptor()};
        options.environment = {{platform::InheritedJournal::kEnvironmentVariable, journal.environmentValue()},
                               {kFirstProcessVariable, "1"}};
        options.currentDirectoryPath = workingFolder;
        platform::Task task =
            platform::Task::launchedTaskWithLaunchPath(parts.firstProcess, request.removerArguments, options);
        if (!task.waitUntilExit(std::chrono::seconds(request.timeLimitSeconds))) {
            // The first process of the PID namespace: everything in it ends.
            task.killAndWait();
            outcome.stopped = true;
        }
        outcome.output = task.standardOutputData();
    } catch (const platform::Exception& exception) {
        outcome.launchFailure = exception.reason();
    }
    return outcome;
}

// Fills in how the remover ended and the stand-ins' calls from the journal;
// the reason when it cannot be read or tells of a failure, empty otherwise.
std::string readJournal(platform::InheritedJournal& journal, bool stopped, PreviewReport& report)
{
    std::error_code error;
    bool ended = false;
    for (platform::InheritedJournal::Record& record : journal.records(&error)) {
        if (record.size() == 2 && record[0] == kFailedRecord) {
            return record[1];
        }
        if (record.size() == 3 && record[0] == kEndedRecord) {
            ended = true;
            report.removerSignalled = record[1] == "signal";
            report.removerStatus = platform::intValue(record[2]);
        } else {
            report.calls.push_back(std::move(record));
        }
    }
    if (error) {
        return "the stand-ins' journal cannot be read: " + error.message();
    }
    if (!ended && !stopped) {
        return "the remover's run ended without a word of how";
    }
    return {};
}

// Fills in what the run changed, leaving out the stand-ins the preview wrote
// itself while they are as it left them; the reason when a layer cannot be
// read whole, empty otherwise.
std::string readChanges(const platform::OverlayRoot& root, PreviewReport& report)
{
    const std::vector<std::string> standIns = root.standInsLeftAsPlaced();
    for (const platform::OverlayRoot::Layer& layer : root.layers()) {
        std::error_code error;
        std::vector<platform::OverlayChange> changes =
            platform::OverlayChanges::read(layer.changes.get(), layer.original.get(), layer.mountPoint, &error);
        if (error) {
            return "not every change below " + layer.mountPoint + " can be read: " + error.message();
        }
        for (platform::OverlayChange& change : changes) {
            const bool ownStandIn = change.kind == platform::OverlayChange::Kind::Changed &&
                                    std::find(standIns.begin(), standIns.end(), change.path) != standIns.end();
            if (!ownStandIn) {
                report.changes.push_back(std::move(change));
            }
        }
    }
    return {};
}

}  // namespace

namespace {

// Why the preview stopped before its report, and the exit status that says
// so; an empty reason for none.
struct Stop {
    int status = 0;
    std::string reason;
};

// Step one: the view entered, with the bundle's parts checked and the
// stand-ins placed in it, and the working folder there too.
std::optional<platform::OverlayRoot> enterView(const BundleParts& parts, const std::string& workingFolder, Stop& stop)
{
    platform::OverlayRoot::Failure failure;
    std::optional<platform::OverlayRoot> root = platform::OverlayRoot::enter(kWorkFolder, &failure);
    if (!root) {
        const bool unsupported = failure.kind != platform::OverlayRoot::FailureKind::SetUp;
        stop = {unsupported ? RemoverPreview::kCannotPreviewHere : RemoverPreview::kFailed, failure.message()};
        return std::nullopt;
    }
    const platform::FileManager& files = platform::FileManager::defaultManager();
    for (const std::string& part : {parts.remover, parts.firstProcess, parts.recordingTool, parts.recordingLibrary}) {
        if (!files.fileExistsAtPath(part)) {
            stop = {RemoverPreview::kFailed, "the bundle has no " + part};
            return std::nullopt;
        }
    }
    if (std::string reason = placeStandIns(*root, parts); !reason.empty()) {
        stop = {RemoverPreview::kFailed, std::move(reason)};
        return std::nullopt;
    }
    bool isFolder = false;
    if (!files.fileExistsAtPath(workingFolder, &isFolder) || !isFolder) {
        stop = {RemoverPreview::kFailed, "the working folder " + workingFolder + " is not there in the preview"};
        return std::nullopt;
    }
    return root;
}

// Step two: the remover run in the view, as the first process of a PID
// namespace of its own, its stand-ins' records in `journal`.
std::optional<RunOutcome> runInView(platform::OverlayRoot& root, const BundleParts& parts,
                                    const PreviewRequest& request, const std::string& workingFolder,
                                    std::optional<platform::InheritedJournal>& journal, Stop& stop)
{
    std::error_code error;
    journal = platform::InheritedJournal::create(&error);
    if (!journal) {
        stop = {RemoverPreview::kFailed, "cannot make the stand-ins' journal: " + error.message()};
        return std::nullopt;
    }
    if (!root.separateProcesses(&error)) {
        stop = {RemoverPreview::kCannotPreviewHere, "cannot make a PID namespace: " + error.message()};
        return std::nullopt;
    }
    RunOutcome outcome = runFirstProcess(parts, request, *journal, workingFolder);
    // Whatever happened, this process goes on making processes beside it.
    if (!root.rejoinProcesses(&error)) {
        stop = {RemoverPreview::kFailed, "cannot return to this process's PID namespace: " + error.message()};
        return std::nullopt;
    }
    if (!outcome.launchFailure.empty()) {
        stop = {RemoverPreview::kFailed, outcome.launchFailure};
        return std::nullopt;
    }
    return outcome;
}

// Step three: the report of what the run printed, what the stand-ins were
// asked and what changed in the view.
std::optional<PreviewReport> collect(const platform::OverlayRoot& root, const PreviewRequest& request,
                                     const RunOutcome& outcome, platform::InheritedJournal& journal, Stop& stop)
{
    PreviewReport report;
    report.removerArguments = request.removerArguments;
    report.removerOutput = outcome.output;
    if (outcome.stopped) {
        report.stoppedAfterSeconds = request.timeLimitSeconds;
    }
    std::string reason = readJournal(journal, outcome.stopped, report);
    if (reason.empty()) {
        reason = readChanges(root, report);
    }
    if (!reason.empty()) {
        stop = {RemoverPreview::kFailed, std::move(reason)};
        return std::nullopt;
    }
    report.readOnlyMounts = root.readOnlyMounts();
    return report;
}

}  // namespace

int RemoverPreview::run(const std::vector<std::string>& arguments, std::FILE* output, std::FILE* console)
{
    platform::ProcessInfo::closeInheritedDescriptors();
    std::string problem;
    const std::optional<PreviewRequest> request = requestOf(arguments, problem);
    if (!request) {
        return cannotPreview(console, kUsage, problem);
    }
    if (platform::effectiveUserID() != 0) {
        return cannotPreview(console, kNotRoot, "it must run as root, as the remover does");
    }
    const std::optional<platform::Bundle> bundle = platform::Bundle::mainBundle();
    if (!bundle) {
        return cannotPreview(console, kFailed, "it does not run from the remover's bundle");
    }
    const BundleParts parts = partsOf(*bundle);
    // The remover resolves a relative application path against it.
    const std::string workingFolder = platform::ProcessInfo::currentDirectoryPath().value_or("/");

    Stop stop;
    std::optional<platform::OverlayRoot> root = enterView(parts, workingFolder, stop);
    std::optional<platform::InheritedJournal> journal;
    const std::optional<RunOutcome> outcome =
        root ? runInView(*root, parts, *request, workingFolder, journal, stop) : std::nullopt;
    const std::optional<PreviewReport> report =
        outcome ? collect(*root, *request, *outcome, *journal, stop) : std::nullopt;
    if (!report) {
        return cannotPreview(console, stop.status, stop.reason);
    }
    if (std::fputs(report->text().c_str(), output) < 0 || std::fflush(output) != 0 || std::ferror(output) != 0) {
        return cannotPreview(console, kFailed, "cannot write the report");
    }
    return outcome->stopped ? kStoppedAtTimeLimit : kPreviewRan;
}

bool RemoverPreview::isFirstProcessOfAPreview()
{
    return platform::ProcessInfo::processIdentifier() == 1 &&
           platform::ProcessInfo::environmentValue(kFirstProcessVariable) == std::optional<std::string>("1");
}

int RemoverPreview::runRemoverAsFirstProcess(const std::vector<std::string>& removerArguments)
{
    const auto failed = [](const std::string& reason) {
        platform::InheritedJournal::appendToInherited({kFailedRecord, reason});
        return kFailed;
    };
    std::error_code error;
    if (!platform::OverlayRoot::mountProcessTable(&error)) {
        return failed("cannot mount the process table of the preview's PID namespace: " + error.message());
    }
    const std::optional<platform::Bundle> bundle = platform::Bundle::mainBundle();
    if (!bundle) {
        return failed("the preview's first process does not run from the remover's bundle");
    }
    try {
        platform::TaskOptions options;
        // The remover sees nothing of how it was started.
        options.environment = {{kFirstProcessVariable, ""}};
        platform::Task task =
            platform::Task::launchedTaskWithLaunchPath(removerPathIn(*bundle), removerArguments, options);
        task.waitUntilExit();
        const bool signalled = task.terminationReason() == platform::Task::TerminationReason::UncaughtSignal;
        platform::InheritedJournal::appendToInherited(
            {kEndedRecord, signalled ? "signal" : "exit", std::to_string(task.terminationStatus())});
    } catch (const platform::Exception& exception) {
        return failed(exception.reason());
    }
    return kPreviewRan;
}
