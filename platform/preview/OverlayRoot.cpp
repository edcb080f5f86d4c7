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
// never above that folder (openat2 RESOLVE_IN_ROOT, RESOLVE_NO_SYMLINKS).
posix::UniqueFd openBeneath(int rootFd, const std::string& relative, int flags)
{
    struct open_how how {};
    how.flags = static_cast<uint64_t>(flags) | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_SYMLINKS;
    const long fd =
        posix::retryOnEintr([&] { return ::syscall(SYS_openat2, rootFd, relative.c_str(), &how, sizeof how); });
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

class Builder {
public:
    explicit Builder(OverlayRoot::Failure* failure) : theFailure(failure) {}

    bool fail(OverlayRoot::FailureKind kind, std::string step, std::error_code code = posix::lastError())
    {
        if (theFailure != nullptr) {
            *theFailure = {kind, std::move(step), code};
        }
        return false;
    }
    bool fail(std::string step, std::error_code code = posix::lastError())
    {
        return fail(OverlayRoot::FailureKind::SetUp, std::move(step), code);
    }

private:
    OverlayRoot::Failure* theFailure;
};

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

bool makeReadOnly(int mountFd)
{
    struct mount_attr attributes {};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    return ::mount_setattr(mountFd, "", AT_EMPTY_PATH, &attributes, sizeof attributes) == 0;
}

bool attach(int mountFd, int targetFd)
{
    return ::move_mount(mountFd, "", targetFd, "", MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) == 0;
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

}  // namespace

std::string OverlayRoot::Failure::message() const
{
    return code ? step + ": " + code.message() : step;
}

std::optional<OverlayRoot> OverlayRoot::enter(const std::string& workFolder, Failure* failure)
{
    Builder builder(failure);
    if (::unshare(CLONE_NEWNS) != 0) {
        builder.fail(FailureKind::NoMountNamespace, "cannot make a private mount namespace");
        return std::nullopt;
    }
    // Nothing done from here on reaches the namespace this process came from.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        builder.fail("cannot make the mounts of the namespace private");
        return std::nullopt;
    }
    std::error_code error;
    std::vector<MountEntry> mounts = MountTable::ofThisProcess(&error);
    if (mounts.empty()) {
        builder.fail("cannot read the mount table /proc/self/mountinfo", error);
        return std::nullopt;
    }
    // Parents before what is mounted on them; the table's own order among
    // mounts of one depth (a later one on the same folder covers an earlier).
    std::stable_sort(mounts.begin(), mounts.end(), [](const MountEntry& a, const MountEntry& b) {
        return depthOf(a.mountPoint) < depthOf(b.mountPoint);
    });

    // A copy of each mount that can be seen, taken before the working folder
    // is covered. A mount covered by another, or reachable only through a
    // link, cannot be seen and is left out.
    const posix::UniqueFd liveRoot = posix::openFile("/", O_PATH | O_DIRECTORY, 0, &error);
    if (!liveRoot.valid()) {
        builder.fail("cannot open /", error);
        return std::nullopt;
    }
    std::vector<PlannedMount> planned;
    for (MountEntry& mount : mounts) {
        const posix::UniqueFd at = openBeneath(liveRoot.get(), relativeToRoot(mount.mountPoint), O_PATH);
        if (!at.valid() || MountPoint::mountIdOf(at.get()) != mount.mountId) {
            continue;
        }
        posix::UniqueFd copy(::open_tree(at.get(), "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH));
        if (!copy.valid()) {
            builder.fail("cannot copy the mount at " + mount.mountPoint);
            return std::nullopt;
        }
        struct stat status {};
        if (const std::error_code statFailure = posix::statDescriptor(at.get(), status)) {
            builder.fail("cannot examine " + mount.mountPoint, statFailure);
            return std::nullopt;
        }
        planned.push_back({std::move(mount), std::move(copy), S_ISDIR(status.st_mode),
                           S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode)});
    }

    struct stat workStatus {};
    if (::lstat(workFolder.c_str(), &workStatus) != 0) {
        builder.fail("no folder " + workFolder + " for the working space");
        return std::nullopt;
    }
    if (!S_ISDIR(workStatus.st_mode)) {
        builder.fail("no folder " + workFolder + " for the working space",
                     std::make_error_code(std::errc::not_a_directory));
        return std::nullopt;
    }
    if (::mount("tmpfs", workFolder.c_str(), "tmpfs", MS_NOSUID, "mode=0700") != 0) {
        builder.fail("cannot mount a tmpfs on " + workFolder);
        return std::nullopt;
    }
    const std::string newRootPath = workFolder + "/root";
    if (::mkdir(newRootPath.c_str(), 0755) != 0) {
        builder.fail("cannot make " + newRootPath);
        return std::nullopt;
    }

    OverlayRoot root;
    posix::UniqueFd newRoot;
    std::vector<const MountEntry*> overlaidMounts;
    for (std::size_t index = 0; index < planned.size(); ++index) {
        PlannedMount& mount = planned[index];
        const std::string& mountPoint = mount.entry.mountPoint;
        const bool isRoot = mountPoint == "/";
        posix::UniqueFd target = isRoot ? posix::openFile(newRootPath, O_PATH | O_DIRECTORY, 0, &error)
                                        : openBeneath(newRoot.get(), relativeToRoot(mountPoint), O_PATH);
        if (!target.valid()) {
            builder.fail("cannot reach " + mountPoint + " in the new root");
            return std::nullopt;
        }

        // Why a writable mount is left read-only; empty when it is not.
        std::string readOnlyReason;
        bool overlaid = false;
        const bool writable = !mount.entry.isReadOnly();
        const bool writableFolder = mount.isDirectory && writable;
        const auto sameDisk = std::find_if(overlaidMounts.begin(), overlaidMounts.end(), [&](const MountEntry* other) {
            return other->device == mount.entry.device && rootsOverlap(other->root, mount.entry.root);
        });
        if (writable && !mount.isDirectory && !mount.isDevice) {
            readOnlyReason = "a file mount";
        } else if (writableFolder && isKernelInterface(mount.entry)) {
            readOnlyReason = "a kernel interface";
        } else if (writableFolder && sameDisk != overlaidMounts.end()) {
            readOnlyReason = "another view of a disk overlaid at " + (*sameDisk)->mountPoint;
        } else if (writableFolder) {
            const std::string folder = workFolder + "/" + std::to_string(index);
            for (const std::string& part : {folder, folder + "/lower", folder + "/upper", folder + "/work"}) {
                if (::mkdir(part.c_str(), 0700) != 0) {
                    builder.fail("cannot make " + part);
                    return std::nullopt;
                }
            }
            // The copy is attached below the working folder, read-only: an
            // overlay takes its layers from mounts of its own namespace, and
            // never writes to its lower one.
            const posix::UniqueFd lowerFolder = posix::openFile(folder + "/lower", O_PATH | O_DIRECTORY, 0, &error);
            if (!lowerFolder.valid() || !makeReadOnly(mount.copy.get()) ||
                !attach(mount.copy.get(), lowerFolder.get())) {
                builder.fail("cannot attach a copy of " + mountPoint);
                return std::nullopt;
            }
            std::error_code overlayError;
            const posix::UniqueFd overlayMount = makeOverlay(folder, mountAttributesOf(mount.entry), overlayError);
            // A mount keeps its id when it is attached.
            const std::optional<uint64_t> overlayMountId =
                overlayMount.valid() ? MountPoint::mountIdOf(overlayMount.get()) : std::nullopt;
            if (overlayMount.valid() && !overlayMountId) {
                builder.fail("cannot tell the mount id of the overlay of " + mountPoint);
                return std::nullopt;
            }
            if (overlayMount.valid()) {
                root.theOverlayMountIds.push_back(*overlayMountId);
                if (!attach(overlayMount.get(), target.get())) {
                    builder.fail("cannot mount the overlay of " + mountPoint);
                    return std::nullopt;
                }
                Layer layer{mountPoint, posix::openFile(folder + "/upper", O_RDONLY | O_DIRECTORY, 0, &error),
                            posix::openFile(folder + "/lower", O_RDONLY | O_DIRECTORY, 0, &error)};
                if (!layer.changes.valid() || !layer.original.valid()) {
                    builder.fail("cannot open the layers of " + mountPoint, error);
                    return std::nullopt;
                }
                root.theLayers.push_back(std::move(layer));
                overlaidMounts.push_back(&mount.entry);
                overlaid = true;
            } else if (overlayError == std::errc::no_such_device || overlayError == std::errc::function_not_supported) {
                builder.fail(FailureKind::NoOverlay, "this kernel has no overlay file system", overlayError);
                return std::nullopt;
            } else {
                readOnlyReason = "the overlay was refused: " + overlayError.message();
                // The copy now hangs below the working folder: copied again.
                mount.copy.reset(
                    ::open_tree(AT_FDCWD, (folder + "/lower").c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC));
                if (!mount.copy.valid()) {
                    builder.fail("cannot copy the mount at " + mountPoint);
                    return std::nullopt;
                }
            }
        }
        if (!overlaid && (!makeReadOnly(mount.copy.get()) || !attach(mount.copy.get(), target.get()))) {
            builder.fail("cannot mount " + mountPoint + " read-only");
            return std::nullopt;
        }
        if (!readOnlyReason.empty() &&
            std::none_of(root.theReadOnlyMounts.begin(), root.theReadOnlyMounts.end(),
                         [&](const ReadOnlyMount& listed) { return liesInside(mountPoint, listed.mountPoint); })) {
            root.theReadOnlyMounts.push_back({mountPoint, mount.entry.fileSystemType, readOnlyReason});
        }
        if (isRoot) {
            // Opened again, so that paths below it go through what is now
            // mounted on it.
            newRoot = posix::openFile(newRootPath, O_PATH | O_DIRECTORY, 0, &error);
            if (!newRoot.valid()) {
                builder.fail("cannot open the new root", error);
                return std::nullopt;
            }
        }
    }
    if (!newRoot.valid()) {
        builder.fail("no root mount to mirror", std::make_error_code(std::errc::no_such_file_or_directory));
        return std::nullopt;
    }

    // The new root becomes "/", and the old one, with the working folder,
    // goes; the layers stay reachable through the descriptors kept.
    if (::fchdir(newRoot.get()) != 0) {
        builder.fail("cannot enter the new root");
        return std::nullopt;
    }
    if (::syscall(SYS_pivot_root, ".", ".") != 0) {
        builder.fail("cannot make the new root the root (pivot_root)");
        return std::nullopt;
    }
    if (::umount2(".", MNT_DETACH) != 0 || ::chdir("/") != 0) {
        builder.fail("cannot detach the old root");
        return std::nullopt;
    }
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
        if (!copy.valid() || !makeReadOnly(copy.get()) || !attach(copy.get(), targetFd.get())) {
            failure = posix::lastError();
        }
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
    std::error_code failure;
    std::string contents;
    const posix::UniqueFd sourceFile = posix::openFile(source, O_RDONLY, 0, &failure);
    if (!sourceFile.valid()) {
        return done(failure);
    }
    if (const std::error_code readFailure = posix::readAll(sourceFile.get(), contents)) {
        return done(readFailure);
    }
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
    if (const std::error_code statFailure = posix::statDescriptor(file.get(), before)) {
        return done(statFailure);
    }
    if (!S_ISREG(before.st_mode)) {
        return done(std::make_error_code(std::errc::invalid_argument));
    }
    const std::optional<uint64_t> mountId = MountPoint::mountIdOf(file.get());
    if (!mountId ||
        std::find(theOverlayMountIds.begin(), theOverlayMountIds.end(), *mountId) == theOverlayMountIds.end()) {
        return done(std::make_error_code(std::errc::cross_device_link));
    }
    if (::ftruncate(file.get(), 0) != 0) {
        return done(posix::lastError());
    }
    if (const std::error_code writeFailure = posix::writeAll(file.get(), contents)) {
        return done(writeFailure);
    }
    // Its times as they were: only its contents differ from the real file.
    const std::array<struct timespec, 2> times = {before.st_atim, before.st_mtim};
    if (::futimens(file.get(), times.data()) != 0) {
        return done(posix::lastError());
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
