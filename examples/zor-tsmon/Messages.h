#pragma once

#include <chrono>

#include "zor/Task.h"

/// @file
/// What the monitor's tasks send each other.
///
///   reader --- PACKETS, END ---> parser --- tables, StreamStatistics, TablesEnd ---> services
///   state alarm -- TICK -> parser, once a second
///   monitor -- NoMore ---> reader
///   display -- ASK ------> parser, synchronously
///
/// The parser has two queues, and events that are filled by hand; what the others take are types.
/// Every event is flagged, so that a recording shows the sends and the handler calls of all tasks.

namespace tsmon {

/// Types of the parser's events.
enum EMessage : unsigned long
{
    MESSAGE_PACKETS = 0x100, ///< attached: Batch; in the queue of its kind
    MESSAGE_END,             ///< no more will come
    MESSAGE_TICK,            ///< from its alarm: a second has passed
    MESSAGE_ASK,             ///< attached: TickStatistics*, the asker's place for the answer
};

/// The queues of the parser, the more urgent first.
enum EParserQueue : unsigned int
{
    QUEUE_TABLES,  ///< packets that may carry tables
    QUEUE_STREAMS, ///< packets of elementary streams
    QUEUE_COUNT,
};

/// Of every task, in bytes.
constexpr unsigned long STACK_SIZE = 256UL * 1024;

/// Seconds after which a task that does not get to its events is reported.
constexpr unsigned long WATCHDOG_TIME = 30;

/// For what must arrive: a full queue is waited for, however long that takes.
constexpr std::chrono::milliseconds FOR_EVER = std::chrono::milliseconds::max();

/// Ends a task, however full its queue is, and returns when it has ended.
void EndTask(TCTask& task);

} // namespace tsmon
