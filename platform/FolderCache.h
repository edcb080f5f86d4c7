// The folder a path's folder text led to last, kept open for the next item
// of the same folder: the existence check and the destroy of a listed file
// then share one resolution and one look at the file (an fstatat relative to
// the folder), so each existing listed file costs that look and its unlink.
//
// What a folder text leads to can only change when a folder or a link on its
// way goes or moves (a file going cannot change it), so every removal of a
// folder or a link, and every move, forgets what every thread's cache holds
// (invalidateAll). Each thread has a cache of its own, holding one folder.
//
// A folder handed out stays open for as long as its holder keeps it, even
// when the cache moves on to another folder meanwhile (a failure handler or
// the first build of the protected set may look at other paths).
//
// @code
//   FolderCache& cache = FolderCache::ofThisThread();
//   bool opened = false;
//   const FolderCache::Folder folder = cache.folder("/opt/app", opened, &error);  // resolved once
//   ... ::fstatat(folder->fd.get(), "file", &status, AT_SYMLINK_NOFOLLOW) ...
//   folder->rememberStatus("file", status);  // for the destroy that follows
// @endcode
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

#include "platform/PosixIO.h"

namespace platform {

class FolderCache {
public:
    // One resolved folder and what has been learnt of it.
    struct Resolved {
        posix::UniqueFd fd;  // opened with O_PATH (posix::openFolderPath)
        // What the guard said of the folder's place (ProtectedFolders::
        // placeRefusal); none until it is asked.
        std::optional<std::error_code> place;

        // What an fstatat(fd, name, AT_SYMLINK_NOFOLLOW) just answered, for
        // the next user of the same name; taken once.
        void rememberStatus(std::string_view name, const struct stat& status);
        std::optional<struct stat> takeStatus(std::string_view name);

    private:
        std::string theStatusName;
        std::optional<struct stat> theStatus;
    };
    using Folder = std::shared_ptr<Resolved>;

    // The cache of the calling thread.
    static FolderCache& ofThisThread();

    // Every thread's cache forgets its folder.
    static void invalidateAll() noexcept;

    // The folder `text` leads to (posix::openFolderPath: links and ".." on
    // the way followed, any length; "" is the current folder), or nullptr
    // with the reason in `error`. `opened` says whether it was resolved now
    // rather than kept from before. Only an absolute text is kept for the
    // next call (a relative one depends on the current folder).
    Folder folder(std::string_view text, bool& opened, std::error_code* error = nullptr);

    // Forgets the folder (a kept folder whose answer looks stale).
    void forget() noexcept;

private:
    FolderCache() = default;

    Folder theFolder;
    std::string theText;
    std::uint64_t theGeneration = 0;
};

}  // namespace platform
