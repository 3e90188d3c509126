#pragma once

#include <cstddef>
#include <ostream>

#include "Outcome.h"

namespace tsmon {

/// Prints what was found and counted as a table: the size of packets if it is not 188 bytes; for
/// each service a line with its figures, its packed id, and a line for each of its elementary
/// streams. No line is wider than @p width columns, at least 1.
void PrintTable(const Outcome& outcome, std::size_t width, std::ostream& out);

} // namespace tsmon
