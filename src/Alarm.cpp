#include "Alarm.h"

#include <sys/prctl.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "Immortal.h"
#include "MutexLock.h"
#include "Task.h"
#include "ZorServiceDebug.h"
#include "ZorServiceDebugOverlay.h"

namespace {

constexpr unsigned long STACK_SIZE = 512;

constexpr char STATE_TEXT[] =
    "[pause_resume] END m_stopped[%d], m_interval[%lu], m_interval_holder[%lu], m_count[%lu]";

using Hook = bool (TCAlarm::*)(const TSEvent*);

/// The function that @p alarm has for a virtual operation.
///
/// By the C++ ABI of all Linux targets a pointer to a virtual member function begins with the
/// offset of the operation in the class's table (on some with the lowest bit set), and an object
/// begins with the address of its table.
const void* FunctionOf(const TCAlarm& alarm, Hook operation)
{
    std::size_t offset = 0;
    static_assert(sizeof(operation) >= sizeof(offset));
    memcpy(&offset, &operation, sizeof(offset));
    const char* table = nullptr;
    memcpy(&table, static_cast<const void*>(&alarm), sizeof(table));
    const void* function = nullptr;
    memcpy(&function, table + (offset & ~std::size_t{1}), sizeof(function));
    return function;
}

/// Whether the alarm's class has left the hook as it is.
///
/// The base version is not to be called for a firing; it would assert if the before callback has
/// ended the alarm. No virtual operation can be added to ask, because their order is fixed.
bool HasBaseHook(const TCAlarm& alarm)
{
    static const zor::Immortal<TCAlarm> plain;
    return FunctionOf(alarm, &TCAlarm::t_OnAlarm) == FunctionOf(plain.object, &TCAlarm::t_OnAlarm);
}

/// @p callback so that it may replace itself: while it runs the call has a share of it, where a
/// copy of it for every firing would come from the heap.
TCAlarm::Callback Lasting(TCAlarm::Callback callback)
{
    if (!callback) {
        return {};
    }
    return [shared = std::make_shared<const TCAlarm::Callback>(std::move(callback))](
               const TSEvent* event) {
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): this share keeps it
        const std::shared_ptr<const TCAlarm::Callback> running = shared;
        return (*running)(event);
    };
}

} // namespace

TCAlarm::~TCAlarm()
{
    TCASSERT(FlagCreate() == false);
}

bool TCAlarm::Create(const TCTask* task, unsigned long interval, unsigned long count)
{
    TCASSERT(FlagCreate() == false);
    TCASSERT(task != NULL);
    // Past a failed assertion the operation goes on, and this is what it meets.
    // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage)
    TCASSERT((const_cast<TCTask*>(task))->FlagCreate() == true);
    char creator[16] = "";
    prctl(PR_GET_NAME, creator);
    char name[32];
    snprintf(name, sizeof(name), "TCAlarm:%s", creator);

    if (!TCHandler::Create(task)) {
        return false;
    }
    if (!m_lock.Create()) {
        TCHandler::Destroy();
        return false;
    }
    if (!m_wakeUp.Create(0)) {
        m_lock.Destroy();
        TCHandler::Destroy();
        return false;
    }
    m_stopped = false;
    m_exit.store(false, std::memory_order_relaxed);
    m_interval = std::max(interval, INTERVAL_MIN);
    m_interval_holder = m_interval;
    m_count = count;
    m_before = nullptr;
    m_after = nullptr;
    m_callbackContext = nullptr;
    if (!TCThread::Create(name, STACK_SIZE)) {
        m_wakeUp.Destroy();
        m_lock.Destroy();
        TCHandler::Destroy();
        return false;
    }
    return true;
}

void TCAlarm::Destroy()
{
    TCASSERT(FlagCreate() == true);
    {
        const zor::MutexLock lock(&m_lock);
        m_exit.store(true, std::memory_order_relaxed);
        m_wakeUp.Give();
    }
    TCThread::Destroy();
    m_wakeUp.Destroy();
    m_lock.Destroy();
    Task()->Delete(this, nullptr);
    TCHandler::Destroy();
}

void TCAlarm::Reset(unsigned long interval, unsigned long count)
{
    TCASSERT(FlagCreate() == true);
    const zor::MutexLock lock(&m_lock);
    m_stopped = false;
    m_count = count;
    m_interval = std::max(interval, INTERVAL_MIN);
    m_interval_holder = m_interval;
    Task()->Delete(this, nullptr); // what fired under the old settings must not arrive late
    m_wakeUp.Give();
}

void TCAlarm::Stop()
{
    TCASSERT(FlagCreate() == true);
    const zor::MutexLock lock(&m_lock);
    if (m_stopped) {
        return;
    }
    m_stopped = true;
    m_interval_holder = m_interval;
    m_interval = ENDLESS;
    ZOR_LOG(false, DLOG_INFO, STATE_TEXT, m_stopped, m_interval, m_interval_holder, m_count);
    m_wakeUp.Give();
}

void TCAlarm::RestartAfterStop()
{
    TCASSERT(FlagCreate() == true);
    const zor::MutexLock lock(&m_lock);
    if (!m_stopped) {
        return;
    }
    m_stopped = false;
    m_interval = m_interval_holder;
    ZOR_LOG(false, DLOG_INFO, STATE_TEXT, m_stopped, m_interval, m_interval_holder, m_count);
    m_wakeUp.Give();
}

// The lock is held whenever the thread does not wait. A firing is sent with it held, so that every
// firing from before a Reset() is in the queue when that deletes them, or has been taken off it.
void TCAlarm::t_Main()
{
    m_lock.Lock();
    TSEvent event;
    event.receiver = this;
    event.type = EVENT_ALARM;
    event.param1 = static_cast<std::uint32_t>(m_count);
    std::uint64_t fired = 0;
    for (;;) {
        if (fired >= m_count && m_count != ENDLESS) {
            // Idle until the settings change. param1 keeps its value, whatever they change to.
            m_lock.Unlock();
            m_wakeUp.Take();
            if (m_exit.load(std::memory_order_relaxed)) {
                return;
            }
            m_lock.Lock();
            fired = 0;
        } else if (WaitForIntervalLocked()) {
            event.param2 = static_cast<std::uint32_t>(fired);
            ++fired;
            const TCCallbackNameSetter callbackName("cb-alarm");
            TCTask::Send(&event, false, false);
        } else if (m_exit.load(std::memory_order_relaxed)) {
            m_lock.Unlock();
            return;
        } else {
            event.param1 = static_cast<std::uint32_t>(m_count);
            fired = 0;
        }
    }
}

/// Needs m_lock, which it lets go while it waits.
///
/// @return true if the interval has passed, false if the settings have changed
bool TCAlarm::WaitForIntervalLocked()
{
    const std::uint64_t interval = m_interval;
    m_lock.Unlock();
    const bool woken = m_wakeUp.Try(interval);
    m_lock.Lock();
    // A change that came between the time-out and the lock counts: its unit is there by now.
    return !woken && !m_wakeUp.Try(0);
}

bool TCAlarm::t_OnEvent(const TSEvent* event)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    if (event->type != EVENT_ALARM) {
        TCASSERT(event->type == EVENT_ALARM);
        return false;
    }
    return OnAlarm(event);
}

bool TCAlarm::t_OnAlarm(const TSEvent* event)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    return false;
}

bool TCAlarm::OnAlarm(const TSEvent* event)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    bool handled = m_callbackBefore && m_callbackBefore(event);
    if (!handled && !HasBaseHook(*this)) {
        handled = t_OnAlarm(event);
    }
    if (m_callbackAfter) {
        handled = m_callbackAfter(event) || handled;
    }
    return handled;
}

bool TCAlarm::SetEventCallback(int type, EventCallback before, EventCallback after,
                               const void* context)
{
    TCASSERT(FlagCreate() == true);
    if (type != EVENT_ALARM) {
        return false;
    }
    m_before = before;
    m_after = after;
    m_callbackContext = context;
    if (before != nullptr) {
        m_callbackBefore = [before, context](const TSEvent* event) {
            return before(event, context);
        };
    }
    if (after != nullptr) {
        m_callbackAfter = [after, context](const TSEvent* event) { return after(event, context); };
    }
    return true;
}

bool TCAlarm::GetEventCallback(int type, EventCallback* before, EventCallback* after,
                               const void** context)
{
    TCASSERT(FlagCreate() == true);
    if (type != EVENT_ALARM) {
        return false;
    }
    if (before != nullptr) {
        *before = m_before;
    }
    if (after != nullptr) {
        *after = m_after;
    }
    if (context != nullptr) {
        *context = m_callbackContext;
    }
    return true;
}

void TCAlarm::SetCallbackBefore(Callback callback)
{
    m_callbackBefore = Lasting(std::move(callback));
}

void TCAlarm::SetCallbackAfter(Callback callback)
{
    m_callbackAfter = Lasting(std::move(callback));
}
