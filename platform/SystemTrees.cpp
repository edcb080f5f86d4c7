#include "platform/SystemTrees.h"

#include "platform/FolderAncestors.h"
#include "platform/PathParts.h"
#include "platform/PosixIO.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <utility>

namespace platform {

namespace {

constexpr std::array kStandardTrees = {"/usr",   "/bin",    "/sbin", "/lib",  "/lib32",
                                       "/lib64", "/libx32", "/etc",  "/boot", "/System"};

// The folder a path names its last component in: "." for a bare name, "/"
// for a name right below the root. Trailing slashes are no component.
std::string folderOfPath(const std::string& path)
{
    FolderAndName parts = splitFolderAndName(path);
    return parts.folder.empty() ? std::string(".") : std::move(parts.folder);
}

}  // namespace

std::vector<std::string> SystemTrees::standardTrees(const std::string& root)
{
    std::vector<std::string> trees;
    trees.reserve(kStandardTrees.size());
    for (const char* tree : kStandardTrees) {
        trees.push_back(root + tree);
    }
    return trees;
}

const SystemTrees& SystemTrees::shared()
{
    static const SystemTrees trees(standardTrees(""));
    return trees;
}

SystemTrees::SystemTrees(const std::vector<std::string>& trees)
{
    for (const std::string& path : trees) {
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0 && treeWithIdentity(status.st_dev, status.st_ino) == nullptr) {
            theTrees.push_back(Tree{status.st_dev, status.st_ino, path});
        }
    }
}

const SystemTrees::Tree* SystemTrees::treeWithIdentity(dev_t device, ino_t inode) const noexcept
{
    for (const Tree& tree : theTrees) {
        if (tree.device == device && tree.inode == inode) {
            return &tree;
        }
    }
    return nullptr;
}

std::optional<std::string> SystemTrees::treeHolding(const std::string& path, std::error_code* error) const
{
    error->clear();
    // The item itself, a link included, without opening what it leads to.
    posix::UniqueFd item = posix::openFile(path, O_PATH | O_NOFOLLOW, 0, error);
    if (!item.valid()) {
        return std::nullopt;
    }
    struct stat itemStatus {};
    if ((*error = posix::statDescriptor(item.get(), itemStatus))) {
        return std::nullopt;
    }
    // A folder climbs from itself; anything else from the folder it lies in.
    posix::UniqueFd folder;
    if (S_ISDIR(itemStatus.st_mode)) {
        folder = std::move(item);
    } else {
        folder = posix::openFile(folderOfPath(path), O_PATH | O_DIRECTORY, 0, error);
        if (!folder.valid()) {
            return std::nullopt;
        }
    }
    return treeHoldingFolder(folder.get(), error);
}

std::optional<std::string> SystemTrees::treeHoldingFolder(int folderFd, std::error_code* error) const
{
    error->clear();
    // Up to the root: the outermost tree names the place ("/usr" rather
    // than "/bin" for /usr/bin/tool where /bin leads to usr/bin).
    std::optional<std::string> holding;
    *error = FolderAncestors::climb(folderFd, [&](int /*folderFd*/, const struct stat& status) {
        if (const Tree* tree = treeWithIdentity(status.st_dev, status.st_ino)) {
            holding = tree->path;
        }
        return true;
    });
    if (*error) {
        return std::nullopt;
    }
    return holding;
}

}  // namespace platform
