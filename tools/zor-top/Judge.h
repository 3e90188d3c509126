#pragma once

#include <vector>

#include "Report.h"

namespace zortop {

/// What of a report deserves a look, each in one line, the worst first: deadlocks; handlers that
/// have run for over a second; queues that are more than three quarters full; puts that were
/// refused since the last look; events that wait while their task sleeps; and tasks that have
/// handled nothing, not even a ping, for longer than their watchdog time.
std::vector<Notice> Judge(const Report& report);

} // namespace zortop
