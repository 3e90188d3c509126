#include <signal.h>

#include <cstdio>
#include <cstring>

#include "Main.h"
#include "Task.h"
#include "ZorServiceDebugOverlay.h"

namespace {

constexpr char LOG_TAG[] = "METER";
constexpr unsigned int IDLE_MSEC = 1000;
constexpr unsigned long STACK_SIZE = 256UL * 1024;
constexpr unsigned long WATCHDOG_SECONDS = 5;

sigset_t OwnSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) {
        sigaddset(&signals, signal);
    }
    return signals;
}

/// Before Main() there is a thread of the runtime's already, which must not be hit either.
const bool g_signalsBlocked = [] {
    const sigset_t signals = OwnSignals();
    return pthread_sigmask(SIG_BLOCK, &signals, nullptr) == 0;
}();

int NextSignal()
{
    const sigset_t signals = OwnSignals();
    int signal = 0;
    return sigwait(&signals, &signal) == 0 ? signal : SIGTERM;
}

class Meter : public TCTask
{
 public:
    bool Start() { return Create("Meter", IDLE_MSEC, STACK_SIZE, WATCHDOG_SECONDS); }

    void Hang() { Tell(EVENT_USER); }

    void End()
    {
        Tell(EVENT_EXIT);
        Destroy();
    }

 private:
    void Tell(unsigned long type)
    {
        TSEvent event;
        event.receiver = this;
        event.type = type;
        if (!Send(&event, false, false)) {
            ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_ERROR, "event %lu is lost: the queue is full",
                           type);
        }
    }

    bool t_OnUser(const TSEvent* /*event*/) override
    {
        std::getchar(); // waits for standard input, which no handler should do
        return true;
    }
};

void Serve(Meter* meter)
{
    for (;;) {
        switch (NextSignal()) {
            case SIGUSR1:
                std::puts(meter->Pause() ? "Main: paused" : "Main: cannot be paused");
                break;
            case SIGUSR2:
                std::puts(meter->ResumeAsync() ? "Main: resumed" : "Main: was not paused");
                break;
            default:
                if (meter->IsPaused()) {
                    meter->ResumeAsync();
                }
                return;
        }
        std::fflush(stdout);
    }
}

} // namespace

int Main()
{
    Meter meter;
    if (!g_signalsBlocked || !meter.Start()) {
        return 1;
    }
    ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO, "serving");
    std::puts("Main: serving");
    std::fflush(stdout);
    if (gArgc > 1 && std::strcmp(gArgv[1], "--hang") == 0) {
        meter.Hang();
    }
    Serve(&meter);
    meter.End();
    std::puts("Main: stopped");
    return 0;
}
