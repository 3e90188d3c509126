#include "Timer.h"

#include <utility>

#include "Debug.h"
#include "ProcessObjects.h"
#include "Task.h"
#include "Undo.h"

zor::Immortal<TCTimersScheduler> zor::g_scheduler;

namespace {

/// Ends the thread in place of the scheduler's destructor, which would free what tasks that still
/// run use through their timers.
struct ThreadEnd
{
    ~ThreadEnd() { zor::g_scheduler.object.EndThread(); }
};

const ThreadEnd threadEnd;

} // namespace

TCTimersScheduler& TCTimer::m_scheduler = zor::g_scheduler.object;

ITimerListener::~ITimerListener() = default;
ITimer::~ITimer() = default;

/// What a timer's firings are addressed to. It may outlive its timer, but dies on its task's
/// thread.
class TCTimer::TCTimerHandler : public TCHandler
{
 public:
    using Carrier = zor::ReleasedData<std::unique_ptr<TCTimerHandler>>;

    /// Whatever becomes of it, the user's data is released: if there is to be no handler, at once.
    static std::unique_ptr<TCTimerHandler> Make(const ITimer::TimerHandlerParams& params)
    {
        zor::Undo ownership([&params] {
            if (params.userDataRelease) {
                params.userDataRelease(params.userData);
            }
        });
        auto handler = std::make_unique<TCTimerHandler>(params);
        ownership.Keep();
        return handler;
    }

    explicit TCTimerHandler(const ITimer::TimerHandlerParams& params)
        : m_listener(params.listener),
          m_userDataRelease(params.userDataRelease),
          m_userData(params.userData),
          m_carrier(std::make_shared<Carrier>(nullptr))
    {
        TCHandler::Create(params.task);
    }

    ~TCTimerHandler() override
    {
        TCHandler::Destroy();
        m_listener.reset();
        if (m_userDataRelease) {
            m_userDataRelease(m_userData);
            m_userData = nullptr;
        }
    }

    bool t_OnEvent(const TSEvent* ev) override
    {
        TCASSERT(FlagCreate() == true);
        TCASSERT(ev != nullptr);
        switch (ev->type) {
            case TimerEventType::EVENT_TIMER_TIMEOUT:
                return m_listener->OnTimer(ev, m_userData);
            case TimerEventType::EVENT_TIMER_SYNC:
                return true;
            default:
                TCASSERT(ev->type == TimerEventType::EVENT_TIMER_TIMEOUT ||
                         ev->type == TimerEventType::EVENT_TIMER_SYNC);
                return false;
        }
    }

    /// An attachment that owns @p handler.
    static std::shared_ptr<Carrier> Attach(std::unique_ptr<TCTimerHandler> handler)
    {
        std::shared_ptr<Carrier> carrier = std::move(handler->m_carrier);
        carrier->data = std::move(handler);
        return carrier;
    }

 private:
    std::shared_ptr<ITimerListener> m_listener;
    std::function<void(void*)> m_userDataRelease;
    void* m_userData;
    std::shared_ptr<Carrier> m_carrier; ///< made beforehand: stopping a timer must not fail
};

TCTimer::TCTimer() : m_timerId(TCTimersScheduler::INVALID_TIMER_ID) {}

TCTimer::TCTimer(const ITimer::TimerHandlerParams& params)
    : m_timerId(TCTimersScheduler::INVALID_TIMER_ID), m_handler(TCTimerHandler::Make(params))
{
    TSEvent event;
    event.receiver = m_handler.get();
    event.type = TimerEventType::EVENT_TIMER_TIMEOUT;
    m_timerId = m_scheduler.CreateTimer(ITimer::INTERVAL_MIN, 0, event);
    if (m_timerId == TCTimersScheduler::INVALID_TIMER_ID) {
        TCASSERT(m_timerId != TCTimersScheduler::INVALID_TIMER_ID);
        TCDebug::Print("ASSERT!, Func:%s\n", __func__);
    }
}

TCTimer::~TCTimer()
{
    m_Stop();
}

TCTimer::TCTimer(TCTimer&& other) noexcept : TCTimer()
{
    *this = std::move(other);
}

TCTimer& TCTimer::operator=(TCTimer&& other) noexcept
{
    if (this != &other) {
        m_Stop();
        m_timerId = std::exchange(other.m_timerId, TCTimersScheduler::INVALID_TIMER_ID);
        m_handler = std::move(other.m_handler);
    }
    return *this;
}

bool TCTimer::Restart(std::chrono::milliseconds interval, unsigned int count)
{
    return m_scheduler.ResetTimer(m_timerId, interval, count);
}

bool TCTimer::Pause()
{
    return m_scheduler.PauseTimer(m_timerId);
}

bool TCTimer::Resume()
{
    return m_scheduler.ResumeTimer(m_timerId);
}

// Why the handler travels:
//
//   stopper:  DestroyTimer -- delete queued firings -- send [handler]
//   task:          listener runs with the handler .................|-- takes, releases
//
// The task may be in the listener at this very moment, so only the task can know when the handler
// is done with.
void TCTimer::m_Stop()
{
    if (m_handler == nullptr || !m_scheduler.DestroyTimer(m_timerId)) {
        return;
    }
    TCTask* const task = m_handler->Task();
    task->Delete(m_handler.get(), nullptr);
    task->ReleaseOnThread(TCTimerHandler::Attach(std::move(m_handler)));
    m_timerId = TCTimersScheduler::INVALID_TIMER_ID;
}
