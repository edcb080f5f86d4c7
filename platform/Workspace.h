// Workspace operations: destroying items at once (never into a trash) and
// clearing a folder's custom icon.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "platform/TreeRemover.h"

namespace platform {

enum class WorkspaceOperation { Destroy };

class Workspace {
public:
    virtual ~Workspace() = default;

    static Workspace& sharedWorkspace();
    // Tests put a workspace of their own in place of the shared one; nullptr
    // restores the real one. The workspace must outlive its use.
    static void setSharedWorkspaceForTesting(Workspace* workspace);

    // Destroy: for each name, destroys source/name with everything in it,
    // as TreeRemover.h describes (its removeRelative: a name with a "." or
    // ".." component, an empty name and "/" itself are refused). True when
    // every named item was destroyed; false when one did not exist or could
    // not be destroyed completely; an empty list destroys nothing and is
    // false. The destination is not used; tag, when given, receives 0.
    bool performFileOperation(WorkspaceOperation operation, const std::string& source,
                              const std::optional<std::string>& destination, const std::vector<std::string>& files,
                              int32_t* tag);
    // The same destroy, telling why something stayed: `error`, when given,
    // receives the reason of the first failure (cleared when everything
    // went; invalid_argument for an empty list), and `onFailure`, when set,
    // is called for every item that stayed, with its path and the reason.
    // A replacement workspace overrides this form; the first one calls it.
    //
    //   workspace.performFileOperation(WorkspaceOperation::Destroy, "/Library/X", std::nullopt, {"y"}, &tag,
    //                                  nullptr, [](const std::string& item, std::error_code reason) { ... });
    virtual bool performFileOperation(WorkspaceOperation operation, const std::string& source,
                                      const std::optional<std::string>& destination,
                                      const std::vector<std::string>& files, int32_t* tag, std::error_code* error,
                                      const TreeRemover::FailureHandler& onFailure = nullptr);

    // Only clearing is supported (image = nullptr): a folder's custom icon is
    // the file "Icon\r" inside it. True when no custom icon remains (also when
    // there was none, or the path names a file or a link); false when it
    // could not be removed or the path is neither. The item is never followed:
    // a link in the folder's place is a link, and nothing is removed through it.
    virtual bool setIcon(std::nullptr_t image, const std::string& path, unsigned options);

protected:
    Workspace() = default;
};

}  // namespace platform
