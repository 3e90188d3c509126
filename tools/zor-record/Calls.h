#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "EventFields.h"
#include "Reader.h"

namespace zorrecord {

/// What a call site is, by its arguments.
enum class Shape
{
    SEND,     ///< event, synchronous, priority, and perhaps a queue
    HANDLING, ///< event
    OTHER,
};

Shape ShapeOf(const Location& location);

/// One call: its two records brought together.
struct Call
{
    static constexpr std::size_t NONE = ~std::size_t{0};

    const Record* record = nullptr;     ///< the one before the call; lives as long as the recording
    const Location* location = nullptr; ///< null if the file does not describe it
    Shape shape = Shape::OTHER;

    /// The arguments of a SEND or HANDLING; no event if it was null.
    std::optional<EventFields> event;
    bool sync = false;
    bool priority = false;
    unsigned int queue = 0;

    std::uint64_t beginNsec = 0;
    /// Of a call that is not finished: the end of the call around it, of the process, or the moment
    /// of reading; of a process that was killed, its last record.
    std::uint64_t endNsec = 0;
    bool finished = false;
    const Record* after = nullptr;        ///< of a finished call, the record behind it
    std::optional<bool> result;           ///< of a finished call
    std::optional<std::uint64_t> cpuNsec; ///< likewise

    std::size_t caller = NONE; ///< index of the call around it on the same thread
};

/// The calls of a recording whose beginning it has, in the order of their beginning. A call that
/// an exception ended is not finished.
std::vector<Call> CallsOf(const Recording& recording);

} // namespace zorrecord
