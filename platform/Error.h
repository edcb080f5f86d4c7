// An error value: a domain, a signed 32-bit code and user info.
#pragma once

#include <cstdint>
#include <string>

#include "platform/Exception.h"

namespace platform {

class Error {
public:
    Error(std::string domain, int32_t code, UserInfo userInfo = {});

    const std::string& domain() const noexcept { return theDomain; }
    int32_t code() const noexcept { return theCode; }
    const UserInfo& userInfo() const noexcept { return theUserInfo; }

private:
    std::string theDomain;
    int32_t theCode;
    UserInfo theUserInfo;
};

}  // namespace platform
