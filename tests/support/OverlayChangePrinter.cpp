#include "tests/support/OverlayChangePrinter.h"

namespace platform {

void PrintTo(const OverlayChange& change, std::ostream* out)
{
    static const char* const kinds[] = {"Removed", "Created", "Changed"};
    static const char* const types[] = {"File", "Folder", "Link", "Other"};
    *out << "{" << kinds[static_cast<int>(change.kind)] << " " << change.path << " "
         << types[static_cast<int>(change.type)] << " " << change.itemsInside << "}";
}

}  // namespace platform
