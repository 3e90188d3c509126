#include "StuckThread.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "FunctionName.h"
#include "dlog.h"

namespace zorhost {
namespace {

constexpr char TAG[] = "ZOR_WATCHDOG";
constexpr long NSEC_PER_MSEC = 1000000;
constexpr long NSEC_PER_SEC = 1000 * NSEC_PER_MSEC;
constexpr int MAX_FRAMES = 64;

/// How long the processor time of the thread is watched, and how little of it is none. A spinning
/// thread gets more than this even among dozens of others; where it does not, it still wants to.
constexpr long WATCHED_MSEC = 100;
constexpr long BLOCKED_MSEC = 1;

/// How long the thread has to answer.
constexpr long ANSWER_MSEC = 300;

struct TSFrame
{
    void* address;
    char module[128];   ///< empty if it is not known
    char function[512]; ///< as the loader has it; likewise
    std::size_t moduleOffset;
    std::size_t functionOffset;
};

/// The one exchange with a stuck thread.
///
///   monitor: ASKED -- signal -- wait until NAMED or too late -- read if STACK or NAMED
///   thread:           handler: ASKED to BUSY -- backtrace -- STACK -- names -- NAMED
///
/// The monitor takes an unanswered question back (ASKED to IDLE), so that a late signal finds none.
/// A thread that got as far as BUSY owns the frames until NAMED; if it does not come back nobody is
/// asked again.
enum EExchange : int
{
    IDLE,
    ASKED,
    BUSY,
    STACK,
    NAMED,
};

std::atomic<int> g_exchange{IDLE};
std::atomic<pid_t> g_asked{0};
TSFrame g_frames[MAX_FRAMES];
int g_frameCount;

int g_signal; ///< 0: not chosen yet; -1: none is free

template <std::size_t SIZE>
void CopyText(char (&to)[SIZE], const char* from)
{
    std::strncpy(to, from, SIZE - 1);
    to[SIZE - 1] = '\0';
}

/// The loader's lock, which this takes, is recursive; if another thread keeps it, the monitor does
/// not wait for the names.
void NameFrame(TSFrame* frame)
{
    Dl_info info;
    if (dladdr(frame->address, &info) == 0) {
        return;
    }
    const auto address = reinterpret_cast<std::uintptr_t>(frame->address);
    if (info.dli_fname != nullptr) {
        CopyText(frame->module, info.dli_fname);
        frame->moduleOffset = address - reinterpret_cast<std::uintptr_t>(info.dli_fbase);
    }
    if (info.dli_sname != nullptr) {
        CopyText(frame->function, info.dli_sname);
        frame->functionOffset = address - reinterpret_cast<std::uintptr_t>(info.dli_saddr);
    }
}

/// Where the thread was when the signal came; 0 where it is not known how to tell.
std::uintptr_t InterruptedAt(const void* context)
{
    const auto& registers = static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
    return static_cast<std::uintptr_t>(registers.gregs[REG_RIP]);
#elif defined(__aarch64__)
    return static_cast<std::uintptr_t>(registers.pc);
#else
    static_cast<void>(registers);
    return 0;
#endif
}

/// How many frames of the stack are those of the question, and not of the thread.
int OwnFrames(void* const* stack, int count, std::uintptr_t interruptedAt)
{
    for (int i = 0; i < count; ++i) {
        if (reinterpret_cast<std::uintptr_t>(stack[i]) == interruptedAt) {
            return i;
        }
    }
    return 0;
}

void Answer(int, siginfo_t*, void* context)
{
    const int error = errno;
    int asked = ASKED;
    if (g_asked.load() == static_cast<pid_t>(syscall(SYS_gettid)) &&
        g_exchange.compare_exchange_strong(asked, BUSY)) {
        void* stack[MAX_FRAMES];
        const int all = backtrace(stack, MAX_FRAMES);
        const int own = OwnFrames(stack, all, InterruptedAt(context));
        const int count = all - own;
        for (int i = 0; i < count; ++i) {
            g_frames[i] = {};
            g_frames[i].address = stack[own + i];
        }
        g_frameCount = count;
        g_exchange.store(STACK);
        for (int i = 0; i < count; ++i) {
            NameFrame(&g_frames[i]);
        }
        g_exchange.store(NAMED);
    }
    errno = error;
}

/// Takes the highest real-time signal that has no handler, for good: a signal that is still on its
/// way must never meet the default action, which ends the process.
void ChooseSignal()
{
    void* unused[1];
    backtrace(unused, 1); // loads the unwinder, which a handler could not
    g_signal = -1;
    for (int number = SIGRTMAX; number >= SIGRTMIN && g_signal < 0; --number) {
        struct sigaction present = {};
        if (sigaction(number, nullptr, &present) != 0 || present.sa_handler != SIG_DFL) {
            continue;
        }
        struct sigaction action = {};
        action.sa_sigaction = Answer;
        action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
        sigfillset(&action.sa_mask);
        if (sigaction(number, &action, nullptr) == 0) {
            g_signal = number;
        }
    }
}

/// Whether the thread runs or would if a processor were free.
bool WantsProcessor(pid_t tid)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/task/%d/stat", static_cast<int>(tid));
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char text[128]; // id, name in brackets and state, and more
    const ssize_t size = read(fd, text, sizeof(text) - 1);
    close(fd);
    text[size < 0 ? 0 : size] = '\0';
    const char* const name = strrchr(text, ')');
    return name != nullptr && strncmp(name, ") R", 3) == 0;
}

/// The monitor's own clock is the kernel's, as everywhere in the supervisor.
long TimeOf(clockid_t clock)
{
    struct timespec now = {};
    return syscall(SYS_clock_gettime, clock, &now) == 0 ? now.tv_sec * NSEC_PER_SEC + now.tv_nsec
                                                        : -1;
}

void Sleep(long msec)
{
    struct timespec left = {0, msec * NSEC_PER_MSEC};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

/// Asks the thread for its stack.
///
/// @return how far it got; IDLE if it did not answer or nobody can be asked
EExchange Ask(pid_t tid)
{
    if (g_signal == 0) {
        ChooseSignal();
    }
    const int left = g_exchange.load(); // by the last thread; ASKED in the child of a fork
    if (g_signal < 0 || left == BUSY || left == STACK) {
        return IDLE;
    }
    g_asked.store(tid);
    g_exchange.store(ASKED);
    if (syscall(SYS_tgkill, getpid(), tid, g_signal) == 0) {
        const long deadline = TimeOf(CLOCK_MONOTONIC) + ANSWER_MSEC * NSEC_PER_MSEC;
        while (g_exchange.load() != NAMED && TimeOf(CLOCK_MONOTONIC) < deadline) {
            Sleep(1);
        }
    }
    int asked = ASKED;
    g_exchange.compare_exchange_strong(asked, IDLE);
    const int state = g_exchange.load();
    return state == STACK || state == NAMED ? static_cast<EExchange>(state) : IDLE;
}

void LogFrames(EExchange state)
{
    for (int i = 0; i < g_frameCount; ++i) {
        const TSFrame& frame = g_frames[i];
        if (state != NAMED || frame.module[0] == '\0') {
            __dlog_print(LOG_ID_MAIN, DLOG_ERROR, TAG, "  #%d %p", i, frame.address);
        } else if (frame.function[0] == '\0') {
            __dlog_print(LOG_ID_MAIN, DLOG_ERROR, TAG, "  #%d %s+0x%zx", i, frame.module,
                         frame.moduleOffset);
        } else {
            char name[sizeof(frame.function)];
            WriteFunctionName(frame.function, name, sizeof(name));
            __dlog_print(LOG_ID_MAIN, DLOG_ERROR, TAG, "  #%d %s+0x%zx (%s+0x%zx)", i, frame.module,
                         frame.moduleOffset, name, frame.functionOffset);
        }
    }
}

} // namespace

void LogStuckThread(const char* name, pid_t tid, clockid_t cpuClock)
{
    const long before = TimeOf(cpuClock);
    Sleep(WATCHED_MSEC);
    const long after = TimeOf(cpuClock);
    if (before < 0 || after < 0) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, TAG, "'%s' (%d) has ended meanwhile", name,
                     static_cast<int>(tid));
        return;
    }
    const long usedMsec = (after - before) / NSEC_PER_MSEC;
    const bool spins = usedMsec > BLOCKED_MSEC || WantsProcessor(tid);
    const EExchange state = Ask(tid);
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, TAG,
                 "'%s' (%d) is %s: it used %ld ms of processor time in %ld ms; %s", name,
                 static_cast<int>(tid), spins ? "spinning" : "blocked", usedMsec, WATCHED_MSEC,
                 state == IDLE ? "it gives no stack, for it does not take signals" : "its stack:");
    if (state != IDLE) {
        LogFrames(state);
    }
}

} // namespace zorhost
