#include <signal.h>

#include <cstdio>
#include <cstring>

#include "Main.h"
#include "ZorServiceDebugOverlay.h"
#include "zor/Task.h"

namespace {

constexpr char LOG_TAG[] = "METER";
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

class Meter : public zor::Task<Meter>
{
 public:
    void Hang()
    {
        // The lambda waits for standard input, which nothing on a task's thread should do.
        const zor::Result<void> sent = Run([] { std::getchar(); });
        if (!sent) {
            ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_ERROR, "cannot hang: %s", zor::Text(sent.error()));
        }
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
                return;
        }
        std::fflush(stdout);
    }
}

} // namespace

int Main()
{
    Meter meter;
    zor::Setup setup;
    setup.watchdogTime = WATCHDOG_SECONDS;
    if (!g_signalsBlocked || !meter.Start("Meter", setup)) {
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
