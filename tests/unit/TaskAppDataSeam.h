#pragma once

#include "Seam.h"
#include "TCDebugPrint.h"

/// @file
/// A sender's application data, which every put into a queue asks for before it queues.

namespace zortest {

extern Seam<const TSAppData&(const TCDebugPrint*)> getAppDataSeam;

} // namespace zortest
