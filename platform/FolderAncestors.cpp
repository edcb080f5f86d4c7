#include "platform/FolderAncestors.h"

#include "platform/PosixIO.h"

#include <fcntl.h>

namespace platform {

namespace {

bool sameItem(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

std::error_code FolderAncestors::climb(int folderFd, const Visitor& visit)
{
    // The first folder is the caller's; each one above is opened here, from
    // the one below it, and owned only while it is needed.
    posix::UniqueFd current;
    int currentFd = folderFd;
    if (folderFd == AT_FDCWD) {
        std::error_code error;
        current = posix::openAt(AT_FDCWD, ".", O_RDONLY | O_DIRECTORY | O_NOCTTY, 0, &error);
        if (!current.valid()) {
            return error;
        }
        currentFd = current.get();
    }
    struct stat folder {};
    if (const std::error_code error = posix::statDescriptor(currentFd, folder)) {
        return error;
    }
    for (;;) {
        if (!visit(currentFd, folder)) {
            return {};
        }
        std::error_code error;
        posix::UniqueFd parent = posix::openAt(currentFd, "..", O_RDONLY | O_DIRECTORY | O_NOCTTY, 0, &error);
        if (!parent.valid()) {
            return error;
        }
        struct stat above {};
        if (const std::error_code statError = posix::statDescriptor(parent.get(), above)) {
            return statError;
        }
        if (sameItem(above, folder)) {
            // The root of the process: its ".." is itself.
            return {};
        }
        current = std::move(parent);
        currentFd = current.get();
        folder = above;
    }
}

}  // namespace platform
