// Bundles in the macOS layout:
//   X.app/Contents/Info.plist
//   X.app/Contents/MacOS/<CFBundleExecutable>
//   X.app/Contents/Resources/<resources>, English.lproj/Localizable.strings
//   X.app/Contents/Frameworks/            (private frameworks)
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/PropertyList.h"

namespace platform {

class Bundle {
public:
    // A bundle for an existing folder; none otherwise.
    static std::optional<Bundle> bundleWithPath(const std::string& path);
    // Found once from the running executable: for X.app/Contents/MacOS/n it
    // is X.app; an executable outside that layout makes its own folder the
    // bundle.
    static std::optional<Bundle> mainBundle();

    const std::string& bundlePath() const noexcept { return thePath; }
    // Contents/Info.plist, whether or not it exists.
    std::string infoDictionaryPath() const;
    // Contents/Info.plist as a dictionary; none when missing or unreadable.
    std::optional<PropertyList> infoDictionary() const;
    std::optional<PropertyList> objectForInfoDictionaryKey(std::string_view key) const;
    // CFBundleIdentifier when it is a string.
    std::optional<std::string> bundleIdentifier() const;
    // What bundleIdentifier makes of an info dictionary read elsewhere.
    static std::optional<std::string> identifierInInfoDictionary(const PropertyList& info);
    // Contents/Resources/<name>.<type> (then English.lproj/), when it exists.
    std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;
    // From English.lproj/Localizable.strings, read once per process; the key
    // itself when there is no table or no entry.
    std::string localizedStringForKey(std::string_view key) const;
    // Contents/MacOS/<CFBundleExecutable>, when the info names one.
    std::optional<std::string> executablePath() const;
    // Contents/Frameworks (whether or not the folder exists).
    std::optional<std::string> privateFrameworksPath() const;

private:
    explicit Bundle(std::string path);
    std::string thePath;
};

}  // namespace platform
