// libFuzzer target for the mount table reader: any text in the form of
// /proc/self/mountinfo, damaged or not.
//
// Every entry read must have a mount point, a root and a type, and no field
// may be longer than the line it came from; reading never fails. Decoding
// the kernel's escapes never makes a text longer.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "platform/preview/MountTable.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string_view text = fuzzsupport::bytesOf(data, size);
    const std::vector<platform::MountEntry> entries = platform::MountTable::parse(text);
    for (const platform::MountEntry& entry : entries) {
        fuzzsupport::check(!entry.mountPoint.empty() && !entry.root.empty() && !entry.fileSystemType.empty(),
                           "an entry lacks a mount point, root or type");
        fuzzsupport::check(entry.mountPoint.size() <= text.size() && entry.mountOptions.size() <= text.size(),
                           "a field is longer than the text");
        (void)entry.isReadOnly();
        (void)entry.hasMountOption("nosuid");
    }
    fuzzsupport::check(platform::MountTable::unescape(text).size() <= text.size(), "unescaping made the text longer");
    return 0;
}
