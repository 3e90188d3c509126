#pragma once

#include <gtest/gtest.h>

#include <mutex>

#include "Batch.h"
#include "Messages.h"
#include "Packet.h"
#include "StreamBuilder.h"
#include "Sync.h"
#include "TaskList.h"
#include "TempDirectory.h"
#include "Wait.h"

/// @file
/// What the tests of the monitor's tasks share.

namespace made {

/// The runtime's services for tasks, as the process entry makes them.
class TaskRuntime
{
 public:
    TaskRuntime()
    {
        EXPECT_TRUE(TCSyncDet::Create());
        EXPECT_TRUE(TCTaskList::m_mutex.Create());
    }

    ~TaskRuntime()
    {
        TCTaskList::Finalize();
        TCSyncDet::Destroy();
    }

    TaskRuntime(const TaskRuntime&) = delete;
    TaskRuntime& operator=(const TaskRuntime&) = delete;
};

/// A task that lets nothing through before its gate is open.
template <class Task>
class Gated : public Task
{
 public:
    using Task::Task;

    bool t_OnEvent(const TSEvent* event) override
    {
        if (event->type == m_gatedType) {
            m_arrived.Pass();
            EXPECT_TRUE(m_gate.Wait());
        }
        return Task::t_OnEvent(event);
    }

    /// Before the task is created: which events wait at the gate.
    void GateAt(unsigned long type) { m_gatedType = type; }

    /// Waits until an event stands at the gate.
    bool AwaitArrival() { return m_arrived.Wait(); }
    void OpenGate() { m_gate.Pass(); }

 private:
    unsigned long m_gatedType = tsmon::MESSAGE_PACKETS;
    zortest::Gate m_arrived;
    zortest::Gate m_gate;
};

/// Takes what a reader sends and keeps it.
class CollectingParser : public TCMultiQTask
{
 public:
    bool Start() { return Create("Collector", 100, tsmon::STACK_SIZE, tsmon::QUEUE_COUNT, 0); }

    bool t_OnEvent(const TSEvent* event) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (event->type == tsmon::MESSAGE_END) {
            ++m_ends;
            return true;
        }
        auto* data = dynamic_cast<ZORManagedEventData<tsmon::Batch>*>(event->wrappedData.get());
        if (event->type != tsmon::MESSAGE_PACKETS || data == nullptr) {
            return TCMultiQTask::t_OnEvent(event);
        }
        EXPECT_EQ(m_ends, 0) << "nothing comes behind the end";
        const tsmon::PacketBlock& packets = data->data.packets;
        const std::uint8_t* first = packets.Packet(0);
        Bytes& kept = event->param1 == tsmon::QUEUE_STREAMS ? m_streams : m_tables;
        kept.insert(kept.end(), first, first + packets.Count() * tsmon::PACKET_SIZE);
        return true;
    }

    bool AwaitEnd()
    {
        return zortest::Eventually([this] {
            const std::lock_guard<std::mutex> lock(m_mutex);
            return m_ends > 0;
        });
    }

    std::size_t Count()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return (m_tables.size() + m_streams.size()) / tsmon::PACKET_SIZE;
    }

    // What follows may be read once the task has ended.

    const Bytes& Tables() const { return m_tables; }
    const Bytes& Streams() const { return m_streams; }
    int Ends() const { return m_ends; }

 private:
    std::mutex m_mutex;
    Bytes m_tables; ///< guarded by m_mutex, as are the others
    Bytes m_streams;
    int m_ends = 0;
};

} // namespace made
