// What zor-top looks at in the tests: a daemon that knows its own numbers and says them.
//
//   zor-counting-daemon MODE
//
// It writes a line "task NAME THREAD" for each task, then "ready". It answers lines of its standard
// input, and ends with that, so that no test can leave one behind.

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Alarm.h"
#include "MultiQTask.h"
#include "Sync.h"
#include "Task.h"
#include "Timer.h"
#include "zor/testing/Wait.h"

/// The runtime imports the application's Main(); its own main() is not the one that runs here.
__attribute__((visibility("default"))) int Main()
{
    return 0;
}

namespace {

using zor::testing::Gate;
using Body = std::function<void()>;

constexpr unsigned int LONG_MSEC = 600 * 1000;
constexpr unsigned long STACK_SIZE = 64 * 1024;

void Say(const std::string& line)
{
    std::cout << line << std::endl;
}

/// Runs what is attached to its events.
class Tuner : public TCHandler
{
 public:
    explicit Tuner(TCTask* task) { TCHandler::Create(task); }

    bool t_OnEvent(const TSEvent* event) override
    {
        if (const auto* body = dynamic_cast<ZORManagedEventData<Body>*>(event->wrappedData.get())) {
            body->data();
        }
        return true;
    }
};

/// A task with a tuner. Tasks are not taken down: the process ends with them.
class Worker : public TCTask
{
 public:
    explicit Worker(const std::string& name, unsigned long watchdogSec = 0) : m_tuner(this)
    {
        TCTask::Create(name.c_str(), LONG_MSEC, STACK_SIZE, watchdogSec);
        Gate known;
        Run(1, [&] {
            Say("task " + name + " " + std::to_string(syscall(SYS_gettid)));
            known.Pass();
        });
        known.Wait();
    }

    /// Has the tuner handle an event of that type.
    ///
    /// @return false if the queue is full
    bool Run(unsigned long type, Body body, bool wait = false)
    {
        TSEvent event;
        event.receiver = &m_tuner;
        event.type = type;
        if (body) {
            event.setWrappedData(std::move(body));
        }
        return TCTask::Send(&event, wait, false);
    }

 private:
    Tuner m_tuner;
};

Worker& NewWorker(const std::string& name, unsigned long watchdogSec = 0)
{
    return *new Worker(name, watchdogSec);
}

/// Says that the state is reached, and answers until the input ends.
void Serve(const std::function<void(int)>& answer)
{
    Say("ready");
    for (std::string line; std::getline(std::cin, line);) {
        answer(std::atoi(line.c_str()));
    }
}

void Idle()
{
    Serve([](int) {});
}

/// As many events as the line says are handled.
void Count()
{
    Worker& worker = NewWorker("Counter");
    Serve([&](int number) {
        for (int i = 0; i < number; ++i) {
            worker.Run(7, {}, true);
        }
        Say("done");
    });
}

/// A task is held in a handler, and its queue filled until it refuses.
void Fill()
{
    Worker& worker = NewWorker("Filled");
    Gate begun;
    static Gate never; // passed by nobody
    worker.Run(100, [&] {
        begun.Pass();
        for (;;) {
            never.Wait();
        }
    });
    begun.Wait();
    int queued = 0;
    while (worker.Run(7, {})) {
        ++queued;
    }
    Say("queued " + std::to_string(queued));
    Serve([&](int number) {
        for (int i = 0; i < number; ++i) {
            worker.Run(7, {});
        }
        Say("done");
    });
}

/// Two tasks that wait for each other: one for a reply, the other for a mutex that the first holds.
void Circle()
{
    static std::mutex mutex;
    static Gate held;
    static Gate begun;
    Worker& first = NewWorker("First");
    Worker& second = NewWorker("Second");
    first.Run(300, [&] {
        mutex.lock();
        held.Pass();
        begun.Wait();
        second.Run(301, {}, true);
    });
    held.Wait();
    second.Run(302, [] {
        begun.Pass();
        mutex.lock();
    });
    begun.Wait();
    Idle();
}

/// A paused task with an event, one that spins, one of several queues, timers, alarms, and the
/// registry held.
void Various()
{
    Worker& paused = NewWorker("Paused", 30);
    Worker& spinner = NewWorker("Spinner");
    static std::atomic<bool> spins{true};
    spinner.Run(101, [] {
        while (spins) {
        }
    });
    auto& several = *new TCMultiQTask;
    several.Create("Several", 1000, STACK_SIZE, 3, 0);
    for (const unsigned int queue : {1u, 2u, 2u}) {
        TSEvent event;
        event.receiver = &several;
        event.type = TCTask::EVENT_USER;
        TCMultiQTask::Send(&event, true, false, queue);
    }
    paused.Pause();
    paused.Run(7, {});
    ITimer::TimerHandlerParams params;
    params.task = &paused;
    auto& running = *new TCTimer(params);
    auto& halted = *new TCTimer(params);
    auto& unused = *new TCTimer(params);
    static_cast<void>(unused);
    running.Restart(std::chrono::hours(1), 1);
    halted.Restart(std::chrono::hours(2), 1);
    halted.Pause();
    (new TCAlarm)->Create(&paused, 60000, 1);
    (new TCAlarm)->Create(&paused, 60000, 0);
    TCTaskList::m_mutex.Lock();
    Idle();
}

void Many()
{
    for (int i = 0; i < 200; ++i) {
        NewWorker("Worker" + std::to_string(i));
    }
    Idle();
}

const std::map<std::string, void (*)()> MODES = {
    {"idle", Idle}, {"count", Count},   {"fill", Fill},
    {"many", Many}, {"circle", Circle}, {"various", Various},
};

} // namespace

int main(int argc, char** argv)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Where the kernel lets only ancestors look into a process, this one lets everybody.
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    const auto mode = MODES.find(argc > 1 ? argv[1] : "");
    if (mode == MODES.end() || !TCSyncDet::Create() || !TCTaskList::m_mutex.Create()) {
        return EXIT_FAILURE;
    }
    mode->second();
    std::_Exit(EXIT_SUCCESS);
}
