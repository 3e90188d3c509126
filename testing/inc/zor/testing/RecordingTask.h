#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <ostream>
#include <vector>

#include "Task.h"
#include "zor/testing/Eventually.h"
#include "zor/testing/Wait.h"

namespace zor::testing {

/// What a task has handled: an event without its attachment, which goes when its last owner lets it
/// go and not when a test does.
struct HandledEvent
{
    unsigned long type = 0;   ///< the event's, as the rest but the last two
    std::uint32_t param1 = 0; ///< see TSEvent
    std::uint32_t param2 = 0; ///< see TSEvent
    std::uint32_t param3 = 0; ///< see TSEvent
    std::uint16_t param4 = 0; ///< see TSEvent
    std::uint64_t param5 = 0; ///< see TSEvent
    std::uint64_t param6 = 0; ///< see TSEvent
    bool hadData = false;     ///< something was attached
    bool result = false;      ///< what the handler answered

    /// Shows the event when an expectation fails.
    friend void PrintTo(const HandledEvent& event, std::ostream* out)
    {
        *out << "type " << event.type << " (" << event.param1 << ", " << event.param2 << ", "
             << event.param3 << ", " << event.param4 << ", " << event.param5 << ", " << event.param6
             << ")" << (event.hadData ? " with data" : "") << (event.result ? "" : " refused");
    }
};

/// Any task, with a record of the events that its own handler has taken and of its idle turns, and
/// with a gate that its events can be kept at:
///
///     Recording<Meter> meter;       // Meter derives from TCTask; its t_OnEvent is not private
///
/// What is recorded has been handled: the record is written behind the handler, on the task's
/// thread. Events of other handlers of the task (alarms, timers) are not the task's own.
template <class Base>
class Recording : public Base
{
 public:
    using Base::Base;

    /// The events handled so far, oldest first. Any thread may ask.
    std::vector<HandledEvent> Handled() const
    {
        std::lock_guard<std::mutex> lock(m_recordMutex);
        return m_handled;
    }

    /// Those of one type.
    std::vector<HandledEvent> Handled(unsigned long type) const
    {
        std::vector<HandledEvent> found;
        for (const HandledEvent& event : Handled()) {
            if (event.type == type) {
                found.push_back(event);
            }
        }
        return found;
    }

    /// How often t_Idle() has run. Any thread may ask.
    unsigned long IdleTurns() const { return m_idleTurns.load(); }

    /// Waits until at least @p count events have been handled; the failure shows them.
    ::testing::AssertionResult AwaitHandled(std::size_t count) const
    {
        return Eventually([this, count] {
            const std::vector<HandledEvent> handled = Handled();
            return ::testing::AssertionResult(handled.size() >= count)
                   << ::testing::PrintToString(handled);
        });
    }

    /// Which events wait at the gate before they are handled; nothing else is handled meanwhile.
    /// Before the task is created.
    void GateAt(unsigned long type)
    {
        m_gatedType = type;
        m_isGated = true;
    }

    /// Waits until an event stands at the gate.
    bool AwaitArrival() { return m_arrived.Wait(); }

    /// Lets through what waits at the gate and what comes later.
    void OpenGate() { m_gate.Pass(); }

    /// Waits at the gate, has the task handle the event, and records it.
    bool t_OnEvent(const TSEvent* event) override
    {
        if (m_isGated && event->type == m_gatedType) {
            m_arrived.Pass();
            EXPECT_TRUE(m_gate.Wait()) << "nobody opens the gate";
        }
        HandledEvent handled;
        handled.type = event->type;
        handled.param1 = event->param1;
        handled.param2 = event->param2;
        handled.param3 = event->param3;
        handled.param4 = event->param4;
        handled.param5 = event->param5;
        handled.param6 = event->param6;
        handled.hadData = event->wrappedData != nullptr;
        handled.result = Base::t_OnEvent(event);
        std::lock_guard<std::mutex> lock(m_recordMutex);
        m_handled.push_back(handled);
        return handled.result;
    }

    /// Has the task take its idle turn, and counts it.
    void t_Idle() override
    {
        Base::t_Idle();
        ++m_idleTurns;
    }

 private:
    mutable std::mutex m_recordMutex;
    std::vector<HandledEvent> m_handled; ///< guarded by m_recordMutex
    std::atomic<unsigned long> m_idleTurns{0};
    unsigned long m_gatedType = 0; ///< fixed while the task is created, as is the next
    bool m_isGated = false;
    Gate m_arrived;
    Gate m_gate;
};

/// A task to send to: it answers EVENT_USER by @p answer and records everything. Its destructor
/// ends it.
class RecordingTask : public Recording<TCTask>
{
 public:
    /// A stack that is enough under every sanitizer.
    static constexpr unsigned long STACK_SIZE = 1024 * 1024;

    /// So long that no idle turn comes in a test's real time.
    static constexpr unsigned int LONG_WAIT_MSEC = 600 * 1000;

    /// How EVENT_USER is answered; set it before Start(). Without one it is answered as by TCTask.
    std::function<bool(const TSEvent*)> answer;

    RecordingTask() = default;
    ~RecordingTask() override { End(); }

    /// Creates the task, with the meanings of TCTask::Create().
    bool Start(const char* name = "recording", unsigned int waitMsec = LONG_WAIT_MSEC,
               unsigned long watchdogSeconds = 0)
    {
        return Create(name, waitMsec, STACK_SIZE, watchdogSeconds);
    }

    /// Has everything handled that is queued, ends the task and destroys it; nothing if it is not
    /// created. Adds a failure to the test if the queue stays full.
    void End()
    {
        if (!FlagCreate()) {
            return;
        }
        TSEvent event;
        event.receiver = this;
        event.type = EVENT_EXIT;
        EXPECT_TRUE(Eventually([&] { return Send(&event, false, false); }));
        Destroy();
    }

    bool t_OnUser(const TSEvent* event) override
    {
        return answer ? answer(event) : TCTask::t_OnUser(event);
    }
};

} // namespace zor::testing
