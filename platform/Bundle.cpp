#include "platform/Bundle.h"

#include <cerrno>
#include <map>
#include <sys/auxv.h>
#include <mutex>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/FileManager.h"
#include "platform/Path.h"
#include "platform/StringsTable.h"

namespace platform {

namespace {

bool isDirectory(const std::string& path)
{
    bool directory = false;
    return FileManager::defaultManager().fileExistsAtPath(path, &directory) && directory;
}

bool exists(const std::string& path)
{
    return FileManager::defaultManager().fileExistsAtPath(path);
}

// The path the program was started by (execve's first argument), made
// absolute from the current folder when it is relative: what is left when
// /proc is not mounted.
std::optional<std::string> startedExecutablePath()
{
    // The auxiliary vector hands the address over as a number; it is a
    // pointer to the string the kernel placed on the stack at start.
    const auto* started = reinterpret_cast<const char*>(::getauxval(AT_EXECFN));  // NOLINT(performance-no-int-to-ptr)
    if (started == nullptr || *started == '\0') {
        return std::nullopt;
    }
    std::string path(started);
    if (path.front() != '/') {
        std::vector<char> folder(4096);
        while (::getcwd(folder.data(), folder.size()) == nullptr) {
            if (errno != ERANGE) {
                return std::nullopt;
            }
            folder.resize(folder.size() * 2);
        }
        path = appendingPathComponent(folder.data(), path);
    }
    return path;
}

std::optional<std::string> runningExecutablePath()
{
    std::vector<char> buffer(4096);
    for (;;) {
        const ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
        if (length < 0) {
            // No /proc: the bundle must still be found, or it would not be
            // protected from a removal.
            return startedExecutablePath();
        }
        if (static_cast<size_t>(length) < buffer.size()) {
            return std::string(buffer.data(), static_cast<size_t>(length));
        }
        buffer.resize(buffer.size() * 2);
    }
}

// X.app for X.app/Contents/MacOS/n; otherwise the executable's folder.
std::string bundleFolderOfExecutable(const std::string& executable)
{
    std::string macOS = deletingLastPathComponent(executable);
    const std::string contents = deletingLastPathComponent(macOS);
    if (lastPathComponent(macOS) == "MacOS" && lastPathComponent(contents) == "Contents") {
        std::string bundle = deletingLastPathComponent(contents);
        if (!bundle.empty() && bundle != contents) {
            return bundle;
        }
    }
    return macOS;
}

}  // namespace

Bundle::Bundle(std::string path) : thePath(std::move(path)) {}

std::optional<Bundle> Bundle::bundleWithPath(const std::string& path)
{
    if (path.empty() || !isDirectory(path)) {
        return std::nullopt;
    }
    std::string standardized = path;
    while (standardized.size() > 1 && standardized.back() == '/') {
        standardized.pop_back();
    }
    return Bundle(std::move(standardized));
}

std::optional<Bundle> Bundle::mainBundle()
{
    // Found once: the process keeps its bundle even if the files it was
    // started from go away during the run.
    static const std::optional<Bundle> theMainBundle = []() -> std::optional<Bundle> {
        const auto executable = runningExecutablePath();
        if (!executable) {
            return std::nullopt;
        }
        return bundleWithPath(bundleFolderOfExecutable(*executable));
    }();
    return theMainBundle;
}

std::string Bundle::infoDictionaryPath() const
{
    return appendingPathComponents(thePath, {"Contents", "Info.plist"});
}

std::optional<PropertyList> Bundle::infoDictionary() const
{
    return PropertyList::dictionaryWithContentsOfFile(infoDictionaryPath());
}

std::optional<PropertyList> Bundle::objectForInfoDictionaryKey(std::string_view key) const
{
    const auto info = infoDictionary();
    if (!info) {
        return std::nullopt;
    }
    const PropertyList* value = info->objectForKey(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    return *value;
}

std::optional<std::string> Bundle::bundleIdentifier() const
{
    const auto info = infoDictionary();
    if (!info) {
        return std::nullopt;
    }
    return identifierInInfoDictionary(*info);
}

std::optional<std::string> Bundle::identifierInInfoDictionary(const PropertyList& info)
{
    const PropertyList* value = info.objectForKey("CFBundleIdentifier");
    if (value == nullptr || value->asString() == nullptr) {
        return std::nullopt;
    }
    return *value->asString();
}

std::optional<std::string> Bundle::pathForResource(std::string_view name, std::string_view type) const
{
    if (name.empty()) {
        return std::nullopt;
    }
    std::string fileName(name);
    if (!type.empty()) {
        fileName = appendingPathExtension(fileName, type);
    }
    const std::string resources = appendingPathComponents(thePath, {"Contents", "Resources"});
    for (const std::string& folder : {resources, appendingPathComponent(resources, "English.lproj")}) {
        std::string candidate = appendingPathComponent(folder, fileName);
        if (exists(candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

std::string Bundle::localizedStringForKey(std::string_view key) const
{
    const std::string tablePath =
        appendingPathComponents(thePath, {"Contents", "Resources", "English.lproj", "Localizable.strings"});
    // A bundle's strings table is read once per process and kept.
    static std::mutex cacheLock;
    static std::map<std::string, std::optional<StringsTable::Table>, std::less<>> cache;
    const std::lock_guard<std::mutex> guard(cacheLock);
    auto cached = cache.find(tablePath);
    if (cached == cache.end()) {
        cached = cache.emplace(tablePath, StringsTable::readFromFile(tablePath)).first;
    }
    const std::optional<StringsTable::Table>& table = cached->second;
    if (table) {
        auto found = table->find(key);
        if (found != table->end()) {
            return found->second;
        }
    }
    return std::string(key);
}

std::optional<std::string> Bundle::executablePath() const
{
    const auto value = objectForInfoDictionaryKey("CFBundleExecutable");
    if (!value || value->asString() == nullptr || value->asString()->empty()) {
        return std::nullopt;
    }
    std::string path = appendingPathComponents(thePath, {"Contents", "MacOS", *value->asString()});
    if (!exists(path)) {
        return std::nullopt;
    }
    return path;
}

std::optional<std::string> Bundle::privateFrameworksPath() const
{
    return appendingPathComponents(thePath, {"Contents", "Frameworks"});
}

}  // namespace platform
