#pragma once

namespace workloads {

/// Sections of single operations on one thread: puts, gets, gives, takes.
void MeasureOperations();

/// The time that a cache line needs from one processor to another; nothing is printed on one
/// processor.
void MeasureHandover();

/// @p pairs pairs of tasks, each with a token that goes back and forth, @p hops together; the
/// handler computes for @p handlerNsec. If @p records, the sections are measured, which takes its
/// time.
void MeasurePairs(long pairs, long hops, long handlerNsec, bool records);

/// Sections of a synchronous send to a task that has nothing else to do, both sides together.
void MeasureCalls(long calls);

} // namespace workloads
