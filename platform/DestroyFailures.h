// Why a destroy left something, gathered for one console line per destroy:
// the first item that stayed with its reason, and how many more did.
//
//   platform::DestroyFailures failures;
//   const bool destroyed = workspace.performFileOperation(
//       WorkspaceOperation::Destroy, folder, std::nullopt, {name}, &tag, nullptr, failures.handler());
//   if (!destroyed) {
//       failures.log(folder + "/" + name);  // "not removed: /x/y: Read-only file system"
//   }
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/TreeRemover.h"

namespace platform {

class DestroyFailures {
public:
    DestroyFailures() = default;
    DestroyFailures(const DestroyFailures&) = delete;
    DestroyFailures& operator=(const DestroyFailures&) = delete;

    // Notes one item that stayed.
    void add(const std::string& path, std::error_code reason);
    // A failure handler that notes into this object, which must outlive it.
    TreeRemover::FailureHandler handler();
    // Writes the console line for a destroy of `path` that failed: the first
    // item that stayed and its reason, with " (and N more)" when more than
    // one did; `path` alone when the destroy named none.
    void log(const std::string& path) const;

    // The one form of the "not removed" console line: "not removed: PATH",
    // then ": REASON" when there is one, then " (and N more)" when `others`
    // is not 0. Path and reason have their control characters escaped as
    // platform::escapingControlCharacters does, so a name holding a line
    // feed or a terminal's escape sequence still gives one plain line:
    //
    //   line("/x/a\nb", "a mount point")  gives  not removed: /x/a\nb: a mount point
    static std::string line(std::string_view path, std::string_view reason = {}, std::size_t others = 0);

private:
    std::string theFirstPath;
    std::error_code theFirstReason;
    std::size_t theCount = 0;
};

}  // namespace platform
