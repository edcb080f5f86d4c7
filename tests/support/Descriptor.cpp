#include "tests/support/Descriptor.h"

#include <unistd.h>

namespace testsupport {

void Descriptor::close() noexcept
{
    if (theFd >= 0) {
        ::close(theFd);
        theFd = -1;
    }
}

}  // namespace testsupport
