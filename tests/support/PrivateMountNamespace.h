// Mounts a test makes (a tmpfs, a bind mount, /proc taken away) live in a
// child process inside a mount namespace of its own: nothing outside the
// child ever sees them, they go away with the child, and the test process
// keeps the machine's view of the mounts whatever the test does.
//
//     // A check with GoogleTest assertions; its failures fail the test.
//     testsupport::expectInPrivateMountNamespace([&dir] {
//         ASSERT_EQ(::mount("tmpfs", dir.at("mnt").c_str(), "tmpfs", 0, "size=1m"), 0);
//         EXPECT_EQ(MountPoint::isMountRoot(dir.at("mnt")), std::optional<bool>(true));
//     });
//
//     // A check that reports through its exit status (0 when it passes).
//     EXPECT_EQ(testsupport::runInPrivateMountNamespace([] { return check() ? 0 : 1; }), 0);
#pragma once

#include <functional>

namespace testsupport {

// Moves the calling process into a new mount namespace whose mounts no
// longer propagate to the machine's nor from it. False, with errno set,
// when it cannot (mounting needs root). Only for a child process, as the
// `enter` step of runInChild (RunUnprivileged.h), and for the main of the
// suites that run over a private home folder (PrivateHomeMain.cpp): a test
// process itself never calls it.
bool enterPrivateMountNamespace();

// The exit status of a child that enters a private mount namespace and then
// runs `body`, whose result is the status: 0 for a passing check, 125 when
// the namespace could not be made, 126 when the body threw, -1 when the
// child did not end normally.
int runInPrivateMountNamespace(const std::function<int()>& body);

// Runs `check`, a part of the running test with GoogleTest assertions, in a
// child in a private mount namespace. The child prints its failures as they
// happen, and any failure there (or a child that could not enter the
// namespace, threw or died) fails the running test here.
void expectInPrivateMountNamespace(const std::function<void()>& check);

}  // namespace testsupport
