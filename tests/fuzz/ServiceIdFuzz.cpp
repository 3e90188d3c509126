// Service ids, modes and handles of any bits: texts stay within what they promise, and are the same
// each time.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ZorServiceDebug.h"

namespace {

void Check(const std::string& text, const std::string& again, std::size_t longest)
{
    if (text != again || text.size() > longest || text.find('\0') != std::string::npos) {
        abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    unsigned long long id = 0;
    if (size < sizeof(id) + sizeof(ZORHandle) + 3 * sizeof(std::int32_t)) {
        return 0;
    }
    std::memcpy(&id, data, sizeof(id));
    Check(TCZorServiceDebug::ToString(id), TCZorServiceDebug::ToString(id), 99);

    std::int32_t words[4];
    std::memcpy(words, data + sizeof(id), sizeof(words));
    ZORHandle handle;
    handle.first = words[0];
    handle.second = words[1];
    Check(TCZorServiceDebug::ToString(handle), TCZorServiceDebug::ToString(handle), 19);

    TSTvMode mode;
    mode.broadcastType = words[2];
    mode.serviceMode = static_cast<EServiceMode>(words[3]);
    Check(TCZorServiceDebug::ToString(mode), TCZorServiceDebug::ToString(mode), 29);
    return 0;
}

/// The library's entry refers to it.
int Main()
{
    return 0;
}
