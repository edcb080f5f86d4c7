#include "tests/support/PrivateMountNamespace.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cstdio>

#include "tests/support/RunUnprivileged.h"

namespace testsupport {

namespace {

// Failed parts of the running test so far, in this process.
int failedPartsOfRunningTest()
{
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    if (info == nullptr) {
        return 0;
    }
    const testing::TestResult* result = info->result();
    int failed = 0;
    for (int i = 0; i < result->total_part_count(); ++i) {
        failed += result->GetTestPartResult(i).failed() ? 1 : 0;
    }
    return failed;
}

}  // namespace

bool enterPrivateMountNamespace()
{
    // Without MS_PRIVATE the new namespace would still share its mounts'
    // events with the machine's: a mount made here would appear there.
    return ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

int runInPrivateMountNamespace(const std::function<int()>& body)
{
    // What is still buffered would otherwise be printed by both processes.
    std::fflush(stdout);
    std::fflush(stderr);
    return runInChild(enterPrivateMountNamespace, [&body] {
        const int status = body();
        std::fflush(stdout);
        std::fflush(stderr);
        return status;
    });
}

void expectInPrivateMountNamespace(const std::function<void()>& check)
{
    const int failedBefore = failedPartsOfRunningTest();
    const int status = runInPrivateMountNamespace([&check, failedBefore] {
        check();
        return failedPartsOfRunningTest() > failedBefore ? 1 : 0;
    });
    switch (status) {
    case 0: break;
    case 1: ADD_FAILURE() << "the check in a private mount namespace failed (its failures are above)"; break;
    case 125: ADD_FAILURE() << "no private mount namespace could be made (mounting needs root)"; break;
    case 126: ADD_FAILURE() << "the check in a private mount namespace threw an exception"; break;
    default:
        ADD_FAILURE() << "the check in a private mount namespace did not end normally (status " << status << ")";
        break;
    }
}

}  // namespace testsupport
