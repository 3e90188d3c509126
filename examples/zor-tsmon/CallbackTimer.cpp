#include "CallbackTimer.h"

#include <memory>
#include <utility>

namespace tsmon {

namespace {

class CallbackListener : public ITimerListener
{
 public:
    explicit CallbackListener(std::function<void()> callback) : m_callback(std::move(callback)) {}

    bool OnTimer(const TSEvent* /*event*/, void* /*userData*/) override
    {
        m_callback();
        return true;
    }

 private:
    const std::function<void()> m_callback;
};

} // namespace

TCTimer MakeTimer(const TCTask& task, std::function<void()> callback)
{
    ITimer::TimerHandlerParams params;
    params.task = &task;
    params.listener = std::make_shared<CallbackListener>(std::move(callback));
    return TCTimer(params);
}

} // namespace tsmon
