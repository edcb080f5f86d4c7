// Workspace operations: destroying items at once (never into a trash) and
// clearing a folder's custom icon.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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
    // never following a symbolic link, never leaving the file system the item
    // is on, refusing "/" and the names "", "." and "..". True when every
    // named item was destroyed; false when one did not exist or could not be
    // destroyed completely. The destination is unused by Destroy; tag, when
    // given, receives 0.
    virtual bool performFileOperation(WorkspaceOperation operation, const std::string& source,
                                      const std::optional<std::string>& destination,
                                      const std::vector<std::string>& files, int32_t* tag);

    // Only clearing is supported (image = nullptr): a folder's custom icon is
    // the file "Icon\r" inside it. True when no custom icon remains (also when
    // there was none); false when it could not be removed or the path is
    // neither a file nor a folder.
    virtual bool setIcon(std::nullptr_t image, const std::string& path, unsigned options);

protected:
    Workspace() = default;
};

}  // namespace platform
