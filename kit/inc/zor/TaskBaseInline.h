#pragma once

#include <utility>
#include <vector>

#include "zor/Scopes.h"
#include "zor/TaskBase.h"

/// @file
/// The bodies of TaskBase.h.

namespace zor {

inline bool TaskBase::Create(const char* name, unsigned int waitTime, unsigned long stackSize,
                             unsigned long watchdogTime)
{
    m_life->Prepare();
    if (!TCTask::Create(name, waitTime, stackSize, watchdogTime)) {
        return false;
    }
    m_life->Begin();
    return true;
}

inline bool TaskBase::Start(const char* name, const Setup& setup)
{
    return Create(name, static_cast<unsigned int>(setup.idleAfter.count()), setup.stackSize,
                  setup.watchdogTime);
}

inline void TaskBase::End()
{
    TSEvent event;
    event.receiver = this;
    event.type = EVENT_EXIT;
    event.flag = IsRecorded();
    // A loop that has ended makes no room in its queue any more, and needs no telling.
    for (bool isSent = false; !isSent && !m_life->HasEnded();) {
        isSent = TCTask::Send(&event, false, false);
        if (IsPaused()) {
            ResumeAsync();
        }
        if (!isSent) {
            std::this_thread::sleep_for(detail::RETRY_INTERVAL);
        }
    }
    Destroy();
}

inline TaskBase*& TaskBase::CurrentTask()
{
    static thread_local TaskBase* current = nullptr;
    return current;
}

inline void TaskBase::t_Main()
{
    CurrentTask() = this;
    m_life->BeginOnThread();
    TCTask::t_Main();
    EndOnOwnThread();
    CurrentTask() = nullptr;
}

// In this order: timers and alarms may still use the way of deliveries to end; what is refused must
// not come back; and what is queued after that is nobody's business any more.
inline void TaskBase::EndOnOwnThread()
{
    for (const auto& ticking : m_life->EndTickings()) {
        ticking->Stop();
    }
    m_life->End();
    const TCHandler* const self = this;
    Delete(self, detail::EVENT_WORK, nullptr);
    for (unsigned int i = 0; i < m_messageTypes; ++i) {
        Delete(self, detail::EVENT_FIRST_MESSAGE + 2 * i + 1, nullptr);
    }
    m_pending.clear();
}

inline bool TaskBase::ExecuteEvent()
{
    const bool goesOn = TCTask::ExecuteEvent();
    while (m_life->HasDeliveries()) {
        if (const auto delivery = m_life->TakeDelivery()) {
            delivery->Do(*this);
        }
    }
    return goesOn;
}

inline bool TaskBase::t_OnEvent(const TSEvent* event)
{
    if (event->type == detail::EVENT_WORK) {
        return OnWork(*event);
    }
    if (event->type != EVENT_PAUSE) {
        return TCTask::t_OnEvent(event);
    }
    const std::uint64_t pause = m_pauses.fetch_add(1) + 1;
    const bool handled = TCTask::t_OnEvent(event);
    EndPause(pause);
    return handled;
}

inline bool TaskBase::ResumeAsync()
{
    const std::uint64_t pause = m_pauses.load();
    const bool resumed = TCTask::ResumeAsync();
    if (resumed && pause % 2 == 1) {
        EndPause(pause); // before its thread does, which may be in t_OnResume() for long
    }
    return resumed;
}

/// An event without an attachment only wakes the loop, for a delivery.
inline bool TaskBase::OnWork(const TSEvent& event)
{
    if (event.wrappedData == nullptr) {
        return true;
    }
    if (auto* const work = detail::AttachmentOf<detail::Work>(event)) {
        work->Do(*this);
        return true;
    }
    return OnMismatch(event, typeid(detail::Work), typeid(detail::Work));
}

/// Queues a posted message.
inline Result<void> TaskBase::Put(TSEvent* event, const Sending& how)
{
    if (!FlagCreate()) {
        return tl::make_unexpected(Error::NO_TASK);
    }
    event->receiver = this;
    event->flag = IsRecorded();
    return TCTask::Send(event, false, how.IsFirst()) ? Result<void>()
                                                     : PutIntoFullQueue(event, how);
}

/// What is done with a message that has been refused.
__attribute__((cold)) inline Result<void> TaskBase::PutIntoFullQueue(TSEvent* event,
                                                                     const Sending& how)
{
    switch (how.FullQueue()) {
        case Sending::WhenFull::WAIT:
            if (PutPatiently(event, how)) {
                return {};
            }
            break;
        case Sending::WhenFull::REPLACE:
            if (PutInstead(event, how.IsFirst())) {
                return {};
            }
            break;
        case Sending::WhenFull::DROP:
            detail::Increment(m_counters.dropped);
            return tl::make_unexpected(Error::DROPPED);
        default:
            break;
    }
    detail::Increment(m_counters.refused);
    return tl::make_unexpected(Error::QUEUE_FULL);
}

inline bool TaskBase::PutPatiently(TSEvent* event, const Sending& how)
{
    if (Current() == this) {
        return false; // only this thread could make room
    }
    detail::Increment(m_counters.waited);
    const auto deadline = detail::DeadlineAfter(how.Longest());
    do {
        std::this_thread::sleep_for(detail::RETRY_INTERVAL);
        if (TCTask::Send(event, false, how.IsFirst())) {
            return true;
        }
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

/// The queue's lock is held from the look to the put, so that nobody else takes the room. Nothing
/// is removed that would make no room: a queue may hold more events than an ordinary put may add
/// to. Attachments that are removed are destroyed behind the lock.
inline bool TaskBase::PutInstead(TSEvent* event, bool first)
{
    const TCHandler* const self = this;
    std::vector<TSEvent> removed;
    const detail::QueueLock lock(this);
    unsigned int found = 0;
    if (!Find(self, event->type, &found) || Size() - found >= detail::MostQueued(first)) {
        return false;
    }
    if (event->wrappedData == nullptr) {
        Delete(self, event->type, &found);
    } else {
        removed.resize(found);
        for (TSEvent& each : removed) {
            TCQueue::Get(&each, self, event->type);
        }
    }
    detail::Increment(m_counters.replaced, found);
    return TCQueue::Put(event, first);
}

/// Queues a request whose sender will be told what becomes of it.
inline Result<void> TaskBase::PutRequest(TSEvent* event, bool first, detail::CallEntry* entry)
{
    event->receiver = this;
    event->flag = IsRecorded();
    const Result<void> gone = tl::make_unexpected(Error::NO_TASK);
    // The lock ends before the wait, and the task may do so during it.
    return m_life->IfAlive(gone, [&]() -> Result<void> {
        if (IsPausing()) {
            return tl::make_unexpected(Error::PAUSED);
        }
        if (entry != nullptr) {
            entry->Enter(event);
        }
        if (!TCTask::Send(event, false, first)) {
            detail::Increment(m_counters.refused);
            return tl::make_unexpected(Error::QUEUE_FULL);
        }
        return {};
    });
}

inline bool TaskBase::OnMismatch(const TSEvent& event, const std::type_info& message,
                                 const std::type_info& expected)
{
    detail::Increment(m_counters.mismatched);
    const ZOREventDataBase* const data = event.wrappedData.get();
    ZOR_LOG_TAGGED(detail::LOG_TAG, false, DLOG_ERROR,
                   "task %s: not handled: message %s needs the attachment %s, but has %s", Name(),
                   detail::NameOf(message).c_str(), detail::NameOf(expected).c_str(),
                   data != nullptr ? detail::NameOf(typeid(*data)).c_str() : "none");
    return false;
}

inline void TaskBase::OnThrow(const char* what, const std::type_info* message, const char* text)
{
    detail::Increment(m_counters.thrown);
    ZOR_LOG_TAGGED(detail::LOG_TAG, false, DLOG_ERROR, "task %s: %s%s threw: %s", Name(), what,
                   message != nullptr ? detail::NameOf(*message).c_str() : "", text);
}

/// Calls @p function for nobody who could be told that it threw: that is logged, and ends the
/// process as in any other handler.
template <typename Function>
void TaskBase::CallOrEnd(const char* what, const std::type_info* message, Function&& function)
{
    try {
        function();
    } catch (const std::exception& error) {
        OnThrow(what, message, error.what());
        throw;
    } catch (const abi::__forced_unwind&) {
        throw; // the thread is cancelled
    } catch (...) {
        OnThrow(what, message, "no std::exception");
        throw;
    }
}

/// Calls @p function for somebody who is told if it throws.
template <typename Value, typename Function>
Result<Value> TaskBase::CallOrFail(const char* what, const std::type_info* message,
                                   Function&& function)
{
    try {
        if constexpr (std::is_void_v<Value>) {
            function();
            return {};
        } else {
            return Result<Value>(tl::in_place, function());
        }
    } catch (const std::exception& error) {
        OnThrow(what, message, error.what());
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        OnThrow(what, message, "no std::exception");
    }
    return tl::make_unexpected(Error::THREW);
}

} // namespace zor
