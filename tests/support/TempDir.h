// A temporary folder for one test, removed with everything in it at the end.
#pragma once

#include <string>

namespace testsupport {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const noexcept { return thePath; }
    // path() + "/" + relative
    std::string at(const std::string& relative) const;

private:
    std::string thePath;
};

// Writes a file, creating its parent folders.
void writeFile(const std::string& path, const std::string& contents);
std::string readFile(const std::string& path);
void makeDirectories(const std::string& path);
// Whether anything, a dangling link included, is at the path.
bool present(const std::string& path);
// How many descriptors the process has open, so a test can show that an
// operation leaves none behind.
int openDescriptorCount();

}  // namespace testsupport
