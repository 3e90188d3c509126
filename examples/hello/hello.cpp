#include <cstdio>

#include "Main.h"
#include "Task.h"

class Greeter : public TCTask
{
    bool t_OnUser(const TSEvent* event) override
    {
        std::printf("hello %u\n", event->param1);
        return true;
    }
};

int Main()
{
    Greeter greeter;
    if (!greeter.Create("Greeter", 1000 /* ms until t_Idle */, 65536 /* stack */,
                        0 /* no watchdog */)) {
        return 1;
    }
    TSEvent event;
    event.receiver = &greeter;
    event.type = TCTask::EVENT_USER;
    event.param1 = 42;
    TCTask::Send(&event, true /* wait */, false /* in order */);
    event.type = TCTask::EVENT_EXIT;
    TCTask::Send(&event, false, false);
    greeter.Destroy();
    if (std::fflush(stdout) != 0) {
        std::perror("hello: standard output");
        return 1;
    }
    return 0;
}
