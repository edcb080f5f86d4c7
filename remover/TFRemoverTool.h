// The uninstaller: given the path of the installed application bundle, run()
// removes what the suite's installers laid down, in a fixed order, printing
// one status line per item on standard output. No failure stops the
// sequence; nothing is retried.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
    // Where the status lines go: standard output unless a test hands over
    // another open stream, which must outlive the tool. Standard output is
    // flushed before every child process starts (see platform::Task), so its
    // lines keep their order when it is a file shared with the children.
    void setOutput(std::FILE* output) noexcept { theOutput = output; }

    // Install logs and the bundle's own list (format: InstallLogList.h).
    // Removes every path a list file names, keeping the browser plug-in and
    // its preference file unless they belong to this application. A list is
    // read only when only root or the running user could have written it, it
    // is a regular file of at most RegularFile::kSizeLimit bytes, and it is
    // text; otherwise nothing is printed, the plug-in question is not asked,
    // and the console says why ("not read: PATH: REASON").
    void listToDelete(const std::string& listPath);
    // True when the plug-in's preference file names this application.
    // Throws platform::Exception when the named value is not text.
    bool shouldDeleteBrowserPlugin();
    // True when the bundle's version is of major version 10; false when the
    // bundle cannot be opened or names no version. Throws platform::Exception
    // when the version is not text.
    bool bundleVersionIsCurrent(const std::string& bundlePath);

    // Package receipts.
    // Has the package tool forget every receipt the pattern matches as a
    // regular expression, on the tool's default volume.
    void forgetPkgId(const std::string& pattern);
    // "/" or "/Volumes/<name>" for the volume that holds theAppPath. Throws
    // platform::Exception (NSRangeException) on a path with too few pieces.
    std::string obtainVolume();

    // Print components and the application folder.
    void deletePrintComponents();
    void removeIconForFolder(const std::string& path);
    void deleteParentFolder(const std::string& path);

    // The application manager, through the maker's library in the bundle.
    void uninstallJEX();

    // The updater's per-user launch agent for this application.
    void removeQELLaunchdAgent();

    const std::optional<std::string>& appPath() const noexcept { return theAppPath; }
    const std::optional<std::string>& appParentPath() const noexcept { return theAppParentPath; }

private:
    // Prints "<status word> <subject>.\n", the word looked up by key in the
    // main bundle's strings table (the key itself where there is none).
    void printStatus(const char* key, const std::string& subject) const;
    static std::string statusWord(const char* key);
    // Destroys the item at path through the workspace; true on success.
    // A failure is told on the console ("not removed: PATH: REASON").
    static bool destroyItem(const std::string& path);
    // Destroys the item at path and prints "Removed" or "ErrorRemovingFile"
    // for it.
    void destroyAndReport(const std::string& path) const;
    // One entry of a list: destroyed and reported, or "FileMissing" when it
    // does not exist or holds a NUL byte.
    void removeListedPath(const std::string& path) const;
    // An install log: its entries, then the log itself. Silent when missing.
    void removeInstallLog(const std::optional<std::string>& logPath);
    // The text of a list file, or none when it is not read (the console
    // says why).
    static std::optional<std::string> readList(const std::string& listPath);
    // Loads the install-manager library at libraryPath, calls its entry and
    // prints the outcome.
    void callInstallManager(const std::string& libraryPath) const;
    // The product's install log, named by the application bundle's
    // identifier; none when the bundle cannot be opened or has none, or when
    // the identifier is not one folder name (empty, ".", "..", or holding a
    // "/"), which the console then tells.
    std::optional<std::string> productInstallLogPath() const;
    void forgetReceipts();

    std::optional<std::string> theAppParentPath;
    std::optional<std::string> theAppPath;
    std::FILE* theOutput = stdout;
};

// The library's entry point as last resolved by uninstallJEX. The name is the
// one the maker's callers share; it dangles once the library is closed.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern int32_t (*_hov_uninstallCorvaneApplicationManager)(int32_t*);
