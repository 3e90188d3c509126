#pragma once

#include "Task.h"

/// A task that is asked to do one thing, and ends when it is told to.
class Worker : public TCTask
{
 public:
    bool Start(const char* name) { return Create(name, IDLE_MSEC, STACK_SIZE, 0); }

    void Ask(bool wait)
    {
        TSEvent event;
        event.receiver = this;
        event.type = EVENT_USER;
        Send(&event, wait, false);
    }

    /// What was asked before is done before.
    void End()
    {
        TSEvent event;
        event.receiver = this;
        event.type = EVENT_EXIT;
        Send(&event, false, false);
        Destroy();
    }

 private:
    static constexpr unsigned int IDLE_MSEC = 1000;
    static constexpr unsigned long STACK_SIZE = 65536;
};
