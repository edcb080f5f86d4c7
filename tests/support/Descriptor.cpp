#include "tests/support/Descriptor.h"

#include <fcntl.h>
#include <unistd.h>

namespace testsupport {

void Descriptor::close() noexcept
{
    if (theFd >= 0) {
        ::close(theFd);
        theFd = -1;
    }
}

Descriptor openFolder(const std::string& path)
{
    return Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace testsupport
