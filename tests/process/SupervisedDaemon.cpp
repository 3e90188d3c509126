#include <unistd.h>

#include <cstdio>

#include "Main.h"
#include "Task.h"

// A daemon with two supervised tasks: one is paused, the other hangs in a handler until standard
// input ends.

namespace {

constexpr unsigned long STACK_SIZE = 256UL * 1024;
constexpr unsigned long WATCHDOG_SECONDS = 5;

class HangingTask : public TCTask
{
    bool t_OnUser(const TSEvent* /*event*/) override
    {
        dprintf(STDOUT_FILENO, "hanging\n");
        char ignored;
        while (read(STDIN_FILENO, &ignored, 1) > 0) {
        }
        return true;
    }
};

void End(TCTask* task)
{
    TSEvent event;
    event.receiver = task;
    event.type = TCTask::EVENT_EXIT;
    TCTask::Send(&event, false, false);
    task->Destroy();
}

} // namespace

int Main()
{
    TCTask paused;
    HangingTask hanging;
    if (!paused.Create("paused", 1000, STACK_SIZE, WATCHDOG_SECONDS) ||
        !hanging.Create("hanging", 1000, STACK_SIZE, WATCHDOG_SECONDS) || !paused.Pause()) {
        return 1;
    }
    TSEvent event;
    event.receiver = &hanging;
    event.type = TCTask::EVENT_USER;
    TCTask::Send(&event, true, false); // until standard input ends
    paused.ResumeAsync();
    End(&hanging);
    End(&paused);
    return 0;
}
