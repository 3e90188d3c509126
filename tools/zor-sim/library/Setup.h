#pragma once

#include "../Report.h"

namespace zorsim {

/// The report that the driver has made for this process; the settings of it, for nobody to read
/// further, in a program that the simulated one has executed; null without a driver. Called once,
/// before any library is initialised.
Report* MapReport();

} // namespace zorsim
