#pragma once

#include <atomic>

/// @file
/// Between the recorded program and what it takes over of the system.

namespace zortest {

extern std::atomic<bool> g_allocates;        ///< whether room for the recording is being made
extern std::atomic<bool> g_allocationGoesOn; ///< lets a hanging one go on

} // namespace zortest
