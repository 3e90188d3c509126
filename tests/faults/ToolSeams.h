#pragma once

#include <csignal>

#include "Seam.h"

namespace zortest {

/// Dispositions of signals, and closing files.
extern Seam<sighandler_t(int, sighandler_t)> signalSeam;
extern Seam<int(int)> closeSeam;

} // namespace zortest
