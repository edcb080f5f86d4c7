// The one status of the file hash that a real file cannot bring about: the
// status of an open file that cannot be read. This executable replaces the C
// library's fstat with one that fails while a test asks it to, and passes
// every other call on to the kernel.
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "fsutil/QELSecurity.h"
#include "tests/support/TempDir.h"

namespace {

std::atomic<bool> gFstatFails{false};

}  // namespace

// Replaces the C library's fstat for the calls this executable makes; the
// kernel's stat structure is the C library's on this platform.
extern "C" int fstat(int fd, struct stat* info) noexcept  // NOLINT(readability-inconsistent-declaration-parameter-name)
{
    if (gFstatFails.load()) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fstat, fd, info));  // NOLINT(cppcoreguidelines-pro-type-vararg)
}

namespace {

using testsupport::TempDir;
using testsupport::writeFile;

const std::string kSixtyFourZeros(64, '0');

// Makes fstat fail while it lives.
class FailingFstat {
public:
    FailingFstat() { gFstatFails.store(true); }
    ~FailingFstat() { gFstatFails.store(false); }
    FailingFstat(const FailingFstat&) = delete;
    FailingFstat& operator=(const FailingFstat&) = delete;
};

TEST(HashStatus, FailingFstatGivesStatusThreeAndSixtyFourZeros)
{
    const TempDir dir;
    writeFile(dir.at("message"), "abc");
    int32_t status = -7;
    std::string digest;
    {
        const FailingFstat failing;
        digest = QELSecurity::hashForFile(dir.at("message"), &status);
    }
    EXPECT_EQ(status, QELSecurity::kHashCannotStat);
    EXPECT_EQ(status, 3);
    EXPECT_EQ(digest, kSixtyFourZeros);
    EXPECT_EQ(QELSecurity::hashMatchesFile(kSixtyFourZeros, dir.at("message")), QELSecurity::kHashMismatch);
}

TEST(HashStatus, FailingFstatMakesHashMatchesFileReturnThree)
{
    const TempDir dir;
    writeFile(dir.at("message"), "abc");
    const FailingFstat failing;
    EXPECT_EQ(QELSecurity::hashMatchesFile(kSixtyFourZeros, dir.at("message")), QELSecurity::kHashCannotStat);
}

TEST(HashStatus, WithFstatWorkingTheSameFileHashesWithStatusZero)
{
    const TempDir dir;
    writeFile(dir.at("message"), "abc");
    int32_t status = -7;
    EXPECT_EQ(QELSecurity::hashForFile(dir.at("message"), &status),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(status, 0);
}

}  // namespace
