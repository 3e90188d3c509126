#pragma once

#include "Task.h"

namespace zortest {

/// The deprecated form of a ping, which is still to work.
inline bool DeprecatedPing(TCTask* task, unsigned long msec)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return task->Ping(msec);
#pragma GCC diagnostic pop
}

} // namespace zortest
