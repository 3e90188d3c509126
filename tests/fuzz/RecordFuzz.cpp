// A record file of any bytes is read or refused, and what was read can be printed.
#include <cstddef>
#include <cstdint>
#include <sstream>

#include "Reader.h"
#include "Summary.h"
#include "TextPrint.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    try {
        const zorrecord::Recording recording = zorrecord::Read(data, size);
        std::ostringstream text;
        zorrecord::PrintSummary(recording, text);
        zorrecord::PrintRecords(recording, text);
    } catch (const zorrecord::FormatError&) {
        // refused, with a reason
    }
    return 0;
}
