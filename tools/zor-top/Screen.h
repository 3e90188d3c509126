#pragma once

#include <string>

#include "Sampler.h"
#include "Table.h"

namespace zortop {

/// Shows the tasks on the terminal until the user ends it.
///
/// @param title  begins the first line
/// @param msec   from one look to the next
///
/// Throws Problem if there is no terminal that it can use, or the process has ended.
void RunScreen(Sampler* sampler, const std::string& title, int msec, Order order);

} // namespace zortop
