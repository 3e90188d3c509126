#pragma once

#include <cstdint>

#include "Scheduler.h"

/// What the driver shows of a run.
namespace zorsim {

/// Adds a step to the trace, if there is one.
void AddRecord(const Thread* self, Operation operation, const void* object, const char* text);

/// Says in the report what every thread does, and where the code of the process lies.
void ShowThreads();

} // namespace zorsim
