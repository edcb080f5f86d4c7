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

void raiseIndexBeyondBounds(std::size_t index, std::size_t count)
{
    const std::string bounds = count == 0 ? std::string("for empty array") : "[0 .. " + std::to_string(count - 1) + "]";
    Exception::raise(kRangeException, "index " + std::to_string(index) + " beyond bounds " + bounds);
}

}  // namespace platform
