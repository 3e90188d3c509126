#include "Real.h"
#include "Scheduler.h"
#include "Strategy.h"
#include "Trace.h"

/// What the header ZorSim.h and the memory points call.
using namespace zorsim;

ZOR_SIM_EXPORT void zor_sim_point(const char* name)
{
    if (Thread* const self = Self()) {
        AddRecord(self, Operation::POINT, nullptr, name);
        Step(self, Operation::POINT, nullptr, ZOR_SIM_CALLER);
    }
}

ZOR_SIM_EXPORT unsigned int zor_sim_choose(unsigned int count)
{
    return Self() != nullptr ? DecideNumber(count) : 0;
}

ZOR_SIM_EXPORT int zor_sim_is_active(void)
{
    return Self() != nullptr ? 1 : 0;
}

ZOR_SIM_EXPORT void zor_sim_expect_progress(double seconds)
{
    if (Self() != nullptr) {
        ExpectProgress(static_cast<std::int64_t>(seconds * NSEC_PER_SEC));
    }
}

ZOR_SIM_EXPORT void zor_sim_access(const void* address)
{
    if (Thread* const self = Self()) {
        Step(self, Operation::MEMORY, address, ZOR_SIM_CALLER);
    }
}
