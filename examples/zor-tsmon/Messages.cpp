#include "Messages.h"

#include <chrono>
#include <thread>

namespace tsmon {

namespace {

constexpr std::chrono::milliseconds RETRY(2);

} // namespace

void SendPatiently(TSEvent& event, bool priority, std::atomic<std::uint64_t>* refusals)
{
    while (!TCTask::Send(&event, false, priority)) {
        if (refusals != nullptr) {
            ++*refusals;
        }
        std::this_thread::sleep_for(RETRY);
    }
}

void EndTask(TCTask& task)
{
    TSEvent event;
    event.receiver = &task;
    event.type = TCTask::EVENT_EXIT;
    event.flag = true;
    SendPatiently(event, true);
    task.Destroy();
}

} // namespace tsmon
