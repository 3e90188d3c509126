// A daemon that has made what a daemon makes, and then has nothing to do. With the argument "start"
// it ends as soon as the library has started.
#include <chrono>
#include <csignal>
#include <cstring>
#include <list>
#include <memory>

#include "Alarm.h"
#include "Main.h"
#include "Task.h"
#include "Timer.h"

namespace {

constexpr int TASKS = 20;
constexpr int ALARMS = 5;
constexpr int TIMERS = 50;

class IdleTask : public TCTask
{};

class SilentListener : public ITimerListener
{
    bool OnTimer(const TSEvent*, void*) override { return true; }
};

void WaitForSignal()
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    int which = 0;
    sigwait(&ends, &which);
}

int Idle()
{
    constexpr unsigned NEVER = ~0U;
    constexpr unsigned long STACK = 65536;
    constexpr unsigned long DAY = 24UL * 60 * 60 * 1000;

    std::list<IdleTask> tasks(TASKS);
    for (IdleTask& task : tasks) {
        if (!task.Create("idle", NEVER, STACK, 0)) {
            return 1;
        }
    }
    std::list<TCAlarm> alarms(ALARMS);
    for (TCAlarm& alarm : alarms) {
        if (!alarm.Create(&tasks.front(), DAY, 1)) {
            return 1;
        }
    }
    std::list<TCTimer> timers;
    for (int i = 0; i < TIMERS; ++i) {
        timers.emplace_back(ITimer::TimerHandlerParams{
            &tasks.front(), std::make_shared<SilentListener>(), nullptr, nullptr});
    }

    WaitForSignal();
    timers.clear();
    for (TCAlarm& alarm : alarms) {
        alarm.Destroy();
    }
    for (IdleTask& task : tasks) {
        TSEvent exit;
        exit.receiver = &task;
        exit.type = TCTask::EVENT_EXIT;
        TCTask::Send(&exit, false, false);
        task.Destroy();
    }
    return 0;
}

} // namespace

int Main()
{
    if (gArgc > 1 && strcmp(gArgv[1], "start") == 0) {
        return 0;
    }
    // Blocked here, so that the threads to come block it as well and only the wait takes it.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    return Idle();
}
