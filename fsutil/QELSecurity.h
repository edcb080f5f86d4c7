// The file hash check: a file's SHA-256 digest, and whether it equals an
// expected one. Class operations only: there are no instances and no state.
#pragma once

#include <cstdint>
#include <string>

class QELSecurity {
public:
    QELSecurity() = delete;

    // File hash check --------------------------------------------------------

    // Statuses of hashForFile, also returned by hashMatchesFile.
    static constexpr int32_t kHashOK = 0;
    static constexpr int32_t kHashMismatch = 1;  // hashMatchesFile only
    static constexpr int32_t kHashCannotOpen = 2;
    static constexpr int32_t kHashCannotStat = 3;
    static constexpr int32_t kHashCannotMap = 4;  // also for an empty file

    // The SHA-256 digest of the file as 64 lower-case hex digits, computed
    // over one read-only private mapping of the file (open, fstat, mmap,
    // munmap, close; the descriptor is close-on-exec). The length is the file
    // size taken as an unsigned 32-bit value. status (when given) is set to
    // kHashOK, or to 2, 3 or 4 on failure; the text is then 64 zeros. Never
    // raises for I/O failures.
    static std::string hashForFile(const std::string& path, int32_t* status);

    // kHashOK when the file's digest equals expected exactly (case matters:
    // upper-case digits never match), kHashMismatch when it differs, or the
    // failure status of hashForFile unchanged.
    static int32_t hashMatchesFile(const std::string& expected, const std::string& path);
};
