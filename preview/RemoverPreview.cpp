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
#include "platform/Task.h"
#include "platform/User.h"
#include "preview/PreviewReport.h"
#include "remover/TFRemoverTool.h"

namespace {

// The folder whose tmpfs holds the writable layers while they are made.
constexpr char kWorkFolder[] = "/tmp";

int cannotPreview(std::FILE* console, int status, const std::string& reason)
{
    std::fprintf(console, "RemoverPreview: cannot preview: %s\n", reason.c_str());
    return status;
}

}  // namespace

int RemoverPreview::run(const std::vector<std::string>& removerArguments, std::FILE* output, std::FILE* console)
{
    if (platform::effectiveUserID() != 0) {
        return cannotPreview(console, kNotRoot, "it must run as root, as the remover does");
    }
    const std::optional<platform::Bundle> bundle = platform::Bundle::mainBundle();
    if (!bundle) {
        return cannotPreview(console, kFailed, "it does not run from the remover's bundle");
    }
    const std::string& bundlePath = bundle->bundlePath();
    const std::string remover = platform::appendingPathComponents(bundlePath, {"Contents", "MacOS", "RemoverTool"});
    const std::string standIns = platform::appendingPathComponent(bundlePath, kStandInFolder);
    const std::string recordingTool = platform::appendingPathComponent(standIns, kRecordingTool);
    const std::string recordingLibrary = platform::appendingPathComponent(standIns, kRecordingLibrary);
    for (const std::string& part : {remover, recordingTool, recordingLibrary}) {
        if (!platform::FileManager::defaultManager().fileExistsAtPath(part)) {
            return cannotPreview(console, kFailed, "the bundle has no " + part);
        }
    }
    const std::string library = platform::appendingPathComponents(
        bundlePath, {"Contents", "Frameworks", TFRemoverTool::kInstallManagerLibrary});

    platform::OverlayRoot::Failure failure;
    std::optional<platform::OverlayRoot> root = platform::OverlayRoot::enter(kWorkFolder, &failure);
    if (!root) {
        const bool unsupported = failure.kind != platform::OverlayRoot::FailureKind::SetUp;
        return cannotPreview(console, unsupported ? kCannotPreviewHere : kFailed, failure.message());
    }

    // A stand-in goes only where the real thing is: where it is missing, the
    // remover finds it missing, as it would.
    const std::vector<std::pair<std::string, std::string>> standInFor = {
        {recordingTool, TFRemoverTool::kPackageToolPath},
        {recordingTool, kLaunchctl_ToolPath},
        {recordingLibrary, library},
    };
    for (const auto& [standIn, real] : standInFor) {
        std::error_code error;
        if (!root->bindFileReadOnly(standIn, real, &error) && error != std::errc::no_such_file_or_directory &&
            error != std::errc::invalid_argument) {
            return cannotPreview(console, kFailed, "cannot put a stand-in over " + real + ": " + error.message());
        }
    }

    std::error_code error;
    std::optional<platform::InheritedJournal> journal = platform::InheritedJournal::create(&error);
    if (!journal) {
        return cannotPreview(console, kFailed, "cannot make the stand-ins' journal: " + error.message());
    }

    PreviewReport report;
    report.removerArguments = removerArguments;
    try {
        platform::TaskOptions options;
        options.captureStandardOutput = true;
        options.inheritedDescriptors = {journal->descriptor()};
        options.environment = {{platform::InheritedJournal::kEnvironmentVariable, journal->environmentValue()}};
        platform::Task task = platform::Task::launchedTaskWithLaunchPath(remover, removerArguments, options);
        task.waitUntilExit();
        report.removerOutput = task.standardOutputData();
        report.removerSignalled = task.terminationReason() == platform::Task::TerminationReason::UncaughtSignal;
        report.removerStatus = task.terminationStatus();
    } catch (const platform::Exception& exception) {
        return cannotPreview(console, kFailed, exception.reason());
    }

    report.calls = journal->records(&error);
    if (error) {
        std::fprintf(console, "RemoverPreview: the stand-ins' journal could not be read: %s\n",
                     error.message().c_str());
    }
    for (const platform::OverlayRoot::Layer& layer : root->layers()) {
        std::vector<platform::OverlayChange> changes =
            platform::OverlayChanges::read(layer.changes.get(), layer.original.get(), layer.mountPoint, &error);
        if (error) {
            std::fprintf(console, "RemoverPreview: not every change below %s could be read: %s\n",
                         layer.mountPoint.c_str(), error.message().c_str());
        }
        report.changes.insert(report.changes.end(), changes.begin(), changes.end());
    }
    report.readOnlyMounts = root->readOnlyMounts();
    std::fputs(report.text().c_str(), output);
    std::fflush(output);
    return kPreviewRan;
}
