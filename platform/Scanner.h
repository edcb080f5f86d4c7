// A text scanner that skips white space and line ends (the Unicode set, not
// only ASCII) before each scan, like the default scanner of the platform the
// remover was designed against.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace platform {

class Scanner {
public:
    explicit Scanner(std::string text);

    // True when nothing but skippable characters remains.
    bool isAtEnd();
    // Skips white space and line ends, then takes everything up to (not
    // including) the next occurrence of stop, or to the end. False when
    // nothing was taken; then the position stays where it was before the
    // skip and into is left unchanged.
    bool scanUpToString(std::string_view stop, std::string* into);

    std::size_t scanLocation() const noexcept { return theLocation; }

private:
    std::string theText;
    std::size_t theLocation = 0;
};

}  // namespace platform
