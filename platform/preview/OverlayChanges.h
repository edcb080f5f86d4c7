// What a program changed in an overlaid file system (OverlayRoot), read from
// the overlay's writable layer against the file system as it was:
//
// - a whiteout (a character device 0/0) stands for an item removed;
// - an opaque folder (trusted.overlay.opaque "y") replaced the folder below
//   it, whose items were all removed;
// - anything else in the writable layer was created, or changed when the
//   item was there before (a file copied up to be written, a folder whose
//   permissions or owner changed). A folder that only holds changes is not
//   itself reported.
//
//   for (const OverlayChange& change : OverlayChanges::read(layer.changes.get(), layer.original.get(), "/Library")) {
//       // {Removed, "/Library/Old", Folder, 12}: a folder with 12 items below it
//   }
//
// Each item is reported once: a removed or created folder with the number of
// items below it, never with its items one by one. The walk keeps one folder
// of each layer open at a time, so a tree of any depth is read.
#pragma once

#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

namespace platform {

struct OverlayChange {
    enum class Kind { Removed, Created, Changed };
    enum class Type { File, Folder, Link, Other };

    Kind kind = Kind::Changed;
    // The item's path as programs inside the overlay see it.
    std::string path;
    Type type = Type::File;
    // For a removed or created folder: every item below it, at any depth.
    uint64_t itemsInside = 0;

    bool operator==(const OverlayChange&) const = default;
};

class OverlayChanges {
public:
    OverlayChanges() = delete;

    // The changes in the writable layer open at `changes` over the original
    // file system open at `original`, mounted at `mountPoint`, in the order
    // met (sort them to compare). Items that cannot be read are passed over;
    // `error` (when given) tells the first such failure, and is cleared when
    // everything was read.
    static std::vector<OverlayChange> read(int changes, int original, const std::string& mountPoint,
                                           std::error_code* error = nullptr);

    // The number of items below the folder open at `folder`, at any depth,
    // links not followed.
    static uint64_t countItemsBelow(int folder, std::error_code* error = nullptr);
};

}  // namespace platform
