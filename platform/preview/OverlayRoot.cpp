#include "platform/preview/OverlayRoot.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <cstdlib>
#include <linux/openat2.h>
#include <memory>
#include <sched.h>
#include <string_view>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/MountPoint.h"
#include "platform/preview/MountTable.h"

namespace platform {

namespace {

// File systems that are the kernel's interfaces rather than files: they are
// never overlaid (an overlay refuses most of them, and their entries are not
// files to remove), only made read-only.
// devtmpfs is among them: its device nodes must keep opening (an overlay is
// nodev), and they are devices, not files.
constexpr std::array<std::string_view, 22> kKernelInterfaceTypes = {
    "proc",       "sysfs",  "cgroup",    "cgroup2",    "devpts",  "mqueue",   "debugfs",     "tracefs",
    "securityfs", "pstore", "bpf",       "configfs",   "fusectl", "efivarfs", "binfmt_misc", "hugetlbfs",
    "autofs",     "nsfs",   "selinuxfs", "rpc_pipefs", "nfsd",    "devtmpfs",
};

bool isKernelInterface(const MountEntry& mount)
{
    return std::find(kKernelInterfaceTypes.begin(), kKernelInterfaceTypes.end(), mount.fileSystemType) !=
           kKernelInterfaceTypes.end();
}

std::size_t depthOf(const std::string& mountPoint)
{
    return mountPoint == "/" ? 0 : static_cast<std::size_t>(std::count(mountPoint.begin(), mountPoint.end(), '/'));
}

// The mount point relative to a root folder descriptor ("." for "/").
std::string relativeToRoot(const std::string& mountPoint)
{
    const std::size_t start = mountPoint.find_first_not_of('/');
    return start == std::string::npos ? std::string(".") : mountPoint.substr(start);
}

// Whether `path` lies inside `folder` (or is it).
bool liesInside(const std::string& path, const std::string& folder)
{
    if (folder == "/") {
        return true;
    }
    return path == folder ||
           (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == '/');
}

// `relative` below the folder open at `rootFd`, never through a link and
// never above that folder (openat2 RESOLVE_IN_ROOT, RESOLVE_NO_SYMLINKS); an
// invalid descriptor and the reason in `error` when it cannot be opened.
posix::UniqueFd openBeneath(int rootFd, const std::string& relative, int flags, std::error_code& error)
{
    struct open_how how {};
    how.flags = static_cast<uint64_t>(flags) | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_SYMLINKS;
    const long fd =
        posix::retryOnEintr([&] { return ::syscall(SYS_openat2, rootFd, relative.c_str(), &how, sizeof how); });
    error = fd < 0 ? posix::lastError() : std::error_code();
    return posix::UniqueFd(static_cast<int>(fd));
}

// The attributes an overlay takes over from the mount it stands for; nodev
// always, so that no device node reached through it opens the real device.
uint64_t mountAttributesOf(const MountEntry& mount)
{
    uint64_t attributes = MOUNT_ATTR_NODEV;
    const std::array<std::pair<std::string_view, uint64_t>, 6> options = {{
        {"nosuid", MOUNT_ATTR_NOSUID},
        {"nodev", MOUNT_ATTR_NODEV},
        {"noexec", MOUNT_ATTR_NOEXEC},
        {"noatime", MOUNT_ATTR_NOATIME},
        {"nodiratime", MOUNT_ATTR_NODIRATIME},
        {"nosymfollow", MOUNT_ATTR_NOSYMFOLLOW},
    }};
    for (const auto& [option, attribute] : options) {
        if (mount.hasMountOption(option)) {
            attributes |= attribute;
        }
    }
    if (mount.hasMountOption("strictatime")) {
        attributes |= MOUNT_ATTR_STRICTATIME;
    }
    return attributes;
}

// Fills in `failure` and returns false: how a step of enter() that cannot go
// on ends. `code` is taken by the caller right after the call that failed,
// before the message is built: building it may change errno.
bool fail(OverlayRoot::Failure& failure, OverlayRoot::FailureKind kind, std::string step, std::error_code code)
{
    failure = {kind, std::move(step), code};
    return false;
}

bool fail(OverlayRoot::Failure& failure, std::string step, std::error_code code)
{
    return fail(failure, OverlayRoot::FailureKind::SetUp, std::move(step), code);
}

// A mount to lay into the new root: a detached copy of it alone.
struct PlannedMount {
    MountEntry entry;
    posix::UniqueFd copy;
    bool isDirectory = false;
    bool isDevice = false;
};

// Whether a mount's root lies inside another's (or is it): then both show
// some of the same files.
bool rootsOverlap(const std::string& a, const std::string& b)
{
    return liesInside(a, b) || liesInside(b, a);
}

std::error_code makeReadOnly(int mountFd)
{
    struct mount_attr attributes {};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    if (::mount_setattr(mountFd, "", AT_EMPTY_PATH, &attributes, sizeof attributes) != 0) {
        return posix::lastError();
    }
    return {};
}

std::error_code attach(int mountFd, int targetFd)
{
    if (::move_mount(mountFd, "", targetFd, "", MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) != 0) {
        return posix::lastError();
    }
    return {};
}

std::error_code attachReadOnly(int mountFd, int targetFd)
{
    const std::error_code error = makeReadOnly(mountFd);
    return error ? error : attach(mountFd, targetFd);
}

// A new overlay mount (detached) over `folder`/lower with `folder`/upper as its
// writable layer; an invalid descriptor and the kernel's reason in `error`
// when it refuses (ENODEV: no overlay file system at all).
posix::UniqueFd makeOverlay(const std::string& folder, uint64_t attributes, std::error_code& error)
{
    const posix::UniqueFd context(::fsopen("overlay", FSOPEN_CLOEXEC));
    if (!context.valid()) {
        error = posix::lastError();
        return {};
    }
    const std::string lower = folder + "/lower";
    const std::string upper = folder + "/upper";
    const std::string work = folder + "/work";
    // Inode numbers stay those of the original files when they are copied up
    // (xino); renamed folders and hard links are not tracked across layers,
    // so the writable layer holds plain files, folders and whiteouts only.
    const std::array<std::pair<const char*, const char*>, 7> settings = {{
        {"lowerdir", lower.c_str()},
        {"upperdir", upper.c_str()},
        {"workdir", work.c_str()},
        {"xino", "on"},
        {"redirect_dir", "off"},
        {"index", "off"},
        {"metacopy", "off"},
    }};
    for (const auto& [key, value] : settings) {
        if (::fsconfig(context.get(), FSCONFIG_SET_STRING, key, value, 0) != 0) {
            error = posix::lastError();
            return {};
        }
    }
    if (::fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0) {
        error = posix::lastError();
        return {};
    }
    posix::UniqueFd mount(::fsmount(context.get(), FSMOUNT_CLOEXEC, static_cast<unsigned int>(attributes)));
    error = mount.valid() ? std::error_code() : posix::lastError();
    return mount;
}

// Nothing done from here on reaches the namespace this process came from.
bool enterPrivateMountNamespace(OverlayRoot::Failure& failure)
{
    if (::unshare(CLONE_NEWNS) != 0) {
        const std::error_code error = posix::lastError();
        return fail(failure, OverlayRoot::FailureKind::NoMountNamespace, "cannot make a private mount namespace",
                    error);
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        const std::error_code error = posix::lastError();
        return fail(failure, "cannot make the mounts of the namespace private", error);
    }
    return true;
}

// Parents before what is mounted on them; the table's own order among
// mounts of one depth (a later one on the same folder covers an earlier).
bool readMountsParentsFirst(std::vector<MountEntry>& mounts, OverlayRoot::Failure& failure)
{
    std::error_code error;
    mounts = MountTable::ofThisProcess(&error);
    if (mounts.empty()) {
        return fail(failure, "cannot read the mount table /proc/self/mountinfo", error);
    }
    std::stable_sort(mounts.begin(), mounts.end(), [](const MountEntry& a, const MountEntry& b) {
        return depthOf(a.mountPoint) < depthOf(b.mountPoint);
    });
    return true;
}

// A copy of each mount that can be seen, taken before the working folder
// is covered. A mount covered by another, or reachable only through a
// link, cannot be seen and is left out.
bool planMounts(std::vector<PlannedMount>& planned, OverlayRoot::Failure& failure)
{
    std::vector<MountEntry> mounts;
    if (!readMountsParentsFirst(mounts, failure)) {
        return false;
    }
    std::error_code error;
    const posix::UniqueFd liveRoot = posix::openFile("/", O_PATH | O_DIRECTORY, 0, &error);
    if (!liveRoot.valid()) {
        return fail(failure, "cannot open /", error);
    }
    for (MountEntry& mount : mounts) {
        const posix::UniqueFd at = openBeneath(liveRoot.get(), relativeToRoot(mount.mountPoint), O_PATH, error);
        if (!at.valid() || MountPoint::mountIdOf(at.get()) != mount.mountId) {
            continue;
        }
        posix::UniqueFd copy(::open_tree(at.get(), "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH));
        if (!copy.valid()) {
            error = posix::lastError();
            return fail(failure, "cannot copy the mount at " + mount.mountPoint, error);
        }
        struct stat status {};
        if (const std::error_code statFailure = posix::statDescriptor(at.get(), status)) {
            return fail(failure, "cannot examine " + mount.mountPoint, statFailure);
        }
        planned.push_back({std::move(mount), std::move(copy), S_ISDIR(status.st_mode),
                           S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode)});
    }
    return true;
}

// A tmpfs over `workFolder` for the writable layers, with the folder
// `newRootPath` in it that the new root is laid on.
bool makeWorkArea(const std::string& workFolder, const std::string& newRootPath, OverlayRoot::Failure& failure)
{
    struct stat workStatus {};
    if (::lstat(workFolder.c_str(), &workStatus) != 0) {
        const std::error_code error = posix::lastError();
        return fail(failure, "no folder " + workFolder + " for the working space", error);
    }
    if (!S_ISDIR(workStatus.st_mode)) {
        return fail(failure, "no folder " + workFolder + " for the working space",
                    std::make_error_code(std::errc::not_a_directory));
    }
    if (::mount("tmpfs", workFolder.c_str(), "tmpfs", MS_NOSUID, "mode=0700") != 0) {
        const std::error_code error = posix::lastError();
        return fail(failure, "cannot mount a tmpfs on " + workFolder, error);
    }
    if (::mkdir(newRootPath.c_str(), 0755) != 0) {
        const std::error_code error = posix::lastError();
        return fail(failure, "cannot make " + newRootPath, error);
    }
    return true;
}

// What becomes of a mount in the new root.
struct Treatment {
    // Whether to try an overlay; read-only otherwise, or when it is refused.
    bool overlay = false;
    // Why a writable mount is left read-only; empty when it is not.
    std::string readOnlyReason;
};

// Only a writable folder is overlaid, and never a kernel interface. Nor is a
// second view of a disk already overlaid: its overlay would be a second,
// separate copy of the same files.
Treatment classify(const PlannedMount& mount, const std::vector<const MountEntry*>& overlaidMounts)
{
    const bool writable = !mount.entry.isReadOnly();
    if (writable && !mount.isDirectory && !mount.isDevice) {
        return {false, "a file mount"};
    }
    if (!writable || !mount.isDirectory) {
        return {};
    }
    if (isKernelInterface(mount.entry)) {
        return {false, "a kernel interface"};
    }
    const auto sameDisk = std::find_if(overlaidMounts.begin(), overlaidMounts.end(), [&](const MountEntry* other) {
        return other->device == mount.entry.device && rootsOverlap(other->root, mount.entry.root);
    });
    if (sameDisk != overlaidMounts.end()) {
        return {false, "another view of a disk overlaid at " + (*sameDisk)->mountPoint};
    }
    return {true, {}};
}

// The parts of the view that enter() hands to the OverlayRoot it returns,
// gathered while the mounts are laid into the new root.
struct LaidMounts {
    std::vector<OverlayRoot::Layer> layers;
    std::vector<OverlayRoot::ReadOnlyMount> readOnlyMounts;
    std::vector<uint64_t> overlayMountIds;
    // The entries of the mounts overlaid so far.
    std::vector<const MountEntry*> overlaid;
};

// The folders of an overlay's layers in `folder`, with the copy of the mount
// attached read-only as the lower one: an overlay takes its layers from
// mounts of its own namespace, and never writes to its lower one.
bool makeLayerFolders(const PlannedMount& mount, const std::string& folder, OverlayRoot::Failure& failure)
{
    for (const std::string& part : {folder, folder + "/lower", folder + "/upper", folder + "/work"}) {
        if (::mkdir(part.c_str(), 0700) != 0) {
            const std::error_code error = posix::lastError();
            return fail(failure, "cannot make " + part, error);
        }
    }
    std::error_code error;
    const posix::UniqueFd lowerFolder = posix::openFile(folder + "/lower", O_PATH | O_DIRECTORY, 0, &error);
    if (lowerFolder.valid()) {
        error = attachReadOnly(mount.copy.get(), lowerFolder.get());
    }
    if (error) {
        return fail(failure, "cannot attach a copy of " + mount.entry.mountPoint, error);
    }
    return true;
}

// The overlay of `mount` was refused for `refusal`. Without an overlay file
// system at all, the view fails; else the mount is to be read-only, `reason`
// says why, and `mount.copy` is a copy again (the first one now hangs below
// the working folder).
bool takeRefusal(PlannedMount& mount, const std::string& folder, std::error_code refusal, std::string& reason,
                 OverlayRoot::Failure& failure)
{
    if (refusal == std::errc::no_such_device || refusal == std::errc::function_not_supported) {
        return fail(failure, OverlayRoot::FailureKind::NoOverlay, "this kernel has no overlay file system", refusal);
    }
    reason = "the overlay was refused: " + refusal.message();
    const int copy = ::open_tree(AT_FDCWD, (folder + "/lower").c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC);
    const std::error_code error = copy < 0 ? posix::lastError() : std::error_code();
    mount.copy.reset(copy);
    if (error) {
        return fail(failure, "cannot copy the mount at " + mount.entry.mountPoint, error);
    }
    return true;
}

// Overlays `mount` on `target` with its layers in `folder` (new, in the work
// area), and adds it to `laid`. When the overlay is refused for this mount
// alone, `readOnlyReason` says why and `mount.copy` is left to be mounted
// read-only instead.
bool overlayMount(PlannedMount& mount, const std::string& folder, int target, LaidMounts& laid,
                  std::string& readOnlyReason, OverlayRoot::Failure& failure)
{
    const std::string& mountPoint = mount.entry.mountPoint;
    if (!makeLayerFolders(mount, folder, failure)) {
        return false;
    }
    std::error_code refusal;
    const posix::UniqueFd overlay = makeOverlay(folder, mountAttributesOf(mount.entry), refusal);
    if (!overlay.valid()) {
        return takeRefusal(mount, folder, refusal, readOnlyReason, failure);
    }
    // A mount keeps its id when it is attached.
    const std::optional<uint64_t> overlayMountId = MountPoint::mountIdOf(overlay.get());
    if (!overlayMountId) {
        const std::error_code error = posix::lastError();
        return fail(failure, "cannot tell the mount id of the overlay of " + mountPoint, error);
    }
    laid.overlayMountIds.push_back(*overlayMountId);
    if (const std::error_code error = attach(overlay.get(), target)) {
        return fail(failure, "cannot mount the overlay of " + mountPoint, error);
    }
    std::error_code changesError;
    std::error_code originalError;
    OverlayRoot::Layer layer{mountPoint, posix::openFile(folder + "/upper", O_RDONLY | O_DIRECTORY, 0, &changesError),
                             posix::openFile(folder + "/lower", O_RDONLY | O_DIRECTORY, 0, &originalError)};
    if (!layer.changes.valid() || !layer.original.valid()) {
        return fail(failure, "cannot open the layers of " + mountPoint, changesError ? changesError : originalError);
    }
    laid.layers.push_back(std::move(layer));
    laid.overlaid.push_back(&mount.entry);
    return true;
}

// Lays the mount planned `index`th on its mount point below `newRoot` (on
// `newRootPath` itself for "/"): overlaid, or else read-only, and listed
// when a writable mount is left read-only.
bool layMount(std::size_t index, PlannedMount& mount, const std::string& workFolder, const std::string& newRootPath,
              const posix::UniqueFd& newRoot, LaidMounts& laid, OverlayRoot::Failure& failure)
{
    const std::string& mountPoint = mount.entry.mountPoint;
    std::error_code error;
    const posix::UniqueFd target = mountPoint == "/"
                                       ? posix::openFile(newRootPath, O_PATH | O_DIRECTORY, 0, &error)
                                       : openBeneath(newRoot.get(), relativeToRoot(mountPoint), O_PATH, error);
    if (!target.valid()) {
        return fail(failure, "cannot reach " + mountPoint + " in the new root", error);
    }
    Treatment treatment = classify(mount, laid.overlaid);
    if (treatment.overlay && !overlayMount(mount, workFolder + "/" + std::to_string(index), target.get(), laid,
                                           treatment.readOnlyReason, failure)) {
        return false;
    }
    const bool overlaid = treatment.overlay && treatment.readOnlyReason.empty();
    if (!overlaid) {
        if (const std::error_code readOnlyError = attachReadOnly(mount.copy.get(), target.get())) {
            return fail(failure, "cannot mount " + mountPoint + " read-only", readOnlyError);
        }
    }
    if (!treatment.readOnlyReason.empty() && std::none_of(laid.readOnlyMounts.begin(), laid.readOnlyMounts.end(),
                                                          [&](const OverlayRoot::ReadOnlyMount& listed) {
                                                              return liesInside(mountPoint, listed.mountPoint);
                                                          })) {
        laid.readOnlyMounts.push_back({mountPoint, mount.entry.fileSystemType, std::move(treatment.readOnlyReason)});
    }
    return true;
}

// Lays every planned mount, parents first, into the new root at
// `newRootPath`; `newRoot` is then that root, open.
bool layMounts(std::vector<PlannedMount>& planned, const std::string& workFolder, const std::string& newRootPath,
               posix::UniqueFd& newRoot, LaidMounts& laid, OverlayRoot::Failure& failure)
{
    for (std::size_t index = 0; index < planned.size(); ++index) {
        if (!layMount(index, planned[index], workFolder, newRootPath, newRoot, laid, failure)) {
            return false;
        }
        if (planned[index].entry.mountPoint == "/") {
            // Opened again, so that paths below it go through what is now
            // mounted on it.
            std::error_code error;
            newRoot = posix::openFile(newRootPath, O_PATH | O_DIRECTORY, 0, &error);
            if (!newRoot.valid()) {
                return fail(failure, "cannot open the new root", error);
            }
        }
    }
    if (!newRoot.valid()) {
        return fail(failure, "no root mount to mirror", std::make_error_code(std::errc::no_such_file_or_directory));
    }
    return true;
}

// The new root becomes "/", and the old one, with the working folder,
// goes; the layers stay reachable through the descriptors kept.
bool pivotInto(const posix::UniqueFd& newRoot, OverlayRoot::Failure& failure)
{
    if (::fchdir(newRoot.get()) != 0) {
        const std::error_code error = posix::lastError();
        return fail(failure, "cannot enter the new root", error);
    }
    if (::syscall(SYS_pivot_root, ".", ".") != 0) {
        const std::error_code error = posix::lastError();
        return fail(failure, "cannot make the new root the root (pivot_root)", error);
    }
    if (::umount2(".", MNT_DETACH) != 0 || ::chdir("/") != 0) {
        const std::error_code error = posix::lastError();
        return fail(failure, "cannot detach the old root", error);
    }
    return true;
}

// The whole contents of the file at `path`.
std::error_code readWhole(const std::string& path, std::string& contents)
{
    std::error_code error;
    const posix::UniqueFd file = posix::openFile(path, O_RDONLY, 0, &error);
    return file.valid() ? posix::readAll(file.get(), contents) : error;
}

// The status of the regular file open at `fd`, when it lies on one of the
// overlays, whose mounts are `overlayMountIds`: the real file is never
// written.
std::error_code statInOverlay(int fd, const std::vector<uint64_t>& overlayMountIds, struct stat& status)
{
    if (const std::error_code statFailure = posix::statDescriptor(fd, status)) {
        return statFailure;
    }
    if (!S_ISREG(status.st_mode)) {
        return std::make_error_code(std::errc::invalid_argument);
    }
    const std::optional<uint64_t> mountId = MountPoint::mountIdOf(fd);
    if (!mountId || std::find(overlayMountIds.begin(), overlayMountIds.end(), *mountId) == overlayMountIds.end()) {
        return std::make_error_code(std::errc::cross_device_link);
    }
    return {};
}

// Writes `contents` over all of the open file whose status was `before`, and
// gives it back its times: only its contents differ from the real file.
std::error_code replaceContents(int fd, const std::string& contents, const struct stat& before)
{
    if (::ftruncate(fd, 0) != 0) {
        return posix::lastError();
    }
    if (const std::error_code writeFailure = posix::writeAll(fd, contents)) {
        return writeFailure;
    }
    const std::array<struct timespec, 2> times = {before.st_atim, before.st_mtim};
    if (::futimens(fd, times.data()) != 0) {
        return posix::lastError();
    }
    return {};
}

}  // namespace

std::string OverlayRoot::Failure::message() const
{
    return code ? step + ": " + code.message() : step;
}

std::optional<OverlayRoot> OverlayRoot::enter(const std::string& workFolder, Failure* failure)
{
    Failure unreported;
    Failure& reported = failure != nullptr ? *failure : unreported;
    const std::string newRootPath = workFolder + "/root";
    std::vector<PlannedMount> planned;
    LaidMounts laid;
    posix::UniqueFd newRoot;
    // A step that fails leaves this process where it stopped.
    if (!enterPrivateMountNamespace(reported) || !planMounts(planned, reported) ||
        !makeWorkArea(workFolder, newRootPath, reported) ||
        !layMounts(planned, workFolder, newRootPath, newRoot, laid, reported) || !pivotInto(newRoot, reported)) {
        return std::nullopt;
    }
    OverlayRoot root;
    root.theLayers = std::move(laid.layers);
    root.theReadOnlyMounts = std::move(laid.readOnlyMounts);
    root.theOverlayMountIds = std::move(laid.overlayMountIds);
    return root;
}

bool OverlayRoot::separateProcesses(std::error_code* error)
{
    std::error_code failure;
    posix::UniqueFd own = posix::openFile("/proc/self/ns/pid", O_RDONLY, 0, &failure);
    if (own.valid() && ::unshare(CLONE_NEWPID) != 0) {
        failure = posix::lastError();
    }
    if (!failure) {
        theOwnProcesses = std::move(own);
    }
    if (error != nullptr) {
        *error = failure;
    }
    return !failure;
}

bool OverlayRoot::rejoinProcesses(std::error_code* error)
{
    const bool done = !theOwnProcesses.valid() || ::setns(theOwnProcesses.get(), CLONE_NEWPID) == 0;
    if (error != nullptr) {
        *error = done ? std::error_code() : posix::lastError();
    }
    return done;
}

bool OverlayRoot::mountProcessTable(std::error_code* error)
{
    // In a mount namespace of the caller's own (a copy of the view), so the
    // process that made the view keeps the /proc it knows itself by.
    const bool done = ::unshare(CLONE_NEWNS) == 0 &&
                      ::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC | MS_RDONLY, nullptr) == 0;
    if (error != nullptr) {
        *error = done ? std::error_code() : posix::lastError();
    }
    return done;
}

bool OverlayRoot::bindFileReadOnly(const std::string& source, const std::string& target, std::error_code* error)
{
    std::error_code failure;
    const posix::UniqueFd targetFd = posix::openFile(target, O_PATH, 0, &failure);
    struct stat status {};
    if (targetFd.valid()) {
        failure = posix::statDescriptor(targetFd.get(), status);
        if (!failure && !S_ISREG(status.st_mode)) {
            failure = std::make_error_code(std::errc::invalid_argument);
        }
    }
    if (!failure) {
        const posix::UniqueFd copy(::open_tree(AT_FDCWD, source.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC));
        failure = copy.valid() ? attachReadOnly(copy.get(), targetFd.get()) : posix::lastError();
    }
    if (!failure) {
        // What the target leads to now must be the source itself.
        struct stat now {};
        struct stat wanted {};
        if (::stat(target.c_str(), &now) != 0 || ::stat(source.c_str(), &wanted) != 0) {
            failure = posix::lastError();
        } else if (now.st_dev != wanted.st_dev || now.st_ino != wanted.st_ino) {
            failure = std::make_error_code(std::errc::device_or_resource_busy);
        }
    }
    if (error != nullptr) {
        *error = failure;
    }
    return !failure;
}

bool OverlayRoot::placeStandIn(const std::string& source, const std::string& target, std::error_code* error)
{
    const auto done = [error](std::error_code failure) {
        if (error != nullptr) {
            *error = failure;
        }
        return !failure;
    };
    std::string contents;
    if (const std::error_code readFailure = readWhole(source, contents)) {
        return done(readFailure);
    }
    std::error_code failure;
    // Not truncated on opening: nothing is written before the file is known
    // to lie in a writable layer. Never blocks on a pipe.
    const posix::UniqueFd file = posix::openFile(target, O_WRONLY | O_NONBLOCK | O_NOCTTY, 0, &failure);
    if (!file.valid()) {
        if (failure == std::errc::read_only_file_system) {
            return bindFileReadOnly(source, target, error);
        }
        return done(failure);
    }
    struct stat before {};
    if (const std::error_code notInLayer = statInOverlay(file.get(), theOverlayMountIds, before)) {
        return done(notInLayer);
    }
    if (const std::error_code writeFailure = replaceContents(file.get(), contents, before)) {
        return done(writeFailure);
    }
    struct stat after {};
    if (const std::error_code statFailure = posix::statDescriptor(file.get(), after)) {
        return done(statFailure);
    }
    const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(target.c_str(), nullptr), &std::free);
    if (!resolved) {
        return done(posix::lastError());
    }
    thePlacedStandIns.push_back({resolved.get(), after.st_dev, after.st_ino, after.st_ctim});
    return done({});
}

std::vector<std::string> OverlayRoot::standInsLeftAsPlaced() const
{
    std::vector<std::string> paths;
    for (const PlacedStandIn& placed : thePlacedStandIns) {
        struct stat now {};
        if (::lstat(placed.path.c_str(), &now) == 0 && now.st_dev == placed.device && now.st_ino == placed.inode &&
            now.st_ctim.tv_sec == placed.changed.tv_sec && now.st_ctim.tv_nsec == placed.changed.tv_nsec) {
            paths.push_back(placed.path);
        }
    }
    return paths;
}

}  // namespace platform
