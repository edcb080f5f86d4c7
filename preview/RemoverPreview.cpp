#include "preview/RemoverPreview.h"

#include <optional>
#include <system_error>

#include "fsutil/SetupQELAgent.h"
#include "platform/Bundle.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/InheritedJournal.h"
#include "platform/OverlayChanges.h"
#include "platform/OverlayRoot.h"
#include "platform/Path.h"
#include "platform/ProcessInfo.h"
#include "platform/Text.h"
#include "platform/Task.h"
#include "platform/User.h"
#include "preview/PreviewReport.h"
#include "remover/TFRemoverTool.h"

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

int RemoverPreview::run(const std::vector<std::string>& removerArguments, std::FILE* output, std::FILE* console)
{
    platform::ProcessInfo::closeInheritedDescriptors();
    if (platform::effectiveUserID() != 0) {
        return cannotPreview(console, kNotRoot, "it must run as root, as the remover does");
    }
    const std::optional<platform::Bundle> bundle = platform::Bundle::mainBundle();
    if (!bundle) {
        return cannotPreview(console, kFailed, "it does not run from the remover's bundle");
    }
    const std::string& bundlePath = bundle->bundlePath();
    const std::string remover = removerPathIn(*bundle);
    const std::string standIns = platform::appendingPathComponent(bundlePath, kStandInFolder);
    const std::string recordingTool = platform::appendingPathComponent(standIns, kRecordingTool);
    const std::string recordingLibrary = platform::appendingPathComponent(standIns, kRecordingLibrary);
    const std::string library = platform::appendingPathComponents(
        bundlePath, {"Contents", "Frameworks", TFRemoverTool::kInstallManagerLibrary});
    const std::string firstProcess =
        platform::appendingPathComponents(bundlePath, {"Contents", "MacOS", "RemoverPreview"});
    // The remover resolves a relative application path against it.
    const std::string workingFolder = platform::ProcessInfo::currentDirectoryPath().value_or("/");

    platform::OverlayRoot::Failure failure;
    std::optional<platform::OverlayRoot> root = platform::OverlayRoot::enter(kWorkFolder, &failure);
    if (!root) {
        const bool unsupported = failure.kind != platform::OverlayRoot::FailureKind::SetUp;
        return cannotPreview(console, unsupported ? kCannotPreviewHere : kFailed, failure.message());
    }
    const platform::FileManager& files = platform::FileManager::defaultManager();
    for (const std::string& part : {remover, firstProcess, recordingTool, recordingLibrary}) {
        if (!files.fileExistsAtPath(part)) {
            return cannotPreview(console, kFailed, "the bundle has no " + part);
        }
    }

    // A stand-in goes only where the real thing is: where it is missing (or
    // is a folder, which nothing can run or load), the remover finds that,
    // as it would. Anywhere else the stand-in must be in place, or nothing
    // runs.
    const std::vector<std::pair<std::string, std::string>> standInFor = {
        {recordingTool, TFRemoverTool::kPackageToolPath},
        {recordingTool, kLaunchctl_ToolPath},
        {recordingLibrary, library},
    };
    for (const auto& [standIn, real] : standInFor) {
        bool isFolder = false;
        if (!files.fileExistsAtPath(real, &isFolder) || isFolder) {
            continue;
        }
        std::error_code error;
        if (!root->bindFileReadOnly(standIn, real, &error)) {
            return cannotPreview(console, kFailed, "cannot put a stand-in over " + real + ": " + error.message());
        }
    }
    bool isFolder = false;
    if (!files.fileExistsAtPath(workingFolder, &isFolder) || !isFolder) {
        return cannotPreview(console, kFailed, "the working folder " + workingFolder + " is not there in the preview");
    }

    std::error_code error;
    std::optional<platform::InheritedJournal> journal = platform::InheritedJournal::create(&error);
    if (!journal) {
        return cannotPreview(console, kFailed, "cannot make the stand-ins' journal: " + error.message());
    }
    if (!root->separateProcesses(&error)) {
        return cannotPreview(console, kCannotPreviewHere, "cannot make a PID namespace: " + error.message());
    }

    PreviewReport report;
    report.removerArguments = removerArguments;
    std::string launchFailure;
    try {
        platform::TaskOptions options;
        options.captureStandardOutput = true;
        options.inheritedDescriptors = {journal->descriptor()};
        options.environment = {{platform::InheritedJournal::kEnvironmentVariable, journal->environmentValue()},
                               {kFirstProcessVariable, "1"}};
        options.currentDirectoryPath = workingFolder;
        platform::Task task = platform::Task::launchedTaskWithLaunchPath(firstProcess, removerArguments, options);
        task.waitUntilExit();
        report.removerOutput = task.standardOutputData();
    } catch (const platform::Exception& exception) {
        launchFailure = exception.reason();
    }
    // Whatever happened, this process goes on making processes beside it.
    if (!root->rejoinProcesses(&error)) {
        return cannotPreview(console, kFailed, "cannot return to this process's PID namespace: " + error.message());
    }
    if (!launchFailure.empty()) {
        return cannotPreview(console, kFailed, launchFailure);
    }

    bool ended = false;
    for (platform::InheritedJournal::Record& record : journal->records(&error)) {
        if (record.size() == 2 && record[0] == kFailedRecord) {
            return cannotPreview(console, kFailed, record[1]);
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
        return cannotPreview(console, kFailed, "the stand-ins' journal cannot be read: " + error.message());
    }
    if (!ended) {
        return cannotPreview(console, kFailed, "the remover's run ended without a word of how");
    }
    for (const platform::OverlayRoot::Layer& layer : root->layers()) {
        std::vector<platform::OverlayChange> changes =
            platform::OverlayChanges::read(layer.changes.get(), layer.original.get(), layer.mountPoint, &error);
        if (error) {
            return cannotPreview(console, kFailed,
                                 "not every change below " + layer.mountPoint + " can be read: " + error.message());
        }
        report.changes.insert(report.changes.end(), changes.begin(), changes.end());
    }
    report.readOnlyMounts = root->readOnlyMounts();
    if (std::fputs(report.text().c_str(), output) < 0 || std::fflush(output) != 0 || std::ferror(output) != 0) {
        return cannotPreview(console, kFailed, "cannot write the report");
    }
    return kPreviewRan;
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
