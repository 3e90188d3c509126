#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "QueueFixture.h"
#include "QueueSender.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;

constexpr char LONG_NAME[] = "an application name that does not fit into a short string";

/// Attachments and names: how long the queue keeps them, and where it lets go of them.
class QueueAttachmentTest : public QueueTest
{
 protected:
    QueueAttachmentTest() { TCDebugPrintZOR::GetInstance()->SetAppName(LONG_NAME); }

    /// Puts event @p number with a counted attachment that only the queue keeps.
    void PutCounted(std::uint32_t number, bool priority = false)
    {
        TSEvent event = EventFor(&m_receiver, 0, number);
        event.setWrappedData(Counted(&m_living));
        ASSERT_TRUE(m_queue.Put(&event, priority));
    }

    /// An event whose attachment runs @p function when it is released.
    TSEvent EventWith(std::function<void()> function, TCHandler* receiver = nullptr)
    {
        TSEvent event = EventFor(receiver, 0, 77);
        event.setWrappedData(OnRelease(std::move(function)));
        return event;
    }

    /// Something that another thread can only do while nobody holds the queue's lock.
    std::function<void()> UseByAnotherThread()
    {
        return [this] {
            std::thread([this] {
                EXPECT_TRUE(PutFor(&m_other, 5, 500));
                ++m_used;
            }).join();
        };
    }

    std::atomic<int> m_living{0};
    int m_used = 0;
};

TEST_F(QueueAttachmentTest, QueuedCopySharesTheCallersAttachment)
{
    TSEvent event = EventFor(&m_receiver, 0, 1);
    event.setWrappedData(Counted(&m_living));
    ASSERT_TRUE(m_queue.Put(&event, false));
    EXPECT_EQ(event.wrappedData.use_count(), 2);
    ASSERT_TRUE(m_queue.Delete(&m_receiver, nullptr));
    EXPECT_EQ(event.wrappedData.use_count(), 1);
    EXPECT_EQ(m_living, 1);
}

TEST_F(QueueAttachmentTest, RefusedPutKeepsNoShareOfTheAttachment)
{
    PutAll(1, 240);
    TSEvent event = EventFor(&m_receiver, 0, 241);
    event.setWrappedData(1);
    EXPECT_FALSE(m_queue.Put(&event, false));
    EXPECT_EQ(event.wrappedData.use_count(), 1);
    EXPECT_FALSE(m_queue.PutSync(&event, true, false));
    EXPECT_EQ(event.wrappedData.use_count(), 1);
}

TEST_F(QueueAttachmentTest, WaitingSenderKeepsNoShareButItsOwn)
{
    TSEvent event = EventFor(&m_receiver, 0, 1);
    event.setWrappedData(Counted(&m_living));
    SyncSender sender(m_queue, event); // has a copy of its own
    EXPECT_EQ(event.wrappedData.use_count(), 3);
    ASSERT_TRUE(m_queue.Delete(&m_receiver, nullptr));
    EXPECT_TRUE(sender.Result());
}

TEST_F(QueueAttachmentTest, TakenEventIsTheOnlyOneLeftWithTheAttachment)
{
    PutCounted(1);
    auto event = std::make_unique<TSEvent>();
    ASSERT_TRUE(m_queue.Get(event.get(), 0UL));
    EXPECT_EQ(event->wrappedData.use_count(), 1);
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
    event.reset();
    EXPECT_EQ(m_living, 0);
}

TEST_F(QueueAttachmentTest, EveryGetVacatesTheSlot)
{
    TSEvent event;
    for (std::uint32_t i = 0; i < 5; ++i) {
        PutCounted(i, i % 2 == 0);
    }
    ASSERT_TRUE(m_queue.GetQData(&event));
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
    ASSERT_TRUE(m_queue.GetSyncQData(&event, false));
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
    ASSERT_TRUE(m_queue.GetSync(&event, 0, false));
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
    ASSERT_TRUE(m_queue.Get(&event, &m_receiver, 0));
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
    ASSERT_TRUE(m_queue.Get(&event, &m_receiver));
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
    EXPECT_EQ(m_living, 1);
    EXPECT_EQ(event.appName, LONG_NAME);
}

TEST_F(QueueAttachmentTest, SelectiveGetKeepsTheAttachmentsOfTheOthers)
{
    for (std::uint32_t i = 0; i < 5; ++i) {
        PutCounted(i);
    }
    ASSERT_TRUE(PutFor(&m_other, 0, 5));
    PutCounted(6);
    TSEvent event;
    ASSERT_TRUE(m_queue.Get(&event, &m_other));
    EXPECT_EQ(event.wrappedData, nullptr);
    EXPECT_EQ(m_living, 6);
    for (std::uint64_t i = 0; i < 6; ++i) {
        EXPECT_NE(Probe().Event(i).wrappedData, nullptr);
        EXPECT_EQ(Probe().Event(i).appName, LONG_NAME);
    }
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
}

TEST_F(QueueAttachmentTest, SelectiveGetWithoutAMatchKeepsEveryNameAndAttachment)
{
    for (std::uint32_t i = 0; i < 5; ++i) {
        PutCounted(i);
    }
    TSEvent event;
    EXPECT_FALSE(m_queue.Get(&event, &m_other));
    EXPECT_FALSE(m_queue.Delete(&m_other, nullptr));
    EXPECT_EQ(m_living, 5);
    for (std::uint64_t i = 0; i < 5; ++i) {
        EXPECT_NE(Probe().Event(i).wrappedData, nullptr);
        EXPECT_EQ(Probe().Event(i).appName, LONG_NAME);
    }
}

TEST_F(QueueAttachmentTest, DeletionReleasesTheAttachmentBeforeItReturns)
{
    for (std::uint32_t i = 0; i < 3; ++i) {
        PutCounted(i);
        ASSERT_TRUE(PutFor(&m_other, 0, 10 + i));
    }
    EXPECT_TRUE(m_queue.DeleteEx(&m_receiver, 0, 1, nullptr));
    EXPECT_EQ(m_living, 2);
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
    EXPECT_EQ(m_living, 0);
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
}

TEST_F(QueueAttachmentTest, DeletionOf256EventsReleasesAllOfThem)
{
    for (std::uint32_t i = 0; i < 256; ++i) {
        PutCounted(i, true);
    }
    EXPECT_EQ(m_living, 256);
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
    EXPECT_EQ(m_living, 0);
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
}

TEST_F(QueueAttachmentTest, VacatedSlotsStayEmptyAroundTheWrap)
{
    TSEvent event;
    for (std::uint32_t i = 0; i < 600; ++i) {
        PutCounted(i, i % 5 == 0);
        PutCounted(i);
        ASSERT_TRUE(m_queue.GetSync(&event, 0, false));
        if (i % 50 == 0) {
            ASSERT_TRUE(m_queue.DeleteEx(&m_receiver, 0, 45, nullptr));
        }
        ASSERT_TRUE(Probe().VacatedSlotsAreEmpty());
        ASSERT_EQ(m_living, static_cast<int>(m_queue.Size()) + 1); // and the one taken last
    }
}

TEST_F(QueueAttachmentTest, DeletionBreaksAPromise)
{
    std::promise<bool> promise;
    std::future<bool> future = promise.get_future();
    {
        TSEvent event = EventFor(&m_receiver, 0, 1);
        event.setWrappedData(std::move(promise));
        ASSERT_TRUE(m_queue.Put(&event, false));
    }
    ASSERT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    ASSERT_TRUE(m_queue.Delete(&m_receiver, nullptr));
    ASSERT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    EXPECT_THROW(future.get(), std::future_error);
}

TEST_F(QueueAttachmentTest, DestroyKeepsAttachmentsAndDestructionReleasesThem)
{
    auto queue = std::make_unique<TCQueue>();
    ASSERT_TRUE(queue->Create());
    for (std::uint32_t i = 0; i < 5; ++i) {
        TSEvent event = EventFor(&m_receiver, 0, i);
        event.setWrappedData(Counted(&m_living));
        ASSERT_TRUE(queue->Put(&event, i % 2 == 0));
    }
    queue->Destroy();
    EXPECT_EQ(m_living, 5);
    queue.reset();
    EXPECT_EQ(m_living, 0);
}

TEST_F(QueueAttachmentTest, DestructionBreaksAPromise)
{
    std::promise<bool> promise;
    std::future<bool> future = promise.get_future();
    {
        TCQueue queue;
        ASSERT_TRUE(queue.Create());
        TSEvent event = EventFor(&m_receiver, 0, 1);
        event.setWrappedData(std::move(promise));
        ASSERT_TRUE(queue.Put(&event, false));
        queue.Destroy();
    }
    EXPECT_THROW(future.get(), std::future_error);
}

TEST_F(QueueAttachmentTest, GetReplacesTheTargetsNameAndAttachment)
{
    std::atomic<int> old{0};
    PutCounted(1);
    TSEvent event;
    event.appName = std::string(1000, 'x');
    event.setWrappedData(Counted(&old));
    ASSERT_TRUE(m_queue.Get(&event, 0UL));
    EXPECT_EQ(old, 0);
    EXPECT_EQ(event.appName, LONG_NAME);
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty()); // not swapped into the slot
}

TEST_F(QueueAttachmentTest, FailingGetsLeaveTheTargetsAttachment)
{
    TSEvent event;
    event.setWrappedData(Counted(&m_living));
    EXPECT_FALSE(m_queue.GetSync(&event, 0, false));
    EXPECT_FALSE(m_queue.GetQData(&event));
    EXPECT_FALSE(m_queue.Get(&event, &m_receiver));
    SyncSender sender(m_queue, EventFor(&m_receiver, 0, 1));
    EXPECT_FALSE(m_queue.Get(&event, 0UL));
    EXPECT_FALSE(m_queue.GetQData(&event));
    EXPECT_EQ(m_living, 1);
    EXPECT_NE(event.wrappedData, nullptr);
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
}

TEST_F(QueueAttachmentTest, WaitingGetReleasesTheTargetsAttachmentOutsideTheLock)
{
    ASSERT_TRUE(Put(1));
    TSEvent event = EventWith(UseByAnotherThread());
    ASSERT_TRUE(m_queue.GetSync(&event, 0, false));
    EXPECT_EQ(event.param1, 1u);
    EXPECT_EQ(m_used, 1);
    EXPECT_THAT(Drain(), ElementsAre(500));
}

TEST_F(QueueAttachmentTest, GetWithoutWaitingReleasesTheTargetsAttachmentOutsideTheLock)
{
    ASSERT_TRUE(Put(1));
    TSEvent event = EventWith(UseByAnotherThread());
    ASSERT_TRUE(m_queue.GetQData(&event));
    EXPECT_EQ(event.param1, 1u);
    EXPECT_EQ(m_used, 1);
    EXPECT_THAT(Drain(), ElementsAre(500));
}

TEST_F(QueueAttachmentTest, SelectiveGetReleasesTheTargetsAttachmentOutsideTheLock)
{
    PutAll(1, 3);
    ASSERT_TRUE(PutFor(&m_other, 0, 4));
    PutAll(5, 6);
    TSEvent event = EventWith(UseByAnotherThread());
    ASSERT_TRUE(m_queue.Get(&event, &m_other, 0));
    EXPECT_EQ(event.param1, 4u);
    EXPECT_EQ(m_used, 1);
    EXPECT_THAT(Drain(), ElementsAre(1, 2, 3, 5, 6, 500));
}

TEST_F(QueueAttachmentTest, DeletionReleasesAttachmentsOutsideTheLock)
{
    ASSERT_TRUE(PutFor(&m_other, 0, 1));
    for (int i = 0; i < 3; ++i) {
        TSEvent event = EventWith(UseByAnotherThread(), &m_receiver);
        ASSERT_TRUE(m_queue.Put(&event, false));
    }
    ASSERT_TRUE(PutFor(&m_other, 0, 2));
    unsigned int deleted = 0;
    ASSERT_TRUE(m_queue.Delete(&m_receiver, &deleted));
    EXPECT_EQ(deleted, 3u);
    EXPECT_EQ(m_used, 3);
    EXPECT_THAT(Drain(), ElementsAre(1, 2, 500, 500, 500));
}

TEST_F(QueueAttachmentTest, AttachmentReleasedByAGetMayUseTheQueue)
{
    PutAll(1, 3);
    TSEvent event = EventWith([this] {
        EXPECT_TRUE(Put(10, true));
        EXPECT_TRUE(Put(11));
        TSEvent inner;
        EXPECT_TRUE(m_queue.Get(&inner, 0UL));
        EXPECT_EQ(inner.param1, 10u);
    });
    ASSERT_TRUE(m_queue.Get(&event, 0UL));
    EXPECT_EQ(event.param1, 1u);
    EXPECT_TRUE(Probe().IndicesAgree());
    EXPECT_THAT(Drain(), ElementsAre(2, 3, 11));
}

TEST_F(QueueAttachmentTest, AttachmentReleasedByASelectiveGetMayUseTheQueue)
{
    PutAll(1, 3);
    ASSERT_TRUE(PutFor(&m_other, 0, 4));
    TSEvent event = EventWith([this] {
        EXPECT_TRUE(m_queue.DeleteEx(&m_receiver, 0, 1, nullptr));
        EXPECT_TRUE(Put(10, true));
        EXPECT_TRUE(Put(11));
    });
    ASSERT_TRUE(m_queue.Get(&event, &m_other));
    EXPECT_EQ(event.param1, 4u);
    EXPECT_TRUE(Probe().IndicesAgree());
    EXPECT_THAT(Drain(), ElementsAre(10, 2, 3, 11));
}

TEST_F(QueueAttachmentTest, AttachmentReleasedByADeletionMayUseTheQueue)
{
    PutAll(1, 2);
    for (std::uint32_t i = 0; i < 3; ++i) {
        TSEvent event = EventWith(
            [this, i] {
                EXPECT_TRUE(Put(100 + i));
                EXPECT_TRUE(PutFor(&m_other, 0, 200 + i));
                EXPECT_TRUE(m_queue.Delete(&m_other, 0, nullptr));
            },
            &m_other);
        ASSERT_TRUE(m_queue.Put(&event, false));
        ASSERT_TRUE(Put(3 + i));
    }
    unsigned int deleted = 0;
    ASSERT_TRUE(m_queue.Delete(&m_other, &deleted));
    EXPECT_EQ(deleted, 3u);
    EXPECT_TRUE(Probe().IndicesAgree());
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
    EXPECT_THAT(Drain(), ElementsAre(1, 2, 3, 4, 5, 100, 101, 102));
}

TEST_F(QueueAttachmentTest, AttachmentLeftByAnEarlierLifeMayUseTheQueueWhenItIsReleased)
{
    unsigned int released = 0;
    {
        TSEvent event = EventWith(
            [this, &released] {
                if (m_queue.FlagCreate()) {
                    ++released;
                    EXPECT_TRUE(Put(10));
                }
            },
            &m_receiver);
        ASSERT_TRUE(m_queue.Put(&event, false));
    }
    m_queue.Destroy();
    ASSERT_TRUE(m_queue.Create());
    ASSERT_TRUE(Put(1));
    ASSERT_TRUE(Put(2));
    const std::vector<std::uint32_t> order = Drain();
    // When it is released is left open, and so is the place of 10.
    EXPECT_EQ(std::count(order.begin(), order.end(), 1u), 1);
    EXPECT_EQ(std::count(order.begin(), order.end(), 2u), 1);
    EXPECT_EQ(std::count(order.begin(), order.end(), 10u), released);
    EXPECT_EQ(order.size(), 2u + released);
    EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
}

TEST_F(QueueAttachmentTest, AttachmentLeftByAnEarlierLifeIsReleasedOutsideTheLock)
{
    for (int round = 0; round < 4; ++round) {
        const bool priority = round % 2 == 1;
        TCDebugPrintZOR::GetInstance()->SetAppName(round < 2 ? LONG_NAME : "short");
        m_queue.Destroy();
        ASSERT_TRUE(m_queue.Create()); // so that both lives begin at the same slot
        {
            TSEvent event = EventWith(
                [this] {
                    if (m_queue.FlagCreate()) {
                        UseByAnotherThread()();
                    }
                },
                &m_receiver);
            ASSERT_TRUE(m_queue.Put(&event, priority));
        }
        m_queue.Destroy();
        ASSERT_TRUE(m_queue.Create());
        ASSERT_TRUE(Put(1, priority));
        const std::vector<std::uint32_t> order = Drain();
        EXPECT_EQ(std::count(order.begin(), order.end(), 1u), 1);
    }
    EXPECT_EQ(m_used, 4);
}

TEST_F(QueueAttachmentTest, NameLeftByAnEarlierLifeGivesItsMemoryUp)
{
    for (const char* name : {LONG_NAME, "short"}) {
        TCDebugPrintZOR::GetInstance()->SetAppName(LONG_NAME);
        m_queue.Destroy();
        ASSERT_TRUE(m_queue.Create());
        ASSERT_TRUE(Put(1));
        m_queue.Destroy();
        ASSERT_TRUE(m_queue.Create());
        TCDebugPrintZOR::GetInstance()->SetAppName(name);
        ASSERT_TRUE(Put(2));
        TSEvent event;
        ASSERT_TRUE(m_queue.GetSync(&event, 0, false));
        EXPECT_EQ(event.appName, name);
        EXPECT_EQ(event.appName.capacity(), std::string(name).capacity());
        EXPECT_TRUE(Probe().VacatedSlotsAreEmpty());
    }
}

} // namespace
