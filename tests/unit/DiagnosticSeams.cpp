#include "DiagnosticSeams.h"

#include <execinfo.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

namespace zortest {

Seam<int(int, unsigned long, unsigned long)> prctlSeam("prctl");
Seam<int(void**, int)> backtraceSeam("backtrace");
Seam<char**(void* const*, int)> backtraceSymbolsSeam("backtrace_symbols");
Seam<long(long)> syscallSeam("syscall");
Seam<const TSAppData&(const TCDebugPrint*)> appDataSeam("_ZNK12TCDebugPrint10GetAppDataEv");

namespace {

Seam<long(long, long, long, long, long, long, long)> anySyscallSeam("syscall");

} // namespace
} // namespace zortest

extern "C" int prctl(int option, ...) noexcept
{
    va_list args;
    va_start(args, option);
    const unsigned long first = va_arg(args, unsigned long);
    const unsigned long second = va_arg(args, unsigned long);
    va_end(args);
    return zortest::prctlSeam(option, first, second);
}

extern "C" int backtrace(void** frames, int size)
{
    return zortest::backtraceSeam(frames, size);
}

extern "C" char** backtrace_symbols(void* const* frames, int size) noexcept
{
    return zortest::backtraceSymbolsSeam(frames, size);
}

// Reads as many arguments as any call has: more than there are, mostly, which an address sanitizer
// sees.
extern "C" __attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept
{
    if (number == SYS_gettid) {
        return zortest::syscallSeam(number);
    }
    va_list args;
    va_start(args, number);
    long values[6];
    for (long& value : values) {
        value = va_arg(args, long);
    }
    va_end(args);
    return zortest::anySyscallSeam(number, values[0], values[1], values[2], values[3], values[4],
                                   values[5]);
}

const TSAppData& TCDebugPrint::GetAppData() const
{
    return zortest::appDataSeam(this);
}
