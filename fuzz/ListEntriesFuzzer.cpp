// The remover's reading of one list (install log or the bundle's own list):
// any bytes either are not text or give entries, none of them empty, none
// holding a line feed, and only absolute ones.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "fuzz/FuzzInput.h"
#include "platform/Path.h"
#include "remover/InstallLogList.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    std::optional<std::string> text = InstallLogList::text(std::string(fuzzsupport::bytesOf(data, size)));
    if (!text) {
        return 0;
    }
    const bool complete = InstallLogList::forEachEntry(
        std::move(*text), "/Applications/Corvane Lumidoc X Pro", [](const std::string& entry) {
            fuzzsupport::check(!entry.empty(), "an empty entry");
            fuzzsupport::check(entry.find('\n') == std::string::npos, "an entry holding a line feed");
            fuzzsupport::check(platform::isAbsolutePath(entry), "a relative entry after resolution");
        });
    fuzzsupport::check(complete, "a list not walked to its end");
    return 0;
}
