#include "fsutil/QELSecurity.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fsutil/QELUHash.h"
#include "fsutil/Sha256.h"

std::string QELSecurity::hashForFile(const std::string& path, int32_t* status)
{
    int32_t result = kHashOK;
    unsigned char digest[SHA256_DIGEST_SIZE] = {};

    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        result = kHashCannotOpen;
    } else {
        struct stat info {};
        if (fstat(fd, &info) != 0) {
            result = kHashCannotStat;
        } else {
            // A zero length (an empty file) makes the mapping fail.
            const auto length = static_cast<uint32_t>(info.st_size);
            void* const mapped = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
            if (mapped == nullptr || mapped == MAP_FAILED) {
                result = kHashCannotMap;
            } else {
                sha256(static_cast<const unsigned char*>(mapped), length, digest);
                munmap(mapped, length);
            }
        }
        close(fd);
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
