// Any text may be given as a function's signature: the indices found must lie inside it, in order.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ZorFunctionIndices.h"

namespace {

/// A range is absent as a whole or lies inside the text, its last character included.
bool IsSound(int begin, int end, std::size_t size)
{
    if (begin == -1 || end == -1) {
        return begin == end;
    }
    return begin >= 0 && begin <= end && static_cast<std::size_t>(end) < size;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // A copy of exactly that size: a character read behind its end is found.
    const std::string text(reinterpret_cast<const char*>(data), size);
    const zor::FunctionIndices found = zor::FindFunctionIndices(std::string_view(text));
    if (!IsSound(found.classBegin, found.classEnd, size) ||
        !IsSound(found.functionBegin, found.functionEnd, size) || found.scope < -1 ||
        found.scope >= static_cast<int>(size == 0 ? 1 : size)) {
        abort();
    }
    return 0;
}
