#include "platform/preview/OverlayChanges.h"

#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <utility>

#include "platform/DirectoryEntries.h"
#include "platform/PosixIO.h"

namespace platform {

namespace {

using Type = OverlayChange::Type;
using Kind = OverlayChange::Kind;

using posix::kFolderFlags;

struct Entry {
    std::string name;
    struct stat status {};
};

// Keeps the first failure met.
void note(std::error_code& first, std::error_code failure)
{
    if (failure && !first) {
        first = failure;
    }
}

// Every entry of the folder open at `folder` but "." and "..", with its
// status (a link not followed).
std::vector<Entry> entriesOf(int folder, std::error_code& error)
{
    std::vector<Entry> entries;
    DirectoryEntries listing(folder);
    while (const auto entry = listing.next()) {
        Entry item{std::string(entry->name), {}};
        // The whole status is compared between the layers, not only the type.
        if (::fstatat(folder, item.name.c_str(), &item.status, AT_SYMLINK_NOFOLLOW) != 0) {
            note(error, posix::lastError());
            continue;
        }
        entries.push_back(std::move(item));
    }
    note(error, listing.error());
    return entries;
}

Type typeOf(const struct stat& status)
{
    if (S_ISDIR(status.st_mode)) {
        return Type::Folder;
    }
    if (S_ISLNK(status.st_mode)) {
        return Type::Link;
    }
    return S_ISREG(status.st_mode) ? Type::File : Type::Other;
}

bool isWhiteout(const struct stat& status)
{
    return S_ISCHR(status.st_mode) && status.st_rdev == makedev(0, 0);
}

bool isOpaque(int folder)
{
    char value[2] = {};
    const ssize_t length = ::fgetxattr(folder, "trusted.overlay.opaque", value, sizeof value);
    return length == 1 && value[0] == 'y';
}

std::optional<struct stat> statusAt(int folder, const std::string& name)
{
    struct stat status {};
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return std::nullopt;
    }
    return status;
}

std::string joined(const std::string& folder, const std::string& name)
{
    return folder.empty() || folder.back() != '/' ? folder + "/" + name : folder + name;
}

// A change for the item `name` in the folder open at `folder`; a folder
// comes with the count of what is below it.
OverlayChange changeOf(Kind kind, const std::string& path, int folder, const std::string& name,
                       const struct stat& status, std::error_code& error)
{
    OverlayChange change{kind, path, typeOf(status), 0};
    if (change.type == Type::Folder) {
        std::error_code failure;
        const posix::UniqueFd inside = posix::openAt(folder, name, kFolderFlags, 0, &failure);
        if (inside.valid()) {
            change.itemsInside = OverlayChanges::countItemsBelow(inside.get(), &failure);
        }
        note(error, failure);
    }
    return change;
}

// Every item of the folder `name` (open in `folder`) reported as `kind`, one
// change each.
void reportEach(Kind kind, int folder, const std::string& name, const std::string& path,
                std::vector<OverlayChange>& changes, std::error_code& error)
{
    std::error_code failure;
    const posix::UniqueFd inside = posix::openAt(folder, name, kFolderFlags, 0, &failure);
    if (!inside.valid()) {
        note(error, failure);
        return;
    }
    for (const Entry& entry : entriesOf(inside.get(), error)) {
        changes.push_back(changeOf(kind, joined(path, entry.name), inside.get(), entry.name, entry.status, error));
    }
}

// A folder met in both layers: its own changes; what to descend into is
// returned.
std::vector<std::string> readFolder(int upper, int lower, const std::string& path, std::vector<OverlayChange>& changes,
                                    std::error_code& error)
{
    std::vector<std::string> descend;
    for (const Entry& entry : entriesOf(upper, error)) {
        const std::string itemPath = joined(path, entry.name);
        const std::optional<struct stat> before = statusAt(lower, entry.name);
        if (isWhiteout(entry.status)) {
            if (before) {
                changes.push_back(changeOf(Kind::Removed, itemPath, lower, entry.name, *before, error));
            }
            continue;
        }
        const bool folderNow = S_ISDIR(entry.status.st_mode);
        if (before && folderNow && S_ISDIR(before->st_mode)) {
            std::error_code failure;
            const posix::UniqueFd upperFolder = posix::openAt(upper, entry.name, kFolderFlags, 0, &failure);
            if (!upperFolder.valid()) {
                note(error, failure);
                continue;
            }
            const bool attributesChanged = entry.status.st_mode != before->st_mode ||
                                           entry.status.st_uid != before->st_uid ||
                                           entry.status.st_gid != before->st_gid;
            if (isOpaque(upperFolder.get())) {
                // Removed and made again: what was below it went, what is
                // below it now is new.
                reportEach(Kind::Removed, lower, entry.name, itemPath, changes, error);
                reportEach(Kind::Created, upper, entry.name, itemPath, changes, error);
            } else {
                descend.push_back(entry.name);
            }
            if (attributesChanged) {
                changes.push_back({Kind::Changed, itemPath, Type::Folder, 0});
            }
            continue;
        }
        if (before && typeOf(entry.status) == typeOf(*before)) {
            changes.push_back({Kind::Changed, itemPath, typeOf(entry.status), 0});
            continue;
        }
        if (before) {
            // Something else now stands where the item was.
            changes.push_back(changeOf(Kind::Removed, itemPath, lower, entry.name, *before, error));
        }
        changes.push_back(changeOf(Kind::Created, itemPath, upper, entry.name, entry.status, error));
    }
    return descend;
}

}  // namespace

uint64_t OverlayChanges::countItemsBelow(int folder, std::error_code* error)
{
    std::error_code first;
    uint64_t count = 0;
    // One folder open at a time: the names of the sub-folders still to visit
    // are kept per level, and ".." leads back up. The trees counted are a
    // writable layer no one else reaches and a read-only mount of the
    // original file system: should something outside rename a folder there
    // meanwhile, a count may be off, but the walk never leaves the tree it
    // started in (no link is followed, ".." only undoes a step down).
    std::error_code failure;
    posix::UniqueFd current = posix::openAt(folder, ".", kFolderFlags, 0, &failure);
    note(first, failure);
    struct Level {
        std::vector<std::string> folders;
        std::size_t next = 0;
    };
    std::vector<Level> levels;
    const auto enter = [&] {
        Level level;
        for (const Entry& entry : entriesOf(current.get(), first)) {
            ++count;
            if (S_ISDIR(entry.status.st_mode)) {
                level.folders.push_back(entry.name);
            }
        }
        levels.push_back(std::move(level));
    };
    if (current.valid()) {
        enter();
    }
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next < level.folders.size()) {
            posix::UniqueFd child =
                posix::openAt(current.get(), level.folders[level.next++], kFolderFlags, 0, &failure);
            if (!child.valid()) {
                note(first, failure);
                continue;
            }
            current = std::move(child);
            enter();
            continue;
        }
        levels.pop_back();
        if (!levels.empty()) {
            current = posix::openAt(current.get(), "..", kFolderFlags, 0, &failure);
            if (!current.valid()) {
                note(first, failure);
                break;
            }
        }
    }
    if (error != nullptr) {
        *error = first;
    }
    return count;
}

std::vector<OverlayChange> OverlayChanges::read(int changes, int original, const std::string& mountPoint,
                                                std::error_code* error)
{
    std::error_code first;
    std::vector<OverlayChange> found;
    std::error_code failure;
    posix::UniqueFd upper = posix::openAt(changes, ".", kFolderFlags, 0, &failure);
    note(first, failure);
    posix::UniqueFd lower = posix::openAt(original, ".", kFolderFlags, 0, &failure);
    note(first, failure);
    struct Level {
        std::vector<std::string> folders;
        std::size_t next = 0;
        std::string path;
    };
    std::vector<Level> levels;
    if (upper.valid() && lower.valid()) {
        levels.push_back({readFolder(upper.get(), lower.get(), mountPoint, found, first), 0, mountPoint});
    }
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next < level.folders.size()) {
            const std::string& name = level.folders[level.next++];
            posix::UniqueFd upperChild = posix::openAt(upper.get(), name, kFolderFlags, 0, &failure);
            note(first, failure);
            posix::UniqueFd lowerChild = posix::openAt(lower.get(), name, kFolderFlags, 0, &failure);
            note(first, failure);
            if (!upperChild.valid() || !lowerChild.valid()) {
                continue;
            }
            upper = std::move(upperChild);
            lower = std::move(lowerChild);
            const std::string path = joined(level.path, name);
            std::vector<std::string> folders = readFolder(upper.get(), lower.get(), path, found, first);
            levels.push_back({std::move(folders), 0, path});
            continue;
        }
        levels.pop_back();
        if (!levels.empty()) {
            upper = posix::openAt(upper.get(), "..", kFolderFlags, 0, &failure);
            note(first, failure);
            lower = posix::openAt(lower.get(), "..", kFolderFlags, 0, &failure);
            note(first, failure);
            if (!upper.valid() || !lower.valid()) {
                break;
            }
        }
    }
    if (error != nullptr) {
        *error = first;
    }
    return found;
}

}  // namespace platform
