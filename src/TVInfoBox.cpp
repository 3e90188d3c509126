#include "TVInfoBox.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "ChildSignals.h"
#include "ZorFunctionIndices.h"
#include "dlog.h"

namespace {

constexpr char PROGRAM[] = "/usr/bin/infobox";
constexpr char PROGRAM_NAME[] = "infobox";
constexpr unsigned int MAX_X = 1920;
constexpr unsigned int MAX_Y = 1080;

constexpr size_t LONGEST_TEXT = 998;

/// What is handed to the program, complete before the child is made: between vfork() and execl() a
/// child may do next to nothing.
struct Box
{
    char x[5]; ///< at most four digits
    char y[5];
    char text[1000]; ///< one more than is ever used: a text is cut to LONGEST_TEXT and its end
};

/// Shows a text.
///
/// @param last  a further argument of the program, or null
void Show(unsigned int x, unsigned int y, const char* last, const char* fmt, va_list args)
{
    const int error = errno;
    Box box = {};
    snprintf(box.x, sizeof(box.x), "%d", static_cast<int>(x <= MAX_X ? x : 0));
    snprintf(box.y, sizeof(box.y), "%d", static_cast<int>(y <= MAX_Y ? y : 0));
    vsnprintf(box.text, LONGEST_TEXT + 1, fmt, args);
    signal(SIGCHLD, SIG_IGN);
    const sigset_t before = zor::BlockSignals();
    // The parent goes on once the child has started the program or ended.
    if (vfork() == 0) { // NOLINT(clang-analyzer-security.insecureAPI.vfork)
        // All three only tell the kernel something: of the parent's memory only errno is changed.
        zor::ResetSignals(nullptr); // NOLINT(clang-analyzer-unix.Vfork)
        close(STDIN_FILENO);        // NOLINT(clang-analyzer-unix.Vfork)
        close(STDOUT_FILENO);       // NOLINT(clang-analyzer-unix.Vfork)
        execl(PROGRAM, PROGRAM_NAME, box.text, box.x, box.y, last, static_cast<char*>(nullptr));
        _exit(1);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error; // the child, which shares it, has failed at what the kernel refuses
}

} // namespace

void show_message_box(unsigned int x, unsigned int y, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    Show(x, y, nullptr, fmt, args);
    va_end(args);
}

void create_message_box(unsigned int x, unsigned int y, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    Show(x, y, "1", fmt, args);
    va_end(args);
}

void destroy_message_box()
{
    const int status = system("/usr/bin/pkill -f /usr/bin/infobox");
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, nullptr, "%s: %s(%d) > result of killing infobox:%d",
                 zor::BaseName(__FILE__), __func__, __LINE__, status);
}
