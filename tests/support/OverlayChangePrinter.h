// How GoogleTest shows an overlay change in a failure message:
// {Removed /Library/Old Folder 6}. Found by argument-dependent lookup, so it
// lives beside the type, in namespace platform.
#pragma once

#include <ostream>

#include "platform/preview/OverlayChanges.h"

namespace platform {

void PrintTo(const OverlayChange& change, std::ostream* out);

}  // namespace platform
