// The main of the test programs that run the shared services in-process.
//
// Whatever the services log goes to the running user's log file in the home
// folder of the password database. So that no test writes into this
// machine's real home folder, the test process first moves into a mount
// namespace of its own and mounts an empty tmpfs over the home folder; the
// programs it starts inherit that view. It then makes the Library folder
// there and sets the log file up once, with the tests' application type, so
// that every test starts with the file in place and a forced error code of a
// test never meets the set-up's own checks. A test that needs the set-up
// still to come runs again in a child that skips it (LogFile.h).
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "base/QELBase.h"
#include "platform/User.h"
#include "tests/support/LogFile.h"
#include "tests/support/PrivateMountNamespace.h"
#include "tests/support/Settings.h"

namespace {

bool fail(const char* what)
{
    std::fprintf(stderr, "test main: %s: %s\n", what, std::strerror(errno));
    return false;
}

// The one place where a test process changes its own mount namespace: every
// test of these suites runs the services in this process, and each logs
// through the home folder, so the whole process (and every program it
// starts) must see the private home from before the first test on. A mount
// made in a child could not give it that view.
bool mountPrivateHome(const std::string& home)
{
    if (!testsupport::enterPrivateMountNamespace()) {
        return fail("entering a private mount namespace (the tests run as root)");
    }
    if (::mount("tmpfs", home.c_str(), "tmpfs", 0, "mode=0700") != 0) {
        return fail("mounting a tmpfs over the home folder");
    }
    const std::string library = home + "/Library";
    if (::mkdir(library.c_str(), 0755) != 0) {
        return fail("making the Library folder");
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string home = platform::homeDirectory();
    if (home.empty() || home == "/" || !mountPrivateHome(home)) {
        std::fprintf(stderr, "test main: no private home folder over \"%s\"; not running any test\n", home.c_str());
        return 1;
    }
    if (!testsupport::runsWithoutLogSetUp()) {
        testsupport::useCommandLineSettings({"-AppType", testsupport::kTestAppType});
        const std::optional<std::string> logPath = QELBase::logFilePath();
        testsupport::useCommandLineSettings({});
        if (!logPath) {
            std::fprintf(stderr, "test main: the log file could not be set up in the private home folder\n");
            return 1;
        }
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
