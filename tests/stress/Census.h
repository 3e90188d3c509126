#pragma once

#include <cstddef>
#include <optional>

namespace storm {

/// What the process has of the system.
struct Census
{
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    std::size_t heap = 0;     ///< bytes in use; 0 if the allocator does not say, as a sanitizer's
    std::size_t resident = 0; ///< bytes of memory
};

/// Counts now. The directory that it looks into for descriptors is among them.
Census TakeCensus();

/// What one round may leave on the heap: caches of threads that live on, and room that containers
/// of the library keep. One leaked event, task or promise of a thousand makes far more.
constexpr std::size_t HEAP_TOLERANCE = 256 * 1024;

/// Counts when the last thread of a round has gone, which the round must have ended.
/// @return nothing if one is still there after a generous time
std::optional<Census> TakeCensusBetweenRounds();

/// Waits until nothing is left of what has come since @p before. The kernel may list a thread for a
/// moment after it has been waited for.
/// @param after  where to store the last count
/// @return false if something is still there after a generous time
bool WaitForCensus(const Census& before, Census* after);

} // namespace storm
