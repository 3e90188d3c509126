#pragma once

#include <cstdint>
#include <tl/expected.hpp>

namespace zor {

/// Why a message was not queued, or why there is no answer to it.
enum class Error : std::uint8_t
{
    QUEUE_FULL,   ///< the task's queue had no room: nothing was queued
    DROPPED,      ///< the same, of a message that was sent to be dropped then
    NO_TASK,      ///< the task is not created, or its loop has ended: nobody will handle it
    PAUSED,       ///< the task is paused: nothing was queued
    NOT_ANSWERED, ///< the deadline has passed; the message may still be handled
    DELETED,      ///< the request was deleted from the queue before it was handled
    THREW,        ///< the handler threw; the log has a line about it
    OWN_TASK,     ///< the task would have waited for itself: nothing was queued
    NO_ASKER,     ///< the calling thread is not that of a zor::Task, which an answer could go to
    NO_MEMORY,    ///< nothing to wait for an answer with could be made: nothing was queued
};

/// An error's name, as it stands in the source; "?" for a number that is none.
constexpr const char* Name(Error error)
{
    switch (error) {
        case Error::QUEUE_FULL:
            return "QUEUE_FULL";
        case Error::DROPPED:
            return "DROPPED";
        case Error::NO_TASK:
            return "NO_TASK";
        case Error::PAUSED:
            return "PAUSED";
        case Error::NOT_ANSWERED:
            return "NOT_ANSWERED";
        case Error::DELETED:
            return "DELETED";
        case Error::THREW:
            return "THREW";
        case Error::OWN_TASK:
            return "OWN_TASK";
        case Error::NO_ASKER:
            return "NO_ASKER";
        case Error::NO_MEMORY:
            return "NO_MEMORY";
    }
    return "?";
}

/// An error in words for a log line, without a full stop; "unknown error" for a number that is
/// none.
constexpr const char* Text(Error error)
{
    switch (error) {
        case Error::QUEUE_FULL:
            return "the task's queue is full";
        case Error::DROPPED:
            return "the task's queue is full and the message was dropped";
        case Error::NO_TASK:
            return "the task is not created or has ended";
        case Error::PAUSED:
            return "the task is paused";
        case Error::NOT_ANSWERED:
            return "no answer came in time";
        case Error::DELETED:
            return "the request was deleted from the task's queue";
        case Error::THREW:
            return "the handler threw";
        case Error::OWN_TASK:
            return "a task cannot wait for itself";
        case Error::NO_ASKER:
            return "the calling thread is not that of a task of this kind";
        case Error::NO_MEMORY:
            return "no memory to wait for an answer with";
    }
    return "unknown error";
}

/// A value, or why there is none. `if (result)` tells which; `*result` and `result->member` are the
/// value, `result.error()` the reason. Result<void> says only whether something was done.
///
/// Taking the value of a result without one is undefined for `*` and `->`; `result.value()` throws
/// tl::bad_expected_access<Error> instead. A value whose move throws ends the process.
template <typename T>
using Result = tl::expected<T, Error>;

} // namespace zor
