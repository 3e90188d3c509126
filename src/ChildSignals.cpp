#include "ChildSignals.h"

sigset_t zor::BlockSignals()
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    return before;
}

void zor::ResetSignals(SignalActions* before)
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) {
        // Is refused for the few that have nothing else.
        sigaction(number, &action, before != nullptr ? &(*before)[number] : nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

void zor::SetSignals(const SignalActions& actions)
{
    for (int number = 1; number < NSIG; ++number) {
        sigaction(number, &actions[number], nullptr);
    }
}
