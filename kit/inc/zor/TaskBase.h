#pragma once

#include <Task.h>
#include <ZorExport.h>
#include <ZorServiceDebugOverlay.h>
#include <cxxabi.h>
#include <dlog.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>

#include "zor/Answer.h"
#include "zor/Carry.h"
#include "zor/Life.h"
#include "zor/Result.h"
#include "zor/Sending.h"
#include "zor/Timing.h"

/// @file
/// Applications include "zor/Task.h".

namespace zor {

/// What Start() makes a task with.
struct Setup
{
    std::chrono::milliseconds idleAfter{1000}; ///< without an event, until t_Idle() runs
    unsigned long stackSize = 256UL * 1024;    ///< bytes
    unsigned long watchdogTime = 0;            ///< see TCTask::Create()
};

namespace detail {

class CallEntry;
template <typename Function>
class LambdaCallback;
template <typename Value>
class AsyncSink;
template <typename Value, typename Function>
class RunRequest;

/// What waits for the answer to an AskAsync(); lives and dies on the asking task's thread.
class AnyPendingAnswer
{
 public:
    AnyPendingAnswer() = default;
    virtual ~AnyPendingAnswer() = default;

    AnyPendingAnswer(const AnyPendingAnswer&) = delete;
    AnyPendingAnswer& operator=(const AnyPendingAnswer&) = delete;
};

/// Something attached to an EVENT_WORK.
class Work : public ZOREventDataBase
{
 public:
    virtual void Do(TaskBase& task) = 0;
};

/// The tag of the kit's log lines.
constexpr const char* LOG_TAG = "ZOR_KIT";

/// Between two tries to put something into a full queue.
constexpr std::chrono::milliseconds RETRY_INTERVAL(1);

/// How many events a queue holds at most when a put that is `first` or not adds to them; see
/// TCQueue.
constexpr std::size_t MostQueued(bool first)
{
    return first ? 256 : 240;
}

/// A type's name as it stands in the source.
inline std::string NameOf(const std::type_info& type)
{
    int status = 0;
    char* const text = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    std::string name = text != nullptr ? text : type.name();
    std::free(text);
    return name;
}

} // namespace detail

/// What every zor::Task is, whatever messages it takes. Derive from zor::Task.
///
/// The rules of TCTask hold: the life of a task, its hooks, ordinary events, timers, pauses, pings.
/// A class that overrides t_OnEvent() hands on what it does not know, one that overrides t_Main(),
/// ExecuteEvent() or ResumeAsync() calls this class's.
class ZOR_CORE_API TaskBase : public TCTask
{
 public:
    /// TCTask::Create().
    bool Create(const char* name, unsigned int waitTime, unsigned long stackSize,
                unsigned long watchdogTime);

    /// Create() with what most tasks want.
    bool Start(const char* name, const Setup& setup = Setup());

    /// Ends the task and returns when it has ended: sends EVENT_EXIT, behind all that is queued,
    /// unless its loop has ended already, and calls Destroy(). A paused task is resumed, a full
    /// queue is waited for. For the owner, on another thread than the task's; nobody may be posting
    /// to the task any more, nor pausing it.
    void End();

    /// Whether messages go through the trap points, and so into recordings: not unless it is set.
    /// Set it before messages are sent.
    void SetRecorded(bool recorded) { m_recorded.store(recorded, std::memory_order_relaxed); }

    /// Whether they do.
    bool IsRecorded() const { return m_recorded.load(std::memory_order_relaxed); }

    /// What has happened to messages of this task. Any thread may ask.
    Counts MessageCounts() const { return m_counters.Read(); }

    /// The task that the calling thread is of, if it is one of this kind; else null.
    static TaskBase* Current() { return CurrentTask(); }

    /// A timer that calls @p callback every @p interval, at least ITimer::INTERVAL_MIN, @p count
    /// times. @p callback takes nothing or a `const Firing&`. One that throws ends the process,
    /// with a line in the log.
    ///
    /// @return a handle of nothing if the task is not created or about to end
    template <typename Function>
    [[nodiscard]] Timer Every(std::chrono::milliseconds interval, Function callback,
                              unsigned int count = ITimer::INFINITE_FIRE);

    /// A timer that calls @p callback once, after @p delay.
    template <typename Function>
    [[nodiscard]] Timer After(std::chrono::milliseconds delay, Function callback);

    /// A timer that does not run before its Restart().
    template <typename Function>
    [[nodiscard]] Timer MakeTimer(Function callback);

    /// Every() with an alarm, which has a thread of its own.
    ///
    /// @return a handle of nothing also if that thread cannot be made
    template <typename Function>
    [[nodiscard]] Alarm AlarmEvery(std::chrono::milliseconds interval, Function callback,
                                   unsigned long count = TCAlarm::ENDLESS);

    /// The loop. At its end timers and alarms are stopped, and whoever waits for an answer is told.
    void t_Main() override;

    /// One turn, and what has been delivered meanwhile.
    bool ExecuteEvent() override;

    /// Does the kit's own work, and hands the runtime's event types on.
    bool t_OnEvent(const TSEvent* event) override;

    bool ResumeAsync() override;

 private:
    template <typename, typename...>
    friend class Task;
    template <typename>
    friend class detail::LambdaCallback;
    template <typename>
    friend class detail::AsyncSink;
    template <typename, typename>
    friend class detail::RunRequest;

    /// @param messageTypes  how many messages the task takes
    explicit TaskBase(unsigned int messageTypes)
        : m_messageTypes(messageTypes), m_life(std::make_shared<detail::Life>(this))
    {}

    static TaskBase*& CurrentTask();

    bool IsPausing() const { return m_pauses.load() % 2 == 1; }
    void EndPause(std::uint64_t pause) { m_pauses.compare_exchange_strong(pause, pause + 1); }
    bool OnWork(const TSEvent& event);
    void EndOnOwnThread();

    Result<void> Put(TSEvent* event, const Sending& how);
    Result<void> PutIntoFullQueue(TSEvent* event, const Sending& how);
    bool PutPatiently(TSEvent* event, const Sending& how);
    bool PutInstead(TSEvent* event, bool first);
    Result<void> PutRequest(TSEvent* event, bool first, detail::CallEntry* entry);

    bool OnMismatch(const TSEvent& event, const std::type_info& message,
                    const std::type_info& expected);
    void OnThrow(const char* what, const std::type_info* message, const char* text);
    template <typename Function>
    void CallOrEnd(const char* what, const std::type_info* message, Function&& function);
    template <typename Value, typename Function>
    Result<Value> CallOrFail(const char* what, const std::type_info* message, Function&& function);
    template <typename Function>
    Timer AddTimer(Function& callback, std::chrono::milliseconds interval, unsigned int count);

    detail::Counters m_counters; ///< synchronised in itself; first, so that tools find it
    const unsigned int m_messageTypes;
    const std::shared_ptr<detail::Life> m_life; ///< synchronised in itself
    std::atomic<bool> m_recorded{false};        ///< set before messages are sent

    /// Odd from the beginning of a pause to its end: its thread's t_OnPause(), the wait, and
    /// t_OnResume() or the ResumeAsync() that ended it, whatever comes first.
    std::atomic<std::uint64_t> m_pauses{0};

    // The task's thread's only.
    std::map<std::uint64_t, std::unique_ptr<detail::AnyPendingAnswer>> m_pending; ///< by number
    std::uint64_t m_lastPending = 0;
};

} // namespace zor

// What is declared above.
#include "zor/Callbacks.h"
#include "zor/TaskBaseInline.h"
