#include "YieldSeam.h"

#include <sched.h>

namespace zortest {

Seam<int()> schedYieldSeam("sched_yield");

} // namespace zortest

extern "C" int sched_yield() noexcept
{
    return zortest::schedYieldSeam();
}
