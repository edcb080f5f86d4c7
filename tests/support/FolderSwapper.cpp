#include "tests/support/FolderSwapper.h"

#include <fcntl.h>
#include <grp.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>
#include <utility>

#include "tests/support/Descriptor.h"
#include "tests/support/RunUnprivileged.h"

namespace testsupport {

FolderSwapper::FolderSwapper(const std::string& owned, std::string name) : theName(std::move(name))
{
    void* shared = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        return;
    }
    theShared = new (shared) Shared();
    // Opened while still root: the user needs no way through the fixture's
    // folders above its own.
    const Descriptor folder = openFolder(owned);
    const Descriptor real = openFolder(owned + "/A");
    if (!folder.isOpen() || !real.isOpen()) {
        return;
    }
    thePid = ::fork();
    if (thePid == 0) {
        ::_exit(swapUntilStopped(folder.get(), real.get()));
    }
}

FolderSwapper::~FolderSwapper()
{
    stop();
    if (theShared != nullptr) {
        theShared->~Shared();
        ::munmap(theShared, sizeof(Shared));
    }
}

std::uint64_t FolderSwapper::stop()
{
    if (thePid > 0) {
        theShared->stop = true;
        int status = 0;
        ::waitpid(thePid, &status, 0);
        thePid = -1;
    }
    return theShared != nullptr ? theShared->swaps.load() : 0;
}

int FolderSwapper::swapUntilStopped(int folder, int real) const
{
    if (::setgroups(0, nullptr) != 0 || ::setgid(kUnprivilegedGroup) != 0 || ::setuid(kUnprivilegedUser) != 0) {
        return 125;
    }
    while (!theShared->stop) {
        // Fails harmlessly while the entry is still there.
        ::symlinkat("nowhere", real, theName.c_str());
        if (::renameat2(folder, "A", folder, "B", RENAME_EXCHANGE) != 0) {
            return 1;
        }
        ++theShared->swaps;
    }
    return 0;
}

}  // namespace testsupport
