// A file descriptor owned by the test: closed when it goes.
#pragma once

#include <string>
#include <utility>

namespace testsupport {

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) noexcept : theFd(fd) {}
    ~Descriptor() { close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& other) noexcept : theFd(std::exchange(other.theFd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        if (this != &other) {
            close();
            theFd = std::exchange(other.theFd, -1);
        }
        return *this;
    }

    int get() const noexcept { return theFd; }
    bool isOpen() const noexcept { return theFd >= 0; }
    void close() noexcept;

private:
    int theFd = -1;
};

// The folder at path, open for reading (not open when it cannot be).
Descriptor openFolder(const std::string& path);

}  // namespace testsupport
