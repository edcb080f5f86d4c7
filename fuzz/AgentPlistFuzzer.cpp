// The launch-agent sweep's reading of one agent file: any bytes are a stale
// agent, not one, or a malformed agent reported by the platform's exception;
// nothing else may come out.
#include <cstddef>
#include <cstdint>

#include "fsutil/SetupQELAgent.h"
#include "fuzz/FuzzInput.h"
#include "platform/Exception.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    try {
        (void)QELAgentIsStale(fuzzsupport::bytesOf(data, size));
    } catch (const platform::Exception&) {
        // A label or program that is not text, arguments that are no array.
    }
    return 0;
}
