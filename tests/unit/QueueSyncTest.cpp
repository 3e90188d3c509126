#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "AllocationSeam.h"
#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "QueueFixture.h"
#include "QueueSender.h"
#include "Wait.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Puts that wait for the handling of their event.
class QueueSyncTest : public QueueTest
{
 protected:
    static constexpr int REPLY = 0; // the first semaphore made once the queue exists

    TSEvent m_event;
};

TEST_F(QueueSyncTest, SenderWaitsUntilItsEventHasBeenHandled)
{
    const ConditionWatch watch;
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 1));
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(REPLY); }));
    ASSERT_TRUE(m_queue.GetSync(&m_event, 0, false));
    EXPECT_FALSE(sender.Returned());
    ASSERT_NE(m_event.sync, nullptr);
    EXPECT_FALSE(m_event.sync->Try(0)); // taking the event gives nothing
    m_event.sync->Give();
    EXPECT_TRUE(sender.Result());
}

TEST_F(QueueSyncTest, SenderHoldsNoLockWhileItWaits)
{
    const ConditionWatch watch;
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 1));
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(REPLY); }));
    EXPECT_EQ(Probe().LockOwner(), 0u);
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
}

TEST_F(QueueSyncTest, CallersEventIsNotChanged)
{
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 1));
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
    EXPECT_EQ(sender.SyncLeft(), nullptr);
}

TEST_F(QueueSyncTest, OneReplySemaphoreIsMadeAndDestroyed)
{
    const ConditionWatch watch;
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 1));
    EXPECT_THAT(watch.Destroyed(), IsEmpty());
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
    EXPECT_TRUE(sender.Result());
    EXPECT_EQ(watch.Made(), 1);
    EXPECT_THAT(watch.Destroyed(), ElementsAre(REPLY));
}

TEST_F(QueueSyncTest, AsynchronousPutMakesNoSemaphore)
{
    const ConditionWatch watch;
    EXPECT_TRUE(Put(1));
    EXPECT_TRUE(Put(2, true));
    EXPECT_EQ(watch.Made(), 0);
}

TEST_F(QueueSyncTest, RefusedNormalPutReturnsFalseAtOnceAndKeepsNoSemaphore)
{
    PutAll(1, 240);
    TSEvent event = EventFor(&m_receiver, 1, 1000);
    const ConditionWatch watch;
    EXPECT_FALSE(m_queue.PutSync(&event, true, false));
    EXPECT_EQ(watch.Made(), 1);
    EXPECT_THAT(watch.Destroyed(), ElementsAre(REPLY));
    EXPECT_EQ(m_queue.Size(), 240u);
    EXPECT_EQ(Units(), 240);
    EXPECT_EQ(Probe().LockOwner(), 0u);
}

TEST_F(QueueSyncTest, RefusedPriorityPutReturnsFalseAtOnceAndKeepsNoSemaphore)
{
    for (std::uint32_t i = 0; i < 256; ++i) {
        ASSERT_TRUE(Put(i, true));
    }
    TSEvent event = EventFor(&m_receiver, 1, 1000);
    const ConditionWatch watch;
    EXPECT_FALSE(m_queue.PutSync(&event, true, true));
    EXPECT_EQ(watch.Made(), 1);
    EXPECT_THAT(watch.Destroyed(), ElementsAre(REPLY));
    EXPECT_EQ(m_queue.Size(), 256u);
}

TEST_F(QueueSyncTest, RefusedPutAssertsNothing)
{
    PutAll(1, 240);
    EXPECT_THAT(AssertionsOf([this] {
                    TSEvent event = EventFor(&m_receiver, 1, 1000);
                    EXPECT_FALSE(m_queue.PutSync(&event, true, false));
                }),
                IsEmpty());
}

TEST_F(QueueSyncTest, WithoutMemoryForTheReplyNothingIsQueued)
{
    TSEvent event = EventFor(&m_receiver, 1, 1);
    event.setWrappedData(1);
    {
        const FailingAllocation noMemory(0);
        EXPECT_FALSE(m_queue.PutSync(&event, true, false));
    }
    EXPECT_EQ(m_queue.Size(), 0u);
    EXPECT_EQ(Units(), 0);
    EXPECT_EQ(event.wrappedData.use_count(), 1);
    EXPECT_EQ(event.sync, nullptr);
}

TEST_F(QueueSyncTest, WithoutAConditionForTheReplyNothingIsQueued)
{
    TSEvent event = EventFor(&m_receiver, 1, 1);
    {
        const ConditionWatch watch(REPLY);
        EXPECT_FALSE(m_queue.PutSync(&event, true, true));
    }
    EXPECT_EQ(m_queue.Size(), 0u);
    EXPECT_EQ(Units(), 0);
    EXPECT_TRUE(Put(1)); // an asynchronous put needs no reply
}

TEST_F(QueueSyncTest, DeletionReleasesTheSenderWhosePutReturnsTrue)
{
    unsigned int deleted = 0;
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 1));
    EXPECT_TRUE(m_queue.Delete(&m_receiver, 1, &deleted));
    EXPECT_EQ(deleted, 1u);
    EXPECT_TRUE(sender.Result());
    EXPECT_EQ(m_queue.Size(), 0u);
}

TEST_F(QueueSyncTest, DeletedRecordForgetsTheReply)
{
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 1));
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
    EXPECT_EQ(Probe().Slot(0).sync, nullptr);
}

TEST_F(QueueSyncTest, DeletionOfOthersDoesNotReleaseTheSender)
{
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 1));
    PutFor(&m_other, 1, 2);
    EXPECT_TRUE(m_queue.Delete(&m_other, nullptr));
    EXPECT_FALSE(m_queue.Delete(&m_receiver, 2, nullptr));
    ASSERT_NE(Probe().Event(0).sync, nullptr);
    EXPECT_FALSE(Probe().Event(0).sync->Try(0));
    EXPECT_FALSE(sender.Returned());
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
    EXPECT_TRUE(sender.Result());
}

TEST_F(QueueSyncTest, SynchronousPriorityPutOvertakes)
{
    PutAll(1, 2);
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 3), true);
    ASSERT_TRUE(m_queue.GetSync(&m_event, 0, false));
    EXPECT_EQ(m_event.param1, 3u);
    m_event.sync->Give();
    EXPECT_TRUE(sender.Result());
    EXPECT_THAT(Drain(), ElementsAre(1, 2));
}

TEST_F(QueueSyncTest, SynchronousNormalPutWaitsForItsTurn)
{
    PutAll(1, 2);
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 3));
    for (std::uint32_t number = 1; number <= 3; ++number) {
        ASSERT_TRUE(m_queue.GetSync(&m_event, 0, false));
        EXPECT_EQ(m_event.param1, number);
        EXPECT_EQ(m_event.sync != nullptr, number == 3);
    }
    m_event.sync->Give();
    EXPECT_TRUE(sender.Result());
}

TEST_F(QueueSyncTest, EverySenderHasItsOwnReply)
{
    SyncSender first(m_queue, EventFor(&m_receiver, 1, 1));
    SyncSender second(m_queue, EventFor(&m_receiver, 1, 2));
    TSEvent other;
    ASSERT_TRUE(m_queue.GetSync(&m_event, 0, false));
    ASSERT_TRUE(m_queue.GetSync(&other, 0, false));
    ASSERT_NE(m_event.sync, other.sync);
    other.sync->Give();
    EXPECT_TRUE(second.Result());
    EXPECT_FALSE(first.Returned());
    m_event.sync->Give();
    EXPECT_TRUE(first.Result());
}

TEST_F(QueueSyncTest, StampsAreThoseOfTheWaitingSender)
{
    std::atomic<std::uint32_t> id{0};
    std::thread sender([&] {
        id = static_cast<std::uint32_t>(pthread_self());
        TCDebugPrintZOR::GetInstance()->SetAppData("waiting", 3);
        TSEvent event = EventFor(&m_receiver, 1, 1);
        EXPECT_TRUE(m_queue.PutSync(&event, true, false));
        EXPECT_EQ(event.appName, "");
        EXPECT_EQ(event.sender, 0u);
    });
    ASSERT_TRUE(m_queue.GetSync(&m_event, FOR_EVER, false));
    EXPECT_EQ(m_event.appName, "waiting");
    EXPECT_EQ(m_event.appFlag, 3u);
    EXPECT_EQ(m_event.sender, id);
    m_event.sync->Give();
    sender.join();
}

TEST_F(QueueSyncTest, DestroyDoesNotReleaseTheSender)
{
    const ConditionWatch watch;
    SyncSender sender(m_queue, EventFor(&m_receiver, 1, 1));
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(REPLY); }));
    m_queue.Destroy();
    ASSERT_NE(Probe().Event(0).sync, nullptr);
    EXPECT_FALSE(Probe().Event(0).sync->Try(0));
    EXPECT_FALSE(sender.Returned());
    Probe().Event(0).sync->Give(); // nobody else does it
    EXPECT_TRUE(sender.Result());
}

TEST_F(QueueSyncTest, DestructionOfTheQueueDoesNotReleaseTheSender)
{
    const ConditionWatch watch;
    auto queue = std::make_unique<TCQueue>();
    ASSERT_TRUE(queue->Create());
    SyncSender sender(*queue, EventFor(&m_receiver, 1, 1));
    constexpr int REPLY_OF_SECOND = 2; // behind those of the queue
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(REPLY_OF_SECOND); }));
    TCSemaphore* const reply = QueueProbe(*queue).Event(0).sync;
    queue->Destroy();
    queue.reset();
    EXPECT_FALSE(reply->Try(0));
    EXPECT_FALSE(sender.Returned());
    reply->Give();
    EXPECT_TRUE(sender.Result());
}

TEST_F(QueueSyncTest, ReplyMayBeGivenWhileTheSenderIsOnItsWay)
{
    constexpr std::uint32_t ROUNDS = 5000;
    std::thread consumer([&] {
        TSEvent event;
        for (std::uint32_t i = 0; i < ROUNDS; ++i) {
            EXPECT_TRUE(m_queue.GetSync(&event, FOR_EVER, false));
            EXPECT_EQ(event.param1, i);
            event.sync->Give();
        }
    });
    for (std::uint32_t i = 0; i < ROUNDS; ++i) {
        TSEvent event = EventFor(&m_receiver, 1, i);
        EXPECT_TRUE(m_queue.PutSync(&event, true, i % 2 == 0));
    }
    consumer.join();
}

} // namespace
