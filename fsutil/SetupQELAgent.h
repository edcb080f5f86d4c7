// The updater's per-user launch agent, shared with the updater side.
//
// One application bundle at one path owns one agent, labelled
// "com.corvane.QEL." + the SHA-224 of the bundle path (56 hex digits), in
// <user Library>/LaunchAgents/<label>.plist. Both modes first sweep stale
// agents of the family: any agent there whose label has the family prefix
// and whose program is missing (unless it lies under "/Volumes/") is
// unloaded and deleted.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Bundle.h"

// install true: writes and loads the agent for the bundle's helper
// application "<bundle>/Contents/MacOS/Updater/<appName> Updater Helper.app"
// unless one is there already. install false: unloads and deletes the
// bundle's agent if there is one. Failures other than exceptions are silent;
// platform::Exception propagates (a hash failure, a malformed agent, a
// launch failure), abandoning the call.
void SetupQELAgent(const platform::Bundle& bundle, const std::optional<std::string>& appName, bool install);

// The agent property-list path for a bundle path. Throws what the hash of
// the path throws.
std::string QELAgentPlistPath(const std::string& bundlePath);

// True when the bytes of one agent file are a stale agent of the family: a
// dictionary whose "Label" has the family prefix and whose first program
// argument is missing and not under "/Volumes/". Bytes that are no
// dictionary are not stale. Throws platform::Exception when the label or the
// program is not text, the arguments are not an array, or there is no first
// argument.
bool QELAgentIsStale(std::string_view plistBytes);
