#include "platform/preview/OverlayChanges.h"

#include <algorithm>
#include <cstddef>
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

// An entry of a folder with its type as the listing gives it, and its
// inode number.
struct Entry {
    std::string name;
    Type type = Type::File;
    ino_t inode = 0;
    // For a character device: whether it is a whiteout (device 0/0).
    bool whiteout = false;
};

// Keeps the first failure met.
void note(std::error_code& first, std::error_code failure)
{
    if (failure && !first) {
        first = failure;
    }
}

Type typeOfStatus(const struct stat& status)
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

std::optional<struct stat> statusAt(int folder, const std::string& name)
{
    struct stat status {};
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return std::nullopt;
    }
    return status;
}

// The inode numbers of whiteouts met in one writable layer. The overlay
// makes each whiteout a link to one device 0/0 of its own, so an entry with
// the number of one already examined is that whiteout too, and is not
// examined again. A few are kept, should the links be refused.
class KnownWhiteouts {
public:
    bool contains(ino_t inode) const { return std::find(theInodes.begin(), theInodes.end(), inode) != theInodes.end(); }
    void add(ino_t inode)
    {
        if (theInodes.size() < kKept && !contains(inode)) {
            theInodes.push_back(inode);
        }
    }

private:
    static constexpr std::size_t kKept = 16;
    std::vector<ino_t> theInodes;
};

Type typeOfListed(DirectoryEntries::Type type)
{
    switch (type) {
    case DirectoryEntries::Type::Folder: return Type::Folder;
    case DirectoryEntries::Type::Link: return Type::Link;
    case DirectoryEntries::Type::File: return Type::File;
    case DirectoryEntries::Type::Other:
    case DirectoryEntries::Type::Unknown: break;
    }
    return Type::Other;
}

// Every entry of the folder open at `folder` but "." and "..", with its type
// (a link not followed) as the listing gives it. With `whiteouts` (a
// writable layer), each item of the other type is told whether it is a
// whiteout. An entry that cannot be examined where that is needed is passed
// over.
std::vector<Entry> entriesOf(int folder, std::error_code& error, KnownWhiteouts* whiteouts = nullptr)
{
    std::vector<Entry> entries;
    DirectoryEntries listing(folder);
    while (const auto entry = listing.next()) {
        Entry item{std::string(entry->name), typeOfListed(entry->type), entry->inode, false};
        const bool mayBeWhiteout = whiteouts != nullptr && entry->type == DirectoryEntries::Type::Other;
        if (mayBeWhiteout && whiteouts->contains(item.inode)) {
            item.whiteout = true;
        } else if (mayBeWhiteout || entry->type == DirectoryEntries::Type::Unknown) {
            struct stat status {};
            if (::fstatat(folder, item.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
                note(error, posix::lastError());
                continue;
            }
            item.type = typeOfStatus(status);
            item.whiteout = whiteouts != nullptr && isWhiteout(status);
            if (item.whiteout) {
                whiteouts->add(status.st_ino);
            }
        }
        entries.push_back(std::move(item));
    }
    note(error, listing.error());
    return entries;
}

bool isOpaque(int folder)
{
    char value[2] = {};
    const ssize_t length = ::fgetxattr(folder, "trusted.overlay.opaque", value, sizeof value);
    return length == 1 && value[0] == 'y';
}

std::string joined(const std::string& folder, const std::string& name)
{
    return folder.empty() || folder.back() != '/' ? folder + "/" + name : folder + name;
}

// The types of the items of a folder of the original file system, from one
// listing of it; by name.
class OriginalFolder {
public:
    explicit OriginalFolder(int folder) : theFolder(folder)
    {
        std::error_code error;
        theEntries = entriesOf(folder, error);
        // Should the listing fail, each item is examined on its own, as
        // when it was not listed.
        theListed = !error;
        std::sort(theEntries.begin(), theEntries.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
    }

    // The type of the item `name`; none when there is none.
    std::optional<Type> typeOf(const std::string& name) const
    {
        if (!theListed) {
            const std::optional<struct stat> status = statusAt(theFolder, name);
            return status ? std::optional<Type>(typeOfStatus(*status)) : std::nullopt;
        }
        const auto found =
            std::lower_bound(theEntries.begin(), theEntries.end(), name,
                             [](const Entry& entry, const std::string& wanted) { return entry.name < wanted; });
        if (found == theEntries.end() || found->name != name) {
            return std::nullopt;
        }
        return found->type;
    }

private:
    int theFolder;
    std::vector<Entry> theEntries;
    bool theListed = false;
};

// A change for the item `name` of type `type` in the folder open at
// `folder`; a folder comes with the count of what is below it.
OverlayChange changeOf(Kind kind, const std::string& path, int folder, const std::string& name, Type type,
                       std::error_code& error)
{
    OverlayChange change{kind, path, type, 0};
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
        changes.push_back(changeOf(kind, joined(path, entry.name), inside.get(), entry.name, entry.type, error));
    }
}

// A folder met in both layers: its own changes; what to descend into is
// returned.
std::vector<std::string> readFolder(int upper, int lower, const std::string& path, std::vector<OverlayChange>& changes,
                                    KnownWhiteouts& whiteouts, std::error_code& error)
{
    std::vector<std::string> descend;
    const std::vector<Entry> entries = entriesOf(upper, error, &whiteouts);
    if (entries.empty()) {
        return descend;
    }
    const OriginalFolder original(lower);
    for (const Entry& entry : entries) {
        const std::string itemPath = joined(path, entry.name);
        const std::optional<Type> before = original.typeOf(entry.name);
        if (entry.whiteout) {
            if (before) {
                changes.push_back(changeOf(Kind::Removed, itemPath, lower, entry.name, *before, error));
            }
            continue;
        }
        if (before == Type::Folder && entry.type == Type::Folder) {
            // Its mode, owner and group are compared between the layers.
            const std::optional<struct stat> now = statusAt(upper, entry.name);
            if (!now) {
                note(error, posix::lastError());
                continue;
            }
            const std::optional<struct stat> was = statusAt(lower, entry.name);
            if (!was) {
                note(error, posix::lastError());
                continue;
            }
            std::error_code failure;
            const posix::UniqueFd upperFolder = posix::openAt(upper, entry.name, kFolderFlags, 0, &failure);
            if (!upperFolder.valid()) {
                note(error, failure);
                continue;
            }
            const bool attributesChanged =
                now->st_mode != was->st_mode || now->st_uid != was->st_uid || now->st_gid != was->st_gid;
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
        if (before == entry.type) {
            changes.push_back({Kind::Changed, itemPath, entry.type, 0});
            continue;
        }
        if (before) {
            // Something else now stands where the item was.
            changes.push_back(changeOf(Kind::Removed, itemPath, lower, entry.name, *before, error));
        }
        changes.push_back(changeOf(Kind::Created, itemPath, upper, entry.name, entry.type, error));
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
            if (entry.type == Type::Folder) {
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
    KnownWhiteouts whiteouts;
    if (upper.valid() && lower.valid()) {
        levels.push_back({readFolder(upper.get(), lower.get(), mountPoint, found, whiteouts, first), 0, mountPoint});
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
            std::vector<std::string> folders = readFolder(upper.get(), lower.get(), path, found, whiteouts, first);
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
