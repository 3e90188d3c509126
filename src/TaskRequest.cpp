#include "TaskRequest.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace zor {

TSEvent RequestTo(TCTask* task, TCTask::EEventType type)
{
    TSEvent request;
    request.type = type;
    request.receiver = task;
    return request;
}

std::future<bool> AttachReply(TSEvent* request)
{
    std::promise<bool> reply;
    std::future<bool> answer = reply.get_future();
    request->setWrappedData(std::move(reply));
    return answer;
}

bool IsAnsweredWithin(const std::future<bool>& answer, unsigned long msec)
{
    // Far less than what the clock can add to its present reading without overflow.
    constexpr unsigned long LONGEST_WAIT_MSEC = 100UL * 365 * 24 * 3600 * 1000;

    const std::chrono::milliseconds wait(std::min(msec, LONGEST_WAIT_MSEC));
    return answer.wait_until(std::chrono::steady_clock::now() + wait) == std::future_status::ready;
}

bool SendRequest(TSEvent* request)
{
    const bool sent = TCTask::Send(request, false, true);
    request->wrappedData.reset();
    return sent;
}

} // namespace zor
