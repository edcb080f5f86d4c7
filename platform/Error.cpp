#include "platform/Error.h"

#include <utility>

namespace platform {

Error::Error(std::string domain, int32_t code, UserInfo userInfo)
    : theDomain(std::move(domain)),
      theCode(code),
      theUserInfo(std::move(userInfo))
{
}

}  // namespace platform
