// An unprivileged user who owns a folder in the middle of a path and, from
// outside the sandbox, swaps it with a link beside it in a tight loop (one
// renameat2 with RENAME_EXCHANGE), putting back an entry of the path's last
// name in the real folder whenever it went. Whoever judges the item by one
// resolution of its path and acts on it by another can be made to act on
// what the link leads to.
//
// @code
//   // /Library/att (the user's) holds the folder A and the link B.
//   FolderSwapper swapper(sandbox.hostPath("/Library/att"), "x");
//   ... run the product against /Library/att/A/x many times ...
//   EXPECT_GT(swapper.stop(), 0U);  // the swaps really happened
// @endcode
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace testsupport {

class FolderSwapper {
public:
    // `owned` is the host path of the user's folder, holding the folder "A"
    // and the link "B"; `name` is the entry's name in "A". The loop runs in
    // a child process as the unprivileged user (RunUnprivileged.h).
    FolderSwapper(const std::string& owned, std::string name);
    ~FolderSwapper();
    FolderSwapper(const FolderSwapper&) = delete;
    FolderSwapper& operator=(const FolderSwapper&) = delete;

    // Stops the loop; the number of swaps made, none when it never ran.
    std::uint64_t stop();

private:
    struct Shared {
        std::atomic<bool> stop{false};
        std::atomic<std::uint64_t> swaps{0};
    };

    int swapUntilStopped(int folder, int real) const;

    std::string theName;
    Shared* theShared = nullptr;
    pid_t thePid = -1;
};

}  // namespace testsupport
