#pragma once

#include "Seam.h"
#include "TCDebugPrint.h"

/// @file
/// What a report of a failed assertion asks the system and the platform for.

namespace zortest {

/// A call of prctl; the last two arguments of the system's are never used.
extern Seam<int(int, unsigned long, unsigned long)> prctlSeam;
extern Seam<int(void**, int)> backtraceSeam;
extern Seam<char**(void* const*, int)> backtraceSymbolsSeam;
/// A call of syscall without arguments, such as SYS_gettid; others go past it.
extern Seam<long(long)> syscallSeam;
extern Seam<const TSAppData&(const TCDebugPrint*)> appDataSeam;

} // namespace zortest
