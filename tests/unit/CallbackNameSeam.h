#pragma once

#include <string>

#include "Seam.h"
#include "TCDebugPrint.h"

/// @file
/// The name of the callback that a thread shows.

namespace zortest {

extern Seam<void(TCDebugPrintZOR*, const std::string&)> setCallbackNameSeam;

} // namespace zortest
