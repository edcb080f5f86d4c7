// The remover's reading of one list (install log or the bundle's own list):
// any bytes give entries, none of them empty, none holding a line feed, and
// only absolute ones.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "platform/Path.h"
#include "remover/TFRemoverTool.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::vector<std::string> entries =
        TFRemoverTool::entriesOfList(fuzzsupport::bytesOf(data, size), "/Applications/Corvane Lumidoc X Pro");
    for (const std::string& entry : entries) {
        fuzzsupport::check(!entry.empty(), "an empty entry");
        fuzzsupport::check(entry.find('\n') == std::string::npos, "an entry holding a line feed");
        fuzzsupport::check(platform::isAbsolutePath(entry), "a relative entry after resolution");
    }
    return 0;
}
