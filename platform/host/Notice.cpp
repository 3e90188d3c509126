#include "Notice.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace zorhost {
namespace {

/// Writes without being ended by a pipe that nobody reads any more.
void WriteLine(const char* line, std::size_t length)
{
    sigset_t pipe;
    sigset_t pending;
    sigset_t before;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, &pipe, &before);
    ssize_t written = 0;
    do {
        written = write(STDERR_FILENO, line, length);
    } while (written < 0 && errno == EINTR);
    if (written < 0 && errno == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
        const timespec now = {};
        sigtimedwait(&pipe, nullptr, &now);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace

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
    WriteLine(line, length);
    errno = error;
}

} // namespace zorhost
