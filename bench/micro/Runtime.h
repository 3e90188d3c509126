#pragma once

#include <cstdlib>

#include "Sync.h"
#include "Task.h"

/// What the library's entry does around an application, for a scope.
class Runtime
{
 public:
    Runtime()
    {
        if (!TCSyncDet::Create() || !TCTaskList::m_mutex.Create()) {
            std::abort();
        }
    }
    ~Runtime()
    {
        TCTaskList::Finalize();
        TCSyncDet::Destroy();
    }

    Runtime(const Runtime&) = delete;
    Runtime& operator=(const Runtime&) = delete;
};

/// A task that does nothing with its events.
class SilentTask : public TCTask
{
 public:
    SilentTask()
    {
        if (!Create("silent", ~0U, 1 << 20, 0)) {
            std::abort();
        }
    }
    ~SilentTask() override
    {
        TSEvent exit;
        exit.receiver = this;
        exit.type = EVENT_EXIT;
        while (!Send(&exit, false, false)) {
        }
        Destroy();
    }

    TSEvent EventTo(unsigned long type = EVENT_USER)
    {
        TSEvent event;
        event.receiver = this;
        event.type = type;
        return event;
    }
};
