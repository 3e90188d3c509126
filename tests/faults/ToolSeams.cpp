#include "ToolSeams.h"

#include <unistd.h>

namespace zortest {

Seam<sighandler_t(int, sighandler_t)> signalSeam("signal");
Seam<int(int)> closeSeam("close");

} // namespace zortest

extern "C" sighandler_t signal(int number, sighandler_t handler) noexcept
{
    return zortest::signalSeam(number, handler);
}

extern "C" int close(int file)
{
    return zortest::closeSeam(file);
}
