#pragma once

#include <vector>

namespace zor::testing::internal {

/// A function of a library that the program defines itself.
struct TakenFunction
{
    const char* symbol; ///< as the dynamic linker knows it
    void* function;     ///< the program's
};

/// Those of the clocks and waits.
std::vector<TakenFunction> TakenFunctionsOfTime();

} // namespace zor::testing::internal
