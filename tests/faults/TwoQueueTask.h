#pragma once

#include "TaskSupport.h"

namespace zortest {

constexpr unsigned int WAIT_MSEC = 50;

/// A multi-queue task of two queues.
class TwoQueueTask : public TCMultiQTask
{
 public:
    bool Start() { return Create("multi", WAIT_MSEC, TEST_STACK_SIZE, 2, 0); }

    /// Ends and destroys it by an exit event ahead of what is in queue @p index.
    void End(unsigned int index = 0)
    {
        TSEvent exit = EventTo(this, EVENT_EXIT);
        EXPECT_TRUE(Send(&exit, false, true, index));
        Destroy();
    }

    bool IsQueueCreated() const { return TCQueue::FlagCreate(); }
    bool IsThreadCreated() const { return TCThread::FlagCreate(); }
};

inline bool SendTo(TwoQueueTask* task, unsigned int index, bool sync)
{
    TSEvent event = EventTo(task);
    return TCMultiQTask::Send(&event, sync, false, index);
}

/// The task's own queue, its handler, its thread and its entry are all gone.
inline void ExpectUndone(const TwoQueueTask& task)
{
    EXPECT_FALSE(task.FlagCreate());
    EXPECT_FALSE(task.IsQueueCreated());
    EXPECT_FALSE(task.IsThreadCreated());
    EXPECT_FALSE(IsRegistered(&task));
}

} // namespace zortest
