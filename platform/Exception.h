// The platform's one exception class. The error model's two named exceptions
// are instances of it, and the platform throws it where the system it stands
// for raises: an index out of range, a value of the wrong type, a task that
// cannot be launched. Code that "catches the platform exception" catches
// this class and lets every other thrown type pass.
#pragma once

#include <any>
#include <exception>
#include <map>
#include <string>

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

}  // namespace platform
