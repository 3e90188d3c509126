// Any text may be given as a function's signature: the indices found must lie inside it, in order.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ZorFunctionIndices.h"

namespace {

/// A range lies inside the text, its last character included, or is empty.
bool IsSound(int begin, int end, int size)
{
    return begin >= 0 && begin <= end + 1 && end < size;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // A copy of exactly that size: a character read behind its end is found.
    const std::string text(reinterpret_cast<const char*>(data), size);
    const zor::FunctionIndices found = zor::FindFunctionIndices(std::string_view(text));
    const int length = static_cast<int>(size);
    if (!IsSound(found.classBegin, found.classEnd, length) ||
        !IsSound(found.functionBegin, found.functionEnd, length) || found.scope < -1 ||
        found.scope >= std::max(length, 1)) {
        abort();
    }
    return 0;
}
