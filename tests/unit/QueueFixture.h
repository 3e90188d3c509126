#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "Queue.h"
#include "QueueEvents.h"
#include "QueueProbe.h"
#include "TCDebugPrint.h"

namespace zortest {

/// A created queue, and two receivers of its events.
class QueueTest : public ::testing::Test
{
 protected:
    static constexpr unsigned long FOR_EVER = ~0UL;
    static constexpr std::uint32_t UNTOUCHED = 0xDEAD;

    QueueTest() { EXPECT_TRUE(m_queue.Create()); }

    ~QueueTest() override
    {
        if (m_queue.FlagCreate()) {
            m_queue.Destroy();
        }
        TCDebugPrintZOR::GetInstance()->SetAppData(nullptr, 0);
    }

    /// Puts event @p number for m_receiver.
    bool Put(std::uint32_t number, bool priority = false, unsigned long type = 0)
    {
        return PutFor(&m_receiver, type, number, priority);
    }

    bool PutFor(TCHandler* receiver, unsigned long type, std::uint32_t number,
                bool priority = false)
    {
        TSEvent event = EventFor(receiver, type, number);
        return m_queue.Put(&event, priority);
    }

    /// Puts events @p first to @p last for m_receiver.
    void PutAll(std::uint32_t first, std::uint32_t last)
    {
        for (std::uint32_t number = first; number <= last; ++number) {
            ASSERT_TRUE(Put(number));
        }
    }

    /// Moves the head, and with it the tail, of the empty queue on by @p positions.
    void Rotate(std::uint64_t positions)
    {
        TSEvent event;
        for (std::uint64_t i = 0; i < positions; ++i) {
            ASSERT_TRUE(Put(0));
            ASSERT_TRUE(m_queue.GetSync(&event, 0, false));
        }
    }

    std::vector<std::uint32_t> Drain() { return zortest::Drain(m_queue); }
    int Units() { return UnitsOf(m_queue); }
    QueueProbe Probe() const { return QueueProbe(m_queue); }

    Receiver m_receiver;
    Receiver m_other;
    TCQueue m_queue;
};

} // namespace zortest
