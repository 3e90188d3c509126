#pragma once

#include <cstdlib>
#include <utility>

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

/// A task that does nothing with its events. To be used as Running<...>.
class QuietTask : public TCTask
{
 public:
    TSEvent EventTo(unsigned long type = EVENT_USER)
    {
        TSEvent event;
        event.receiver = this;
        event.type = type;
        return event;
    }

 protected:
    void Begin()
    {
        if (!Create("silent", ~0U, 1 << 20, 0)) {
            std::abort();
        }
    }

    void End()
    {
        TSEvent exit = EventTo(EVENT_EXIT);
        while (!Send(&exit, false, false)) {
        }
        Destroy();
    }
};

/// Runs from the end of its construction to the beginning of its destruction: the thread calls
/// virtual functions of the whole object.
template <typename Task>
class Running final : public Task
{
 public:
    template <typename... Arguments>
    explicit Running(Arguments&&... arguments) : Task(std::forward<Arguments>(arguments)...)
    {
        this->Begin();
    }
    ~Running() override { this->End(); }
};

using SilentTask = Running<QuietTask>;
