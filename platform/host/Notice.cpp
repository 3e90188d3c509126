#include "Notice.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace zorhost {

void Notice(const char* fmt, ...)
{
    const int error = errno;
    char line[4096];
    const std::size_t room = sizeof(line) - 1; // for the line end
    const int head = snprintf(line, room, "%s: ", program_invocation_short_name);
    const std::size_t begin = std::min(static_cast<std::size_t>(std::max(head, 0)), room - 1);
    errno = error;
    va_list args;
    va_start(args, fmt);
    const int text = vsnprintf(line + begin, room - begin, fmt, args);
    va_end(args);
    std::size_t length = std::min(begin + static_cast<std::size_t>(std::max(text, 0)), room - 1);
    line[length++] = '\n';
    while (write(STDERR_FILENO, line, length) < 0 && errno == EINTR) {
    }
    errno = error;
}

} // namespace zorhost
