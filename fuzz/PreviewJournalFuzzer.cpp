// libFuzzer target for the journal the preview's stand-ins write: any bytes,
// as a damaged or hostile journal would hold them.
//
// Decoding never fails, and every record it gives survives being written and
// read again unchanged: what a stand-in records is what the preview reports.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "platform/preview/InheritedJournal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    using platform::InheritedJournal;
    const std::vector<InheritedJournal::Record> records = InheritedJournal::decode(fuzzsupport::bytesOf(data, size));
    for (const InheritedJournal::Record& record : records) {
        fuzzsupport::check(!record.empty(), "a record without a field");
        const std::string line = InheritedJournal::encode(record);
        fuzzsupport::check(line.find('\n') == line.size() - 1, "an encoded record is not one line");
        const std::vector<InheritedJournal::Record> again = InheritedJournal::decode(line);
        fuzzsupport::check(again.size() == 1 && again.front() == record, "a record changed when written again");
    }
    return 0;
}
