#pragma once

#include "ZorServiceDebugOverlay.h"
#include "dlog.h"

namespace tsmon {

/// The tag of everything that the monitor logs.
constexpr const char* LOG_TAG = "ZOR_TSMON";

} // namespace tsmon
