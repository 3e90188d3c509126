#include "Messages.h"

#include <chrono>
#include <thread>

namespace tsmon {

namespace {

constexpr std::chrono::milliseconds RETRY(2);

} // namespace

void EndTask(TCTask& task)
{
    TSEvent event;
    event.receiver = &task;
    event.type = TCTask::EVENT_EXIT;
    event.flag = true;
    while (!TCTask::Send(&event, false, true)) {
        std::this_thread::sleep_for(RETRY);
    }
    task.Destroy();
}

} // namespace tsmon
