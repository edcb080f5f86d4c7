// destroy-probe: destroys paths through one of the platform's three ways of
// removing an item with everything in it and says what happened, so that the
// end-to-end tests can hold each of them to the same expectations inside the
// sandbox (where nothing but the fixture's files can go).
//
// usage: destroy-probe ENTRY [--repeat N] PATH...
//   ENTRY  workspace     the workspace's destroy of PATH's last component in
//                        the folder before it ("/a/b" is "b" in "/a"; a path
//                        without a slash is a name in the working folder)
//          file-manager  the file manager's removeItemAtPath(PATH)
//          tree-remover  a tree remover's removePath(PATH)
//
// For each PATH, in order:
//   "yes" when it went, "no" when not;
//   "error: REASON" when not, the first reason (std::error_code::message());
//   "ITEM: REASON" for every item the failure handler was told of, in the
//   order it was told (workspace and tree-remover only: the file manager
//   takes no handler).
// With --repeat N every PATH is destroyed N times, each time through a folder
// resolved afresh, and each distinct line is printed once, in the order first
// seen, as "COUNT LINE".
//
// Exit status: 0 when every request was made and reported, 1 when the
// output could not be written, 2 for a usage error.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/FileManager.h"
#include "platform/FolderCache.h"
#include "platform/TreeRemover.h"
#include "platform/Workspace.h"

// A sanitizer build reads its options from /proc/self/environ: run without
// /proc it sees none, and its leak check, which needs /proc as well, can only
// fail at exit. Leaks are checked in the runs that have /proc, where
// ASAN_OPTIONS overrides this.
extern "C" const char* __asan_default_options()  // NOLINT(bugprone-reserved-identifier)
{
    return "detect_leaks=0";
}

namespace {

enum class Entry { Workspace, FileManager, TreeRemover };

std::optional<Entry> entryNamed(std::string_view name)
{
    if (name == "workspace") {
        return Entry::Workspace;
    }
    if (name == "file-manager") {
        return Entry::FileManager;
    }
    if (name == "tree-remover") {
        return Entry::TreeRemover;
    }
    return std::nullopt;
}

// The lines of one destroy.
std::vector<std::string> destroy(Entry entry, const std::string& path)
{
    std::vector<std::string> told;
    const platform::TreeRemover::FailureHandler handler = [&told](const std::string& item, std::error_code reason) {
        told.push_back(item + ": " + reason.message());
    };
    std::error_code error;
    bool removed = false;
    switch (entry) {
    case Entry::Workspace: {
        // Split as a caller holding a folder and a name would: nothing is
        // trimmed or collapsed, so "" and "." reach the workspace as names.
        const std::string::size_type slash = path.rfind('/');
        const std::string folder =
            slash == std::string::npos ? std::string() : (slash == 0 ? std::string("/") : path.substr(0, slash));
        const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
        int32_t tag = -1;
        removed = platform::Workspace::sharedWorkspace().performFileOperation(
            platform::WorkspaceOperation::Destroy, folder, std::nullopt, {name}, &tag, &error, handler);
        break;
    }
    case Entry::FileManager: removed = platform::FileManager::defaultManager().removeItemAtPath(path, &error); break;
    case Entry::TreeRemover: {
        platform::TreeRemover remover;
        remover.setFailureHandler(handler);
        removed = remover.removePath(path, &error);
        break;
    }
    }
    std::vector<std::string> lines{removed ? "yes" : "no"};
    if (!removed) {
        lines.push_back("error: " + error.message());
    }
    lines.insert(lines.end(), told.begin(), told.end());
    return lines;
}

// Distinct lines with how often each was seen, in the order first seen.
class LineCounts {
public:
    void add(const std::string& line)
    {
        const auto [found, inserted] = theIndex.try_emplace(line, theCounts.size());
        if (inserted) {
            theCounts.emplace_back(line, 0);
        }
        ++theCounts[found->second].second;
    }

    void print() const
    {
        for (const auto& [line, count] : theCounts) {
            std::printf("%zu %s\n", count, line.c_str());
        }
    }

private:
    std::unordered_map<std::string, std::size_t> theIndex;
    std::vector<std::pair<std::string, std::size_t>> theCounts;
};

int usage()
{
    std::fprintf(stderr, "usage: destroy-probe workspace|file-manager|tree-remover [--repeat N] PATH...\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.empty()) {
        return usage();
    }
    const std::optional<Entry> entry = entryNamed(arguments[0]);
    if (!entry) {
        return usage();
    }
    std::size_t first = 1;
    std::optional<unsigned long> repeat;
    if (arguments.size() > 2 && arguments[1] == "--repeat") {
        char* end = nullptr;
        repeat = std::strtoul(arguments[2].c_str(), &end, 10);
        if (end == arguments[2].c_str() || *end != '\0' || *repeat == 0) {
            return usage();
        }
        first = 3;
    }
    if (first >= arguments.size()) {
        return usage();
    }
    LineCounts counts;
    for (std::size_t i = first; i < arguments.size(); ++i) {
        for (unsigned long round = 0; round < repeat.value_or(1); ++round) {
            // Each round resolves the folder afresh, as the first entry of a
            // list does: a kept folder would meet only one side of a swap
            // and leave the moment between judging and acting untried.
            platform::FolderCache::invalidateAll();
            for (const std::string& line : destroy(*entry, arguments[i])) {
                if (repeat) {
                    counts.add(line);
                } else {
                    std::printf("%s\n", line.c_str());
                }
            }
        }
    }
    counts.print();
    return std::fflush(stdout) == 0 ? 0 : 1;
}
