#include "Signals.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace tsmon {

namespace {

sigset_t OwnSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) {
        sigaddset(&signals, signal);
    }
    return signals;
}

} // namespace

bool Signals::Block()
{
    const sigset_t signals = OwnSignals();
    return signal(SIGPIPE, SIG_IGN) != SIG_ERR &&
           pthread_sigmask(SIG_BLOCK, &signals, nullptr) == 0;
}

Signals::Signals()
{
    const sigset_t signals = OwnSignals();
    m_file = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

Signals::~Signals()
{
    if (IsValid()) {
        close(m_file);
    }
}

std::optional<int> Signals::Take()
{
    signalfd_siginfo info = {};
    if (read(m_file, &info, sizeof(info)) != static_cast<ssize_t>(sizeof(info))) {
        return std::nullopt;
    }
    return static_cast<int>(info.ssi_signo);
}

const char* Signals::Name(int signal)
{
    switch (signal) {
        case SIGINT:
            return "SIGINT";
        case SIGTERM:
            return "SIGTERM";
        case SIGUSR1:
            return "SIGUSR1";
        case SIGUSR2:
            return "SIGUSR2";
        default:
            return "another signal";
    }
}

} // namespace tsmon
