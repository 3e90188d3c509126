#pragma once

#include "Seam.h"

/// @file
/// The call by which a thread lets others go first.

namespace zortest {

extern Seam<int()> schedYieldSeam;

} // namespace zortest
