#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <utility>
#include <variant>

#include "Tables.h"
#include "Task.h"

/// @file
/// What the monitor's tasks send each other.
///
///   reader --- PACKETS, END ---> parser --- TABLE, SECOND, END ---> services
///   state alarm -- TICK -> parser, once a second
///   anybody -- STOP ---> reader
///   anybody -- ASK ----> services, parser, synchronously
///
/// Every event is flagged, so that a recording shows the sends and the handler calls of all tasks.

namespace tsmon {

enum EMessage : unsigned long
{
    MESSAGE_STEP = 0x100, ///< to the reader, from itself: go on
    MESSAGE_STOP,         ///< to the reader: read no more
    MESSAGE_PACKETS,      ///< attached: Batch; to the parser, in the queue of its kind
    MESSAGE_END,          ///< no more will come
    MESSAGE_TICK,         ///< to the parser, from its alarm: a second has passed
    MESSAGE_TABLE,        ///< attached: Table
    MESSAGE_SECOND,       ///< attached: StreamStatistics of what came since the tick before
    MESSAGE_ASK, ///< attached: Answer*, the asker's place for a ServiceTable or TickStatistics
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

/// Asks @p task, which must not run on the calling thread, and waits for its answer.
///
/// @param priority  whether the question overtakes what is queued
/// @return nothing if the task's queue is full
template <class Answer>
std::optional<Answer> Ask(TCTask& task, bool priority)
{
    Answer answer;
    TSEvent event;
    event.receiver = &task;
    event.type = MESSAGE_ASK;
    event.flag = true;
    event.setWrappedData(&answer);
    return TCTask::Send(&event, true, priority) ? std::optional(std::move(answer)) : std::nullopt;
}

/// Answers a question: puts a copy of @p answer where the asker, who waits, wants it.
template <class Answer>
void Reply(const TSEvent& question, const Answer& answer)
{
    using Place = ZORManagedEventData<Answer*>;
    if (const auto* place = dynamic_cast<Place*>(question.wrappedData.get())) {
        *place->data = answer;
    }
}

/// Ends a task, however full its queue is, and returns when it has ended.
void EndTask(TCTask& task);

} // namespace tsmon
