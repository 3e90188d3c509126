#pragma once

#include <sys/times.h>

#include "Seam.h"

/// @file
/// The clock ticks of the system.

namespace zortest {

extern Seam<clock_t(tms*)> timesSeam;

/// Asked for `_SC_CLK_TCK` only.
extern Seam<long(int)> sysconfSeam;

} // namespace zortest
