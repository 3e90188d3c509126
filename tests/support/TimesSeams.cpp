#include "TimesSeams.h"

#include <unistd.h>

namespace zortest {

Seam<clock_t(tms*)> timesSeam("times");
Seam<long(int)> sysconfSeam("sysconf");

} // namespace zortest

extern "C" {

/// The C library's own name for sysconf().
long __sysconf(int name) noexcept;

clock_t times(tms* buffer) noexcept
{
    return zortest::timesSeam(buffer);
}

// Nothing instrumented: the thread sanitizer asks on threads that it does not know yet, and must
// not be called back from there.
__attribute__((no_sanitize("thread"))) long sysconf(int name) noexcept
{
    return name == _SC_CLK_TCK ? zortest::sysconfSeam(name) : __sysconf(name);
}
}
