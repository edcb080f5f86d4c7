// The uninstaller: given the path of the installed application bundle, run()
// removes what the suite's installers laid down, in a fixed order, printing
// one status line per item on standard output. No failure stops the sequence.
#pragma once

#include <optional>
#include <string>

class TFRemoverTool {
public:
    TFRemoverTool() = default;
    ~TFRemoverTool();
    TFRemoverTool(const TFRemoverTool&) = delete;
    TFRemoverTool& operator=(const TFRemoverTool&) = delete;

    // Sets theAppPath and theAppParentPath (the path less its last component).
    void setAppPath(const std::string& path);
    // The whole removal sequence, each step once, in order.
    void run();

    // Removes every path a list file names (install log or the bundle's own
    // list), keeping the browser plug-in and its preference file unless they
    // belong to this application.
    void listToDelete(const std::string& listPath);
    // True when the plug-in's preference file names this application.
    bool shouldDeleteBrowserPlugin();
    // True when the bundle's version is of major version 10.
    bool bundleVersionIsCurrent(const std::string& bundlePath);

    const std::optional<std::string>& appPath() const noexcept { return theAppPath; }
    const std::optional<std::string>& appParentPath() const noexcept { return theAppParentPath; }

private:
    // Prints "<status word> <subject>.\n", the word looked up by key in the
    // main bundle's strings table.
    static void printStatus(const char* key, const std::string& subject);

    std::optional<std::string> theAppParentPath;
    std::optional<std::string> theAppPath;
};
