#pragma once

#include <future>

#include "Task.h"

/// What a requester attaches to an event to be answered through.
using TaskReply = ZORManagedEventData<std::promise<bool>>;

/// A request to a task's own handler.
TSEvent RequestTo(TCTask* task, TCTask::EEventType type);

/// Attaches a reply to @p request.
std::future<bool> AttachReply(TSEvent* request);

/// Waits at most @p msec milliseconds for @p answer; whatever it is counts.
bool IsAnsweredWithin(const std::future<bool>& answer, unsigned long msec);
