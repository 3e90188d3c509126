// A record file of any bytes is read or refused, and what was read can be printed.
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "Calls.h"
#include "Page.h"
#include "PageData.h"
#include "Path.h"
#include "Reader.h"
#include "Summary.h"
#include "TaskNames.h"
#include "TextPrint.h"
#include "Top.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    try {
        const zorrecord::Recording recording = zorrecord::Read(data, size);
        std::ostringstream text;
        zorrecord::PrintSummary(recording, text);
        const std::vector<zorrecord::Call> calls = zorrecord::CallsOf(recording);
        zorrecord::PrintRecords(recording, zorrecord::TaskNames(calls), {}, false, text);
        zorrecord::PrintTop(recording, {}, false, text);
        if (zorrecord::LongestCall(recording, calls, {}) != zorrecord::Call::NONE) {
            zorrecord::PrintPath(recording, {}, {}, false, text);
        }
        zorrecord::PrintPage(zorrecord::PageData(recording, {}, {}), text);
    } catch (const zorrecord::FormatError&) {
        // refused, with a reason
    }
    return 0;
}
