#include "tests/support/UpdaterAgents.h"

#include <algorithm>
#include <cstdint>
#include <plist/plist.h>

#include "tests/support/OpensslDigests.h"
#include "tests/support/PlistXml.h"

namespace testsupport {

namespace {

struct PlistFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

std::string helperBundleOf(const std::string& appPath, const std::string& appName)
{
    return appPath + "/Contents/MacOS/Updater/" + appName + " Updater Helper.app";
}

}  // namespace

std::string labelEntry(const std::string& label)
{
    return plistStringEntry("Label", label);
}

std::string argumentsEntry(const std::vector<std::string>& arguments)
{
    return plistStringArrayEntry("ProgramArguments", arguments);
}

std::string agentDocument(const std::string& entries)
{
    return plistDocument(entries + plistTrueEntry("RunAtLoad"));
}

std::string agentXml(const std::string& label, const std::vector<std::string>& arguments)
{
    return agentDocument(labelEntry(label) + argumentsEntry(arguments));
}

std::string labelOf(const std::string& appPath)
{
    return kLabelPrefix + opensslDigestOf("sha224", appPath);
}

std::string installHelper(const Sandbox& sandbox, const std::string& appPath, const std::string& appName,
                          const std::string& executable)
{
    const std::string helper = helperBundleOf(appPath, appName);
    sandbox.writeFile(helper + "/Contents/Info.plist",
                      agentDocument(plistStringEntry("CFBundleExecutable", executable) +
                                    plistStringEntry("CFBundleIdentifier", "com.corvane.lumidoc.updater.helper")));
    std::string executablePath = helper + "/Contents/MacOS/" + executable;
    sandbox.writeFile(executablePath, "#!/bin/sh\n", 0755);
    return executablePath;
}

std::string helperProgramOf(const std::string& appPath)
{
    return helperBundleOf(appPath, "Lumidoc") + "/Contents/MacOS/Lumidoc Updater Helper";
}

std::string binaryAgent(const std::string& label, const std::vector<std::string>& arguments)
{
    const PlistPtr dict(plist_new_dict());
    plist_dict_set_item(dict.get(), "Label", plist_new_string(label.c_str()));
    plist_t array = plist_new_array();
    for (const std::string& argument : arguments) {
        plist_array_append_item(array, plist_new_string(argument.c_str()));
    }
    plist_dict_set_item(dict.get(), "ProgramArguments", array);
    plist_dict_set_item(dict.get(), "RunAtLoad", plist_new_bool(1));
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict.get(), &bytes, &length);
    std::string result(bytes != nullptr ? bytes : "", bytes != nullptr ? length : 0);
    plist_to_bin_free(bytes);
    return result;
}

std::vector<JournalEntry> launchctlCalls(const Sandbox& sandbox)
{
    std::vector<JournalEntry> calls;
    for (const JournalEntry& entry : sandbox.journal()) {
        if (!entry.empty() && entry.front() == "launchctl") {
            calls.push_back(entry);
        }
    }
    return calls;
}

JournalEntry unloadOf(const std::string& plistPath)
{
    return {"launchctl", "unload", plistPath};
}

JournalEntry loadOf(const std::string& plistPath)
{
    return {"launchctl", "load", plistPath};
}

std::vector<JournalEntry> sorted(std::vector<JournalEntry> entries)
{
    std::sort(entries.begin(), entries.end());
    return entries;
}

}  // namespace testsupport
