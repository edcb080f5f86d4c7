#include "fsutil/QELSecurity.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <optional>
#include <system_error>

#include "base/QELBase.h"
#include "fsutil/QELUHash.h"
#include "fsutil/QELUPath.h"
#include "platform/Exception.h"
#include "fsutil/Sha256.h"
#include "platform/ItemHandle.h"
#include "platform/PosixIO.h"

namespace posix = platform::posix;

std::string QELSecurity::hashForFile(const std::string& path, int32_t* status)
{
    int32_t result = kHashOK;
    unsigned char digest[SHA256_DIGEST_SIZE] = {};

    // Opened without blocking, so a FIFO cannot hang the caller, and mapped
    // only when it is a regular file: a FIFO, socket, device or folder
    // counts as a file that cannot be mapped, as a folder always has.
    const posix::UniqueFd fd = posix::openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (!fd.valid()) {
        result = kHashCannotOpen;
    } else {
        struct stat info {};
        if (posix::statDescriptor(fd.get(), info)) {
            result = kHashCannotStat;
        } else if (!S_ISREG(info.st_mode)) {
            result = kHashCannotMap;
        } else {
            // A zero length (an empty file) makes the mapping fail.
            const auto length = static_cast<uint32_t>(info.st_size);
            const posix::UniqueMapping mapping = posix::UniqueMapping::mapReadOnly(fd.get(), length);
            if (!mapping.valid()) {
                result = kHashCannotMap;
            } else {
                sha256(mapping.data(), length, digest);
            }
        }
    }

    if (status != nullptr) {
        *status = result;
    }
    return QELUHexFrombytes(digest, static_cast<int32_t>(sizeof digest));
}

int32_t QELSecurity::hashMatchesFile(const std::string& expected, const std::string& path)
{
    int32_t status = kHashOK;
    const std::string actual = hashForFile(path, &status);
    if (status != kHashOK) {
        return status;
    }
    return expected == actual ? kHashOK : kHashMismatch;
}

bool QELSecurity::fileIsSymbolicLink(const std::string& path)
{
    const std::optional<platform::ItemHandle> item = platform::ItemHandle::open(path);
    return !item || isSymbolicLink(*item);
}

platform::FileAttributeDictionary QELSecurity::desiredFileAttributes()
{
    return {{platform::kFilePosixPermissions, platform::FileAttributeValue(uint64_t{kDesiredMode})}};
}

platform::FileAttributeDictionary QELSecurity::desiredDirectoryAttributes()
{
    return desiredFileAttributes();
}

bool QELSecurity::makePathOK(const std::string& path, const std::string& user)
{
    if (fileIsSymbolicLink(path)) {
        return false;
    }
    return !othersHaveWriteAccessToThisFile(path, user);
}

bool QELSecurity::othersHaveWriteAccessToThisFile(const std::string& path, const std::string& user)
{
    bool answer = true;
    try {
        // Opened once: the checks and the repair below are of this one item,
        // even if a folder on its path is swapped for a link meanwhile.
        const std::optional<platform::ItemHandle> item = platform::ItemHandle::open(path);
        if (!item || isSymbolicLink(*item) || !ownerOfItem(*item, user)) {
            return true;
        }
        int32_t status = 0;
        const unsigned long mode = QELUPosixPermissionsOfItem(*item, &status);
        if (status != 0) {
            return true;
        }
        if (const std::optional<std::string> reason = item->reasonToLeaveModeAlone()) {
            // A repair here would clear bits the system relies on (/tmp's
            // sticky world-writable mode, a set-uid program's bit): the item
            // stays as it is and counts as unsafe. One that needs no repair
            // is judged by its mode as it is, and nothing is written.
            if ((mode & kRepairMask) != mode) {
                QELBase::logErrorString("the permissions of " + path + " are left as they are: " + *reason);
                return true;
            }
        } else if (!QELUSetPosixPermissionsOfItem(*item, mode & kRepairMask, &status) || status != 0) {
            // Written even when the write bits are already clear: the set-id
            // bits go too. The mode read back afterwards decides.
            return true;
        }
        const unsigned long repaired = QELUPosixPermissionsOfItem(*item, &status);
        if (status == 0 && (repaired & kWriteBits) == 0) {
            answer = false;
        }
    } catch (const platform::Exception&) {
        // An exception of the error model leaves the path unsafe unless the
        // final read already proved it safe.
    }
    return answer;
}

bool QELSecurity::isSymbolicLink(const platform::ItemHandle& item)
{
    const auto type = QELUAttributesOfItemForKey(item, platform::kFileType);
    const std::string* name = type ? std::get_if<std::string>(&*type) : nullptr;
    return name == nullptr || *name == platform::kFileTypeSymbolicLink;
}

bool QELSecurity::ownerOfItem(const platform::ItemHandle& item, const std::string& user)
{
    const auto owner = QELUAttributesOfItemForKey(item, platform::kFileOwnerAccountName);
    if (!owner) {
        return false;
    }
    const std::string* name = std::get_if<std::string>(&*owner);
    return name != nullptr && *name == user;
}
