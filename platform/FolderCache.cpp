#include "platform/FolderCache.h"

#include <atomic>
#include <utility>

namespace platform {

namespace {

// Raised by every invalidation; a folder kept at an older value is stale.
std::atomic<std::uint64_t> theGenerationNow{1};

}  // namespace

void FolderCache::Resolved::rememberStatus(std::string_view name, const struct stat& status)
{
    theStatusName.assign(name);
    theStatus = status;
}

std::optional<struct stat> FolderCache::Resolved::takeStatus(std::string_view name)
{
    if (!theStatus || name != theStatusName) {
        return std::nullopt;
    }
    const std::optional<struct stat> status = theStatus;
    theStatus.reset();
    return status;
}

FolderCache& FolderCache::ofThisThread()
{
    thread_local FolderCache cache;
    return cache;
}

void FolderCache::invalidateAll() noexcept
{
    theGenerationNow.fetch_add(1, std::memory_order_acq_rel);
    // The calling thread's folder is closed at once (or as soon as its last
    // holder lets it go); the other threads' when they next ask.
    ofThisThread().forget();
}

void FolderCache::forget() noexcept
{
    theFolder.reset();
    theText.clear();
}

FolderCache::Folder FolderCache::folder(std::string_view text, bool& opened, std::error_code* error)
{
    // The generation is read before resolving: an invalidation during the
    // resolution leaves this folder stale at once.
    const std::uint64_t generation = theGenerationNow.load(std::memory_order_acquire);
    if (theFolder && generation == theGeneration && text == theText) {
        opened = false;
        if (error != nullptr) {
            error->clear();
        }
        return theFolder;
    }
    forget();
    opened = true;
    posix::UniqueFd fd = posix::openFolderPath(text, error);
    if (!fd.valid()) {
        return nullptr;
    }
    auto resolved = std::make_shared<Resolved>();
    resolved->fd = std::move(fd);
    // A relative text depends on the current folder, which may change before
    // the next call: it is resolved afresh every time.
    if (!text.empty() && text.front() == '/') {
        theFolder = resolved;
        theText.assign(text);
        theGeneration = generation;
    }
    return resolved;
}

}  // namespace platform
