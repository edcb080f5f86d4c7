#include "fsutil/QELSecurity.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "fsutil/QELUHash.h"
#include "fsutil/Sha256.h"
#include "platform/PosixIO.h"

namespace posix = platform::posix;

std::string QELSecurity::hashForFile(const std::string& path, int32_t* status)
{
    int32_t result = kHashOK;
    unsigned char digest[SHA256_DIGEST_SIZE] = {};

    const posix::UniqueFd fd = posix::openFile(path, O_RDONLY);
    if (!fd.valid()) {
        result = kHashCannotOpen;
    } else {
        struct stat info {};
        if (posix::statDescriptor(fd.get(), info)) {
            result = kHashCannotStat;
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
