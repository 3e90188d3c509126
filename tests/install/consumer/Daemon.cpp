#include <cstdio>

#include "Main.h"
#include "Task.h"
#include "dlog.h"

class Counter : public TCTask
{
    bool t_OnUser(const TSEvent* event) override
    {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "CONSUMER", "handling %u", event->param1);
        std::printf("counted %u\n", event->param1);
        return true;
    }
};

int Main()
{
    Counter counter;
    if (!counter.Create("Counter", 1000, 65536, 0)) {
        return 1;
    }
    TSEvent event;
    event.receiver = &counter;
    event.type = TCTask::EVENT_USER;
    event.param1 = 7;
    const bool sent = TCTask::Send(&event, true, false);
    event.type = TCTask::EVENT_EXIT;
    TCTask::Send(&event, false, false);
    counter.Destroy();
    return sent ? 0 : 1;
}
