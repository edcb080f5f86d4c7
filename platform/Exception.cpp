#include "platform/Exception.h"

#include <utility>

namespace platform {

Exception::Exception(std::string name, std::string reason, UserInfo userInfo)
    : theName(std::move(name)),
      theReason(std::move(reason)),
      theUserInfo(std::move(userInfo))
{
}

void Exception::raise(std::string name, std::string reason, UserInfo userInfo)
{
    throw Exception(std::move(name), std::move(reason), std::move(userInfo));
}

}  // namespace platform
