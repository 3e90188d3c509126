#include <gtest/gtest.h>

#include <thread>

#include "QueueFixture.h"

namespace {

using namespace zortest;

/// What the queue stamps on an event.
class QueueStampTest : public QueueTest
{
 protected:
    /// The event as the queue hands it out after a put of @p event.
    TSEvent PutAndGet(TSEvent event)
    {
        EXPECT_TRUE(m_queue.Put(&event, false));
        TSEvent taken;
        EXPECT_TRUE(m_queue.GetQData(&taken));
        return taken;
    }
};

TEST_F(QueueStampTest, EventCarriesTheApplicationDataOfThePuttingThread)
{
    TCDebugPrintZOR::GetInstance()->SetAppData("the application that asked for it", 7);
    const TSEvent taken = PutAndGet(EventFor(&m_receiver, 1, 1));
    EXPECT_EQ(taken.appName, "the application that asked for it");
    EXPECT_EQ(taken.appFlag, 7u);
}

TEST_F(QueueStampTest, ApplicationDataIsThatOfTheThreadNotOfTheProcess)
{
    TCDebugPrintZOR::GetInstance()->SetAppData("main", 1);
    TSEvent taken;
    std::thread([&] {
        TCDebugPrintZOR::GetInstance()->SetAppData("other", 2);
        taken = PutAndGet(EventFor(&m_receiver, 1, 1));
    }).join();
    EXPECT_EQ(taken.appName, "other");
    EXPECT_EQ(taken.appFlag, 2u);
}

TEST_F(QueueStampTest, ApplicationDataReplacesWhatTheCallerSet)
{
    TSEvent event = EventFor(&m_receiver, 1, 1);
    event.appName = "set by the caller, which is not for it to do";
    event.appFlag = 9;
    const TSEvent taken = PutAndGet(event);
    EXPECT_EQ(taken.appName, "");
    EXPECT_EQ(taken.appFlag, 0u);
}

TEST_F(QueueStampTest, NegativeApplicationValueIsStampedAsAByte)
{
    TCDebugPrintZOR::GetInstance()->SetAppData("app", -1);
    EXPECT_EQ(PutAndGet(EventFor(&m_receiver, 1, 1)).appFlag, 255u);
}

TEST_F(QueueStampTest, SenderIsTheLowHalfOfThePuttingThreadsId)
{
    TSEvent event = EventFor(&m_receiver, 1, 1);
    event.sender = 77;
    EXPECT_EQ(PutAndGet(event).sender, static_cast<std::uint32_t>(pthread_self()));
    TSEvent taken;
    pthread_t putter{};
    std::thread([&] {
        putter = pthread_self();
        taken = PutAndGet(event);
    }).join();
    EXPECT_EQ(taken.sender, static_cast<std::uint32_t>(putter & 0xFFFFFFFF));
}

TEST_F(QueueStampTest, AsynchronousEventHasNoSemaphoreWhateverTheCallerSet)
{
    TCSemaphore semaphore;
    TSEvent event = EventFor(&m_receiver, 1, 1);
    event.sync = &semaphore;
    EXPECT_EQ(PutAndGet(event).sync, nullptr);
}

TEST_F(QueueStampTest, EveryOtherFieldArrivesAsItWasSent)
{
    TSEvent event = EventFor(&m_receiver, 0x1234567890, 1);
    event.param2 = 2;
    event.param3 = 3;
    event.param4 = 4;
    event.param5 = 0x500000005;
    event.param6 = 0x600000006;
    event.flag = true;
    event.setWrappedData(7);
    const TSEvent taken = PutAndGet(event);
    EXPECT_EQ(taken.receiver, &m_receiver);
    EXPECT_EQ(taken.type, 0x1234567890u);
    EXPECT_EQ(taken.param1, 1u);
    EXPECT_EQ(taken.param2, 2u);
    EXPECT_EQ(taken.param3, 3u);
    EXPECT_EQ(taken.param4, 4u);
    EXPECT_EQ(taken.param5, 0x500000005u);
    EXPECT_EQ(taken.param6, 0x600000006u);
    EXPECT_TRUE(taken.flag);
    EXPECT_EQ(taken.wrappedData, event.wrappedData);
}

TEST_F(QueueStampTest, CallersEventStaysAsItWas)
{
    TCDebugPrintZOR::GetInstance()->SetAppData("app", 5);
    TCSemaphore semaphore;
    TSEvent event = EventFor(&m_receiver, 1, 2);
    event.sync = &semaphore;
    event.sender = 3;
    event.appName = "the caller's own name, long enough to be allocated";
    event.appFlag = 4;
    event.setWrappedData(5);
    ASSERT_TRUE(m_queue.Put(&event, false));
    EXPECT_EQ(event.sync, &semaphore);
    EXPECT_EQ(event.receiver, &m_receiver);
    EXPECT_EQ(event.sender, 3u);
    EXPECT_EQ(event.type, 1u);
    EXPECT_EQ(event.param1, 2u);
    EXPECT_EQ(event.appName, "the caller's own name, long enough to be allocated");
    EXPECT_EQ(event.appFlag, 4u);
    ASSERT_NE(event.wrappedData, nullptr);
    EXPECT_EQ(event.wrappedData.use_count(), 2);
    EXPECT_EQ(event.wrappedData, Probe().Event(0).wrappedData);
}

} // namespace
