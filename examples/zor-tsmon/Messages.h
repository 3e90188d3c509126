#pragma once

#include <atomic>
#include <cstdint>
#include <variant>

#include "Tables.h"
#include "Task.h"

/// @file
/// What the monitor's tasks send each other.
///
///   reader --- PACKETS, END ---> parser --- TABLE, END ---> services
///   anybody -- STOP ---> reader
///   anybody -- ASK ----> services, synchronously
///
/// Every event is flagged, so that a recording shows the sends and the handler calls of all tasks.

namespace tsmon {

enum EMessage : unsigned long
{
    MESSAGE_STEP = 0x100, ///< to the reader, from itself: go on
    MESSAGE_STOP,         ///< to the reader: read no more
    MESSAGE_PACKETS,      ///< attached: PacketBlock; to the parser, in the queue of its kind
    MESSAGE_END,          ///< no more will come
    MESSAGE_TABLE,        ///< attached: Table
    MESSAGE_ASK,          ///< attached: ServiceTable*, the asker's place for the answer
};

/// The queues of the parser, the more urgent first.
enum EParserQueue : unsigned int
{
    QUEUE_TABLES,  ///< packets that may carry tables
    QUEUE_STREAMS, ///< packets of elementary streams
    QUEUE_COUNT,
};

using Table = std::variant<ProgramAssociation, ProgramMap, ServiceDescriptions>;

/// Of every task, in bytes.
constexpr unsigned long STACK_SIZE = 256UL * 1024;

/// Seconds after which a task that does not get to its events is reported.
constexpr unsigned long WATCHDOG_TIME = 30;

/// Sends @p event, waiting as long as the receiver's queue is full. The receiver must be created,
/// and must not run on the calling thread.
///
/// @param refusals  counts how often the queue was found full; may be null
void SendPatiently(TSEvent& event, bool priority, std::atomic<std::uint64_t>* refusals = nullptr);

/// Ends a task, however full its queue is, and returns when it has ended.
void EndTask(TCTask& task);

} // namespace tsmon
