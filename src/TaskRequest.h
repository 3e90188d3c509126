#pragma once

#include <future>

#include "Task.h"

namespace zor {

/// What a requester attaches to an event to be answered through.
using TaskReply = ZORManagedEventData<std::promise<bool>>;

/// A request to a task's own handler.
TSEvent RequestTo(TCTask* task, TCTask::EEventType type);

/// Attaches a reply to @p request.
std::future<bool> AttachReply(TSEvent* request);

/// Sends @p request ahead of the ordinary events and lets go of the sender's share of the reply: a
/// request that is deleted from the queue then breaks its promise, instead of leaving the requester
/// to wait for it.
bool SendRequest(TSEvent* request);

/// Waits at most @p msec milliseconds for @p answer; whatever it is counts.
bool IsAnsweredWithin(const std::future<bool>& answer, unsigned long msec);

} // namespace zor
