#pragma once

#include <string>
#include <vector>

#include "Outcome.h"

namespace tsmon {

/// What was wrong with a file as a whole, a line each; nothing if it was read without damage to its
/// end, or to a signal to stop, and has services.
std::vector<std::string> ComplaintsOf(const Outcome& outcome);

} // namespace tsmon
