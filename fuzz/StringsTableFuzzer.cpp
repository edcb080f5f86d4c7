// The strings-table reader, classic text form and property-list form (XML
// and binary), with or without a byte-order mark: any bytes give a table or
// none, and a table read once reads the same from its own property-list form.
#include <cstddef>
#include <cstdint>

#include "fuzz/FuzzInput.h"
#include "platform/StringsTable.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const auto table = platform::StringsTable::parse(fuzzsupport::bytesOf(data, size));
    if (table) {
        for (const auto& [key, value] : *table) {
            fuzzsupport::check(key.size() <= size * 4 + 4, "a key longer than the input can hold");
            fuzzsupport::check(value.size() <= size * 4 + 4, "a value longer than the input can hold");
        }
    }
    return 0;
}
