// The platform's one exception class. The error model's two named exceptions
// are instances of it, and the platform throws it where the system it stands
// for raises: an index out of range, a value of the wrong type, a task that
// cannot be launched. Code that "catches the platform exception" catches
// this class and lets every other thrown type pass.
#pragma once

#include <any>
#include <cstddef>
#include <exception>
#include <map>
#include <string>
#include <vector>

namespace platform {

// User info of errors and exceptions: keys to arbitrary values. A value's
// kind is tested with std::any_cast<T>(&value), the counterpart of asking an
// object for its class.
using UserInfo = std::map<std::string, std::any>;

inline constexpr const char* kRangeException = "NSRangeException";
inline constexpr const char* kInvalidArgumentException = "NSInvalidArgumentException";

class Exception : public std::exception {
public:
    Exception(std::string name, std::string reason, UserInfo userInfo = {});

    [[noreturn]] static void raise(std::string name, std::string reason, UserInfo userInfo = {});

    const std::string& name() const noexcept { return theName; }
    const std::string& reason() const noexcept { return theReason; }
    const UserInfo& userInfo() const noexcept { return theUserInfo; }
    // What a printed exception shows: its reason.
    const std::string& description() const noexcept { return theReason; }
    const char* what() const noexcept override { return theReason.c_str(); }

private:
    std::string theName;
    std::string theReason;
    UserInfo theUserInfo;
};

// Raises kRangeException for an index past the end of a list of count
// elements, with the reason a list gives: "index 1 beyond bounds [0 .. 0]",
// or "index 0 beyond bounds for empty array" when the list is empty.
[[noreturn]] void raiseIndexBeyondBounds(std::size_t index, std::size_t count);

// The element at index, or the range exception above.
template <typename Element>
const Element& objectAtIndex(const std::vector<Element>& elements, std::size_t index)
{
    if (index >= elements.size()) {
        raiseIndexBeyondBounds(index, elements.size());
    }
    return elements[index];
}

}  // namespace platform
