#pragma once

#include <functional>

#include "Task.h"
#include "Timer.h"

namespace tsmon {

/// A timer whose firings call @p callback on the thread of @p task.
///
/// The task should destroy it in t_Destroy(): then no callback is under way, and none comes any
/// more.
TCTimer MakeTimer(const TCTask& task, std::function<void()> callback);

} // namespace tsmon
