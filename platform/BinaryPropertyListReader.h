// Reads the binary property-list format ("bplist00") on its own, bounds-checked
// byte by byte, so that no sequence of bytes can end the process: whatever is
// not a well-formed property list reads as none.
#pragma once

#include <optional>
#include <string_view>

#include "platform/PropertyList.h"

namespace platform {

class BinaryPropertyListReader {
public:
    // True when bytes start with the binary magic "bplist" (any version).
    static bool looksBinary(std::string_view bytes) noexcept;
    // The value of a version-00 binary property list; none when the bytes are
    // damaged: an offset, length or reference out of range, an unknown
    // object, a cycle or nesting deeper than maximumDepth, a dictionary key
    // that is not a string, a string (key or value) holding NUL, or a value
    // that would be out of proportion to the file: more than 16 counted
    // bytes per byte of the file, plus 1 MiB (strings and data, every copy
    // of a dictionary key, 8 per array item or dictionary entry). An object
    // referred to many times is made once and shared, so a string referred
    // to from a large array is held once.
    static std::optional<PropertyList> read(std::string_view bytes, int maximumDepth);
};

}  // namespace platform
