#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <utility>

#include "Batch.h"
#include "Messages.h"
#include "Packet.h"
#include "StreamBuilder.h"
#include "TempDirectory.h"
#include "Wait.h"
#include "zor/testing/RecordingTask.h"
#include "zor/testing/Runtime.h"

/// @file
/// What the tests of the monitor's tasks share.

namespace made {

using TaskRuntime = zor::testing::Runtime;

/// A task that lets no packets through before its gate is open, unless told to gate other events.
template <class Task>
class Gated : public zor::testing::Recording<Task>
{
 public:
    template <typename... Args>
    explicit Gated(Args&&... args) : zor::testing::Recording<Task>(std::forward<Args>(args)...)
    {
        this->GateAt(tsmon::MESSAGE_PACKETS);
    }
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
