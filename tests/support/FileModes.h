// Permissions and file-system flags as the tests set and check them.
#pragma once

#include <string>
#include <sys/stat.h>

namespace testsupport {

// The permission bits with the set-id and sticky bits of the item itself (a
// final link is not followed); 0 when nothing is there.
mode_t modeOf(const std::string& path);

// Sets or clears the file system's immutable flag; false when the file
// system has no such flag or the caller may not change it.
bool setImmutableFlag(const std::string& path, bool on);

// Sets the umask for one scope and puts the old one back.
class ScopedUmask {
public:
    explicit ScopedUmask(mode_t mask) : theOld(::umask(mask)) {}
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;
    ~ScopedUmask() { ::umask(theOld); }

private:
    mode_t theOld;
};

}  // namespace testsupport
