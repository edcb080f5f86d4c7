// A copy-on-write view of every file system this process sees, so that a
// program can be run for real without changing a file.
//
// enter() moves the calling process into a private mount namespace whose
// root mirrors the old one mount for mount: every writable file system is an
// overlay whose writable layer is a fresh tmpfs (device nodes in it do not
// open: nodev), every other mount is read-only. Mount boundaries stay where
// they were, and a file or folder keeps its device and inode number while it
// is changed (xino), so a program that compares folders by device and inode
// or stops at mounts behaves as it would outside. A second mount of a disk
// already overlaid (a bind mount of a folder of it) would be a second, separate
// copy there: it is made read-only instead and listed, like the kernel's
// interfaces and anything the overlay refuses.
// Nothing outside the namespace ever sees a change; the writable layers are
// named by layers() for reading afterwards (OverlayChanges).
//
//   OverlayRoot::Failure failure;
//   std::optional<OverlayRoot> root = OverlayRoot::enter("/tmp", &failure);
//   if (!root) { report(failure.message()); }
//   root->placeStandIn(standIn, "/usr/sbin/pkgutil", &error);
//   ...run the program, then read root->layers()...
//
// Needs root (CAP_SYS_ADMIN), mount namespaces and the overlay file system.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <system_error>
#include <sys/types.h>
#include <vector>

#include "platform/PosixIO.h"

namespace platform {

class OverlayRoot {
public:
    // One overlaid file system.
    struct Layer {
        // Where it is mounted, as programs inside see it.
        std::string mountPoint;
        // The top folder of its writable layer: what was changed.
        posix::UniqueFd changes;
        // Its root as it was before: that mount alone, without what is
        // mounted inside it.
        posix::UniqueFd original;
    };

    // A writable mount that is read-only inside because it could not be
    // overlaid: what a program does there is not what it would do outside.
    struct ReadOnlyMount {
        std::string mountPoint;
        std::string fileSystemType;
        // Why: "a kernel interface" or the overlay's refusal.
        std::string reason;
    };

    enum class FailureKind {
        // No private mount namespace (no support, or not privileged).
        NoMountNamespace,
        // This kernel has no overlay file system.
        NoOverlay,
        // Anything else on the way; the process may already be inside a
        // namespace of its own, with the old root in place.
        SetUp,
    };
    struct Failure {
        FailureKind kind = FailureKind::SetUp;
        // What could not be done, naming the path.
        std::string step;
        std::error_code code;
        // "step: reason".
        std::string message() const;
    };

    // Moves this process into the copy-on-write view. `workFolder` (an
    // existing folder, "/tmp") is covered by a tmpfs holding the writable
    // layers; it is left behind with the old root, so nothing inside can
    // reach it. None, with `failure` filled in, when it cannot be done.
    static std::optional<OverlayRoot> enter(const std::string& workFolder, Failure* failure);

    // Binds the file at `source` read-only over the existing regular file at
    // `target` (a final link followed), so that what runs `target` runs
    // `source`. False, with the reason in `error`, when `target` is no
    // regular file or the bind fails.
    bool bindFileReadOnly(const std::string& source, const std::string& target, std::error_code* error = nullptr);

    // Puts the file at `source` in place of the existing regular file at
    // `target` (a final link followed), so that what runs or loads `target`
    // runs or loads `source`, and what removes `target` removes it as it
    // would remove the real file:
    // - where the view of `target` is writable (one of the overlays), the
    //   file of the view itself gets the contents of `source` in the
    //   writable layer, keeping its mode, owner and times; removing it then
    //   removes it, and what comes after finds it gone;
    // - where the view is read-only, `source` is bound read-only over it
    //   (bindFileReadOnly), and, like the real file there, it cannot be
    //   removed.
    // False, with the reason in `error`, when `target` is no regular file or
    // neither can be done. The real file is never written: a writable file
    // that is not on one of the overlays is refused.
    bool placeStandIn(const std::string& source, const std::string& target, std::error_code* error = nullptr);
    // The paths (links resolved) of the stand-ins placeStandIn() wrote into a
    // writable layer that are still there as it left them: their change
    // there is the preview's own, not the program's.
    std::vector<std::string> standInsLeftAsPlaced() const;

    const std::vector<Layer>& layers() const noexcept { return theLayers; }

    // Makes the processes this process starts from now on the first ones of
    // a new PID namespace: they see none of the processes outside, so no
    // /proc/<pid>/root, cwd or fd leads them out of the view. The first one
    // must then call mountProcessTable(). Once it has ended, no process can
    // be made in that namespace any more: rejoinProcesses() makes this
    // process start its children beside it again (a sanitizer's helper
    // thread at exit is one).
    bool separateProcesses(std::error_code* error = nullptr);
    bool rejoinProcesses(std::error_code* error = nullptr);
    // Mounts, read-only over /proc, the process table of the PID namespace
    // the caller is the first process of, in a copy of the view that the
    // caller and what it starts go on in (the process that made the view
    // keeps its own /proc).
    static bool mountProcessTable(std::error_code* error = nullptr);
    // Writable mounts left read-only, in mount order, leaving out those that
    // lie inside another one listed.
    const std::vector<ReadOnlyMount>& readOnlyMounts() const noexcept { return theReadOnlyMounts; }

private:
    OverlayRoot() = default;
    std::vector<Layer> theLayers;
    // This process's own PID namespace, while its children go to another.
    posix::UniqueFd theOwnProcesses;
    std::vector<ReadOnlyMount> theReadOnlyMounts;
    // The mounts of the overlays, by mount id: the only ones a stand-in is
    // ever written to.
    std::vector<uint64_t> theOverlayMountIds;
    // A stand-in written into a writable layer, and how it was left there.
    struct PlacedStandIn {
        std::string path;
        dev_t device;
        ino_t inode;
        struct timespec changed;
    };
    std::vector<PlacedStandIn> thePlacedStandIns;
};

}  // namespace platform
