#include "Main.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Debug.h"
#include "Sync.h"
#include "TaskList.h"
#include "WatchdogNotifier.h"
#include "dlog.h"
#include "step_aside.h"

// A platform may be without it.
#pragma weak zor_note_step_aside

int gArgc = 0;
char** gArgv = nullptr;

namespace {

constexpr char PID_FILE[] = "/tmp/.zor-daemon.pid";
constexpr mode_t PID_FILE_MODE = 0600;
constexpr int PID_TEXT_SIZE = 128;
constexpr int PROFILING_OPTION = 666;

constexpr char LOG_TAG[] = "ZOR";
constexpr char LOG_MODULE[] = "ZOR_CORE";

// Names and lines that the entry's log lines carry. They are constants of the system and do not
// follow the source.
constexpr char IN_MAIN[] = "main";
constexpr char IN_WRITE_PID[] = "write_pid";
constexpr int LINE_OPEN_FAILED = 45;
constexpr int LINE_WRITE_FAILED = 56;
constexpr int LINE_PID_WRITTEN = 62;
constexpr int LINE_BANNER = 74;
constexpr int LINE_BUILD = 76;
constexpr int LINE_NOTICE = 80;
constexpr int LINE_EXITING = 90;
constexpr int LINE_START = 113;

void LogBanner()
{
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, LOG_TAG, "%s: %s(%d) > \n\t## Quillon (TM) 1.1 : %s ",
                 LOG_MODULE, IN_MAIN, LINE_BANNER, "DTP-SP-0085");
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, LOG_TAG, "%s: %s(%d) > (DEBUG)", LOG_MODULE, IN_MAIN,
                 LINE_BUILD);
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, LOG_TAG,
                 "%s: %s(%d) > Core runtime of the television service daemon", LOG_MODULE, IN_MAIN,
                 LINE_NOTICE);
}

/// Takes the places of the standard streams that the process was started without: a file that got
/// one of these descriptors, the pid file first of all, would be given what is printed and logged.
/// To read or write such a stream goes on failing with EBADF, for what takes its place is a path
/// that is not open for either; in the programs that the daemon starts as well. It must be nobody's
/// way out of a changed root directory, so the root is only taken where there is no null device,
/// and is kept from those programs.
void ReserveStandardStreams()
{
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) < 0) {
            // Gets this descriptor, the least that is free. If both fail, so does every open.
            if (open("/dev/null", O_PATH) < 0) {
                open("/", O_PATH | O_CLOEXEC);
            }
        }
    }
}

/// Makes the pid file, which is what keeps a second daemon from starting: the create is exclusive,
/// and the file is left behind at the end, by a clean one too.
///
/// @param error  gets the error number if it could not be made; 0 if it took only a part
bool WritePidFile(int* error)
{
    const int file = open(PID_FILE, O_RDWR | O_CREAT | O_EXCL, PID_FILE_MODE);
    if (file < 0) {
        *error = errno;
        __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, LOG_TAG, "%s: %s(%d) > failed to open (%s:%d)",
                     LOG_MODULE, IN_WRITE_PID, LINE_OPEN_FAILED, PID_FILE, *error);
        return false;
    }

    char text[PID_TEXT_SIZE];
    snprintf(text, sizeof(text), "%d", getpid());
    const int length = static_cast<int>(strlen(text));
    const int written = static_cast<int>(write(file, text, strlen(text)));
    if (written != length) {
        *error = written < 0 ? errno : 0;
        __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, LOG_TAG,
                     "%s: %s(%d) > failed to write (%d:%d)/len(%d)", LOG_MODULE, IN_WRITE_PID,
                     LINE_WRITE_FAILED, written, errno, length);
        close(file);
        remove(PID_FILE);
        return false;
    }
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, LOG_TAG, "%s: %s(%d) > pid written (%d)", LOG_MODULE,
                 IN_WRITE_PID, LINE_PID_WRITTEN, length);
    close(file);
    return true;
}

/// Steps aside for the instance that made the pid file, at once: no exit handler runs.
[[noreturn]] void StepAside(int error)
{
    PrintProfiling(PROFILING_OPTION, "ZOR pid file result %d", -1);
    if (zor_note_step_aside != nullptr) {
        zor_note_step_aside(PID_FILE, error);
    }
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, LOG_TAG, "%s: %s(%d) > Exiting...", LOG_MODULE, IN_MAIN,
                 LINE_EXITING);
    _exit(0);
}

/// Brings the services up. A failure of one leaves out the rest, and the application runs without
/// them.
void StartRuntime()
{
    try {
        TCSyncDet::Create();
        if (!TCTaskList::FlagInitialize()) {
            TCTaskList::m_mutex.Create();
        }
        TCWatchdogNotifier::Init();
    } catch (...) { // NOLINT(bugprone-empty-catch): required; the start goes on
    }
}

/// Takes the services down. A failure of one leaves the rest as they are.
void StopRuntime()
{
    try {
        TCWatchdogNotifier::Exit();
        if (TCSyncDet::FlagCreate()) {
            TCSyncDet::Destroy();
        }
        TCTaskList::Finalize();
    } catch (...) { // NOLINT(bugprone-empty-catch): required; Main()'s result counts
    }
}

} // namespace

ZOR_CORE_API int main(int argc, char** argv)
{
    gArgc = argc;
    gArgv = argv;
    ReserveStandardStreams();
    PrintProfiling(PROFILING_OPTION, "ZOR main begin");
    LogBanner();
    int error = 0;
    if (!WritePidFile(&error)) {
        StepAside(error);
    }
    PrintProfiling(PROFILING_OPTION, "ZOR pid file result %d", 0);
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, LOG_TAG, "%s: %s(%d) > QLN No sched_yield()", LOG_MODULE,
                 IN_MAIN, LINE_START);
    StartRuntime();
    const int result = Main();
    StopRuntime();
    return result;
}
