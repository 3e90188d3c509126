#include "step_aside.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Notice.h"

namespace {

constexpr std::size_t NAME_SIZE = 64; ///< of a process; the kernel keeps less

/// Reads the beginning of a file as a text. Returns false, with errno set, if it cannot be read.
bool ReadText(const char* path, char* text, std::size_t size)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return false;
    }
    const ssize_t length = read(fd, text, size - 1);
    const int error = errno;
    close(fd);
    errno = error;
    text[length > 0 ? length : 0] = '\0';
    return length >= 0;
}

/// The process id that @p text begins with; 0 if that is none.
pid_t PidIn(const char* text)
{
    char* end = nullptr;
    errno = 0;
    const long number = strtol(text, &end, 10);
    const bool isWhole = end != text && (*end == '\0' || *end == '\n');
    return isWhole && errno == 0 && number > 0 && number == static_cast<pid_t>(number)
               ? static_cast<pid_t>(number)
               : 0;
}

/// Whether the process lives: one that has ended does not, though nobody may have waited for it
/// yet.
///
/// @param name  gets its name, NAME_SIZE bytes; empty if the system does not tell
bool Lives(pid_t pid, char* name)
{
    name[0] = '\0';
    if (kill(pid, 0) != 0 && errno == ESRCH) {
        return false;
    }
    char path[64];
    char line[512];
    snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
    if (!ReadText(path, line, sizeof(line))) {
        return kill(pid, 0) == 0 || errno == EPERM;
    }
    // "4711 (the name) S ...": the name may have brackets of its own.
    const char* const begin = strchr(line, '(');
    const char* const end = strrchr(line, ')');
    if (begin == nullptr || end == nullptr || end < begin || strlen(end) < 3) {
        return true;
    }
    snprintf(name, NAME_SIZE, "%.*s", static_cast<int>(end - begin - 1), begin + 1);
    const char state = end[2];
    return state != 'Z' && state != 'X';
}

} // namespace

extern "C" void zor_note_step_aside(const char* pidFile, int error)
{
    if (error != EEXIST) {
        zorhost::Notice("%s: the pid file %s cannot be made; nothing was started",
                        error != 0 ? strerror(error) : "no room", pidFile);
        return;
    }
    char text[32];
    if (!ReadText(pidFile, text, sizeof(text))) {
        zorhost::Notice(
            "the pid file %s is there already, and cannot be read: %s; nothing was "
            "started",
            pidFile, strerror(errno));
        return;
    }
    if (text[0] == '\0') { // made, and not written yet
        zorhost::Notice(
            "the pid file %s is there already, and empty: another start may be under way; nothing "
            "was started",
            pidFile);
        return;
    }
    const pid_t pid = PidIn(text);
    if (pid == 0) {
        zorhost::Notice(
            "the pid file %s is there already, and names no process; remove it to "
            "start this daemon",
            pidFile);
        return;
    }
    char name[NAME_SIZE];
    if (Lives(pid, name)) {
        zorhost::Notice("process %d%s%s%s lives and has the pid file %s; nothing was started",
                        static_cast<int>(pid), name[0] != '\0' ? " (" : "", name,
                        name[0] != '\0' ? ")" : "", pidFile);
    } else {
        zorhost::Notice(
            "process %d is gone and has left the pid file %s behind; remove it to "
            "start this daemon",
            static_cast<int>(pid), pidFile);
    }
}
