#include <cstdio>

#include "Main.h"
#include "Task.h"

namespace {

constexpr unsigned int IDLE_MSEC = 1000;
constexpr unsigned long STACK_SIZE = 256UL * 1024;

class Meter : public TCTask
{
    bool t_Create() override
    {
        std::puts("Meter: ready");
        return true;
    }

    bool t_OnUser(const TSEvent* event) override
    {
        std::printf("Meter: tuned to channel %u\n", event->param1);
        return true;
    }

    void t_Destroy() override { std::puts("Meter: gone"); }
};

void Tune(Meter* meter, unsigned int channel, bool wait)
{
    TSEvent event;
    event.receiver = meter;
    event.type = TCTask::EVENT_USER;
    event.param1 = channel;
    TCTask::Send(&event, wait, false /* in order */);
}

void End(TCTask* task)
{
    TSEvent event;
    event.receiver = task;
    event.type = TCTask::EVENT_EXIT;
    TCTask::Send(&event, false /* do not wait */, false /* in order */);
    task->Destroy();
}

} // namespace

int Main()
{
    Meter meter;
    if (!meter.Create("Meter", IDLE_MSEC, STACK_SIZE, 0 /* no watchdog */)) {
        return 1;
    }
    Tune(&meter, 21, false);
    Tune(&meter, 22, true);
    std::puts("Main: the meter has seen both");
    End(&meter);
    return 0;
}
