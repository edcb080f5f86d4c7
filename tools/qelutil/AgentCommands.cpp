// qelutil commands of the updater's per-user launch agent.
//
//   agent install BUNDLE NAME   sweeps stale agents, then writes and loads
//                               the agent of the application bundle BUNDLE,
//                               whose helper is
//                               BUNDLE/Contents/MacOS/Updater/NAME Updater Helper.app,
//                               unless its agent is there already
//   agent remove BUNDLE         sweeps stale agents, then unloads and deletes
//                               the agent of BUNDLE if there is one
//
// Both print nothing and exit 0 when the call runs to its end. BUNDLE must
// be an existing folder: otherwise "qelutil agent: no bundle at BUNDLE" goes
// to standard error and the exit status is 1, and nothing is swept. An
// exception of the shared code (a hash failure, a malformed agent in the
// agents folder, a launch failure of launchctl, a helper without executable)
// leaves the command for qelutil's own handling (exit 70 or 71).
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "fsutil/SetupQELAgent.h"
#include "platform/Bundle.h"
#include "tools/qelutil/CommandRegistry.h"

namespace {

constexpr int kExitNoBundle = 1;

int runAgent(const std::vector<std::string>& positional)
{
    if (positional.empty()) {
        throw qelutil::UsageError("install or remove expected");
    }
    const std::string& mode = positional[0];
    bool install = false;
    if (mode == "install") {
        qelutil::requireArgumentCount(positional, 3, 3);
        install = true;
    } else if (mode == "remove") {
        qelutil::requireArgumentCount(positional, 2, 2);
    } else {
        throw qelutil::UsageError("unknown mode \"" + mode + "\"");
    }

    const std::string& bundlePath = positional[1];
    const std::optional<platform::Bundle> bundle = platform::Bundle::bundleWithPath(bundlePath);
    if (!bundle) {
        std::fprintf(stderr, "qelutil agent: no bundle at %s\n", bundlePath.c_str());
        return kExitNoBundle;
    }
    const std::optional<std::string> appName = install ? std::optional<std::string>(positional[2]) : std::nullopt;
    SetupQELAgent(*bundle, appName, install);
    return 0;
}

const qelutil::CommandRegistrar agentCommand({"agent", "agent install BUNDLE NAME | agent remove BUNDLE", runAgent});

}  // namespace
