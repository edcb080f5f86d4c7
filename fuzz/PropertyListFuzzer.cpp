// The property-list reader, XML and binary: any bytes give a value or none,
// never an end of the process; a value read is written as XML without
// trouble.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzInput.h"
#include "platform/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const auto value = platform::PropertyList::fromBytes(fuzzsupport::bytesOf(data, size));
    if (value) {
        const std::string xml = value->toXML();
        fuzzsupport::check(!xml.empty(), "a value read that writes no XML");
    }
    return 0;
}
