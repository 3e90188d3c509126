#pragma once

#include <cstddef>
#include <vector>

#include "Calls.h"
#include "TaskNames.h"

namespace zorrecord {

/// Finds threads that wait for each other in a circle: each has a synchronous send that has not
/// finished, to a task whose thread has one as well.
///
/// @return for each circle these sends, as indices of calls
std::vector<std::vector<std::size_t>> CirclesOf(const std::vector<Call>& calls,
                                                const TaskNames& names);

} // namespace zorrecord
