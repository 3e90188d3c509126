#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QueueFixture.h"
#include "QueueSender.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Gets, counts and deletions by receiver and type.
class QueueSelectTest : public QueueTest
{
 protected:
    static constexpr unsigned long A = 10;
    static constexpr unsigned long B = 11;
    static constexpr const TCHandler* NOBODY = nullptr;

    QueueSelectTest() { m_event.param1 = UNTOUCHED; }

    /// Puts 1 to 6: for m_receiver of type A (1, 4), of type B (2, 6), for m_other of type A (3,
    /// 5).
    void PutSix()
    {
        ASSERT_TRUE(PutFor(&m_receiver, A, 1));
        ASSERT_TRUE(PutFor(&m_receiver, B, 2));
        ASSERT_TRUE(PutFor(&m_other, A, 3));
        ASSERT_TRUE(PutFor(&m_receiver, A, 4));
        ASSERT_TRUE(PutFor(&m_other, A, 5));
        ASSERT_TRUE(PutFor(&m_receiver, B, 6));
    }

    TSEvent m_event;
    unsigned int m_number = UNTOUCHED;
};

TEST_F(QueueSelectTest, GetByReceiverAndTypeTakesTheOldestMatch)
{
    PutSix();
    EXPECT_TRUE(m_queue.Get(&m_event, &m_receiver, B));
    EXPECT_EQ(m_event.param1, 2u);
    EXPECT_EQ(m_event.receiver, &m_receiver);
    EXPECT_EQ(m_event.type, B);
    EXPECT_THAT(Drain(), ElementsAre(1, 3, 4, 5, 6));
}

TEST_F(QueueSelectTest, GetByReceiverTakesItsOldestEventOfAnyType)
{
    PutSix();
    EXPECT_TRUE(m_queue.Get(&m_event, &m_other));
    EXPECT_EQ(m_event.param1, 3u);
    EXPECT_TRUE(m_queue.Get(&m_event, &m_receiver));
    EXPECT_EQ(m_event.param1, 1u);
    EXPECT_TRUE(m_queue.Get(&m_event, &m_receiver));
    EXPECT_EQ(m_event.param1, 2u);
    EXPECT_THAT(Drain(), ElementsAre(4, 5, 6));
}

TEST_F(QueueSelectTest, GetWithoutAMatchChangesNothing)
{
    PutSix();
    EXPECT_FALSE(m_queue.Get(&m_event, &m_other, B));
    EXPECT_FALSE(m_queue.Get(&m_event, NOBODY));
    EXPECT_EQ(m_event.param1, UNTOUCHED);
    EXPECT_EQ(Units(), 6);
    EXPECT_TRUE(Probe().IndicesAgree());
    EXPECT_THAT(Drain(), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(QueueSelectTest, GetOnAnEmptyQueueReturnsFalse)
{
    m_queue.Give();
    EXPECT_FALSE(m_queue.Get(&m_event, &m_receiver, A));
    EXPECT_FALSE(m_queue.Get(&m_event, &m_receiver));
    EXPECT_EQ(m_event.param1, UNTOUCHED);
    EXPECT_EQ(Units(), 1);
}

TEST_F(QueueSelectTest, GetTakesOneUnit)
{
    PutSix();
    m_queue.Give();
    EXPECT_TRUE(m_queue.Get(&m_event, &m_receiver, A));
    EXPECT_EQ(Units(), 6);
}

TEST_F(QueueSelectTest, GetDoesNotNeedAUnit)
{
    PutSix();
    while (m_queue.Try(0)) {
    }
    EXPECT_TRUE(m_queue.Get(&m_event, &m_receiver));
    EXPECT_EQ(m_event.param1, 1u);
    EXPECT_EQ(Units(), 0);
}

TEST_F(QueueSelectTest, GetPassesOverSynchronousEvents)
{
    SyncSender sender(m_queue, EventFor(&m_receiver, A, 1));
    PutFor(&m_receiver, A, 2);
    PutFor(&m_receiver, A, 3);
    EXPECT_TRUE(m_queue.Get(&m_event, &m_receiver, A));
    EXPECT_EQ(m_event.param1, 2u);
    EXPECT_EQ(m_event.sync, nullptr);
    EXPECT_TRUE(m_queue.Get(&m_event, &m_receiver));
    EXPECT_EQ(m_event.param1, 3u);
    EXPECT_FALSE(m_queue.Get(&m_event, &m_receiver, A));
    EXPECT_FALSE(m_queue.Get(&m_event, &m_receiver));
    EXPECT_EQ(m_queue.Size(), 1u);
    EXPECT_EQ(Probe().Event(0).param1, 1u);
    EXPECT_NE(Probe().Event(0).sync, nullptr);
    EXPECT_FALSE(sender.Returned());
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
}

TEST_F(QueueSelectTest, GetTakesFromEveryPlaceAroundTheWrap)
{
    constexpr std::uint32_t EVENTS = 8;
    for (std::uint64_t start = 256 - EVENTS; start <= 256; ++start) {
        for (std::uint32_t taken = 0; taken < EVENTS; ++taken) {
            m_queue.Destroy();
            ASSERT_TRUE(m_queue.Create());
            Rotate(start);
            std::vector<std::uint32_t> others;
            for (std::uint32_t i = 0; i < EVENTS; ++i) {
                ASSERT_TRUE(PutFor(i == taken ? &m_other : &m_receiver, A, i));
                if (i != taken) {
                    others.push_back(i);
                }
            }
            ASSERT_TRUE(m_queue.Get(&m_event, &m_other, A));
            ASSERT_EQ(m_event.param1, taken);
            ASSERT_TRUE(Probe().IndicesAgree());
            ASSERT_EQ(Drain(), others);
        }
    }
}

TEST_F(QueueSelectTest, GetFreesASlotInAFullQueue)
{
    PutAll(1, 239);
    ASSERT_TRUE(PutFor(&m_other, A, 240));
    for (std::uint32_t i = 0; i < 16; ++i) {
        ASSERT_TRUE(Put(1000 + i, true));
    }
    EXPECT_TRUE(m_queue.Get(&m_event, &m_other));
    EXPECT_EQ(Probe().Tail(), 239u);
    EXPECT_TRUE(Put(2000, true));
    EXPECT_FALSE(Put(2001, true));
    EXPECT_EQ(m_queue.Size(), 256u);
}

TEST_F(QueueSelectTest, EventsPutAfterASelectiveGetFollowTheOthers)
{
    PutSix();
    EXPECT_TRUE(m_queue.Get(&m_event, &m_other));
    EXPECT_TRUE(Put(7));
    EXPECT_TRUE(Put(8, true));
    EXPECT_THAT(Drain(), ElementsAre(8, 1, 2, 4, 5, 6, 7));
}

TEST_F(QueueSelectTest, FindCountsByReceiver)
{
    PutSix();
    EXPECT_TRUE(m_queue.Find(&m_receiver, &m_number));
    EXPECT_EQ(m_number, 4u);
    EXPECT_TRUE(m_queue.Find(&m_other, &m_number));
    EXPECT_EQ(m_number, 2u);
}

TEST_F(QueueSelectTest, FindCountsByReceiverAndType)
{
    PutSix();
    EXPECT_TRUE(m_queue.Find(&m_receiver, B, &m_number));
    EXPECT_EQ(m_number, 2u);
    EXPECT_FALSE(m_queue.Find(&m_other, B, &m_number));
    EXPECT_EQ(m_number, 0u);
}

TEST_F(QueueSelectTest, FindChangesNothing)
{
    PutSix();
    EXPECT_TRUE(m_queue.Find(&m_receiver, A, &m_number));
    EXPECT_EQ(Units(), 6);
    EXPECT_THAT(Drain(), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(QueueSelectTest, FindOnAnEmptyQueueStoresZero)
{
    EXPECT_FALSE(m_queue.Find(&m_receiver, &m_number));
    EXPECT_EQ(m_number, 0u);
    m_number = UNTOUCHED;
    EXPECT_FALSE(m_queue.Find(&m_receiver, A, &m_number));
    EXPECT_EQ(m_number, 0u);
}

TEST_F(QueueSelectTest, FindNeedsNoPlaceForTheNumber)
{
    PutSix();
    EXPECT_TRUE(m_queue.Find(&m_receiver, nullptr));
    EXPECT_TRUE(m_queue.Find(&m_receiver, A, nullptr));
    EXPECT_FALSE(m_queue.Find(&m_other, B, nullptr));
    Drain();
    EXPECT_FALSE(m_queue.Find(&m_receiver, nullptr));
}

TEST_F(QueueSelectTest, FindCountsSynchronousEventsToo)
{
    SyncSender sender(m_queue, EventFor(&m_receiver, A, 1));
    PutFor(&m_receiver, A, 2);
    EXPECT_TRUE(m_queue.Find(&m_receiver, &m_number));
    EXPECT_EQ(m_number, 2u);
    EXPECT_TRUE(m_queue.Find(&m_receiver, A, &m_number));
    EXPECT_EQ(m_number, 2u);
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
}

TEST_F(QueueSelectTest, FindLooksAcrossTheWrapAndAtQueuedEventsOnly)
{
    Rotate(253);
    PutSix();
    EXPECT_TRUE(m_queue.Find(&m_receiver, A, &m_number));
    EXPECT_EQ(m_number, 2u);
    Drain(); // the receivers stay in the vacated records
    EXPECT_FALSE(m_queue.Find(&m_receiver, A, &m_number));
    EXPECT_EQ(m_number, 0u);
}

TEST_F(QueueSelectTest, EventsWithoutAReceiverMatchNull)
{
    ASSERT_TRUE(PutFor(nullptr, A, 1));
    ASSERT_TRUE(Put(2));
    EXPECT_TRUE(m_queue.Find(nullptr, &m_number));
    EXPECT_EQ(m_number, 1u);
    EXPECT_TRUE(m_queue.Delete(nullptr, A, &m_number));
    EXPECT_EQ(m_number, 1u);
    EXPECT_THAT(Drain(), ElementsAre(2));
}

TEST_F(QueueSelectTest, DeleteByReceiverRemovesAllOfItsEvents)
{
    PutSix();
    EXPECT_TRUE(m_queue.Delete(&m_receiver, &m_number));
    EXPECT_EQ(m_number, 4u);
    EXPECT_TRUE(Probe().IndicesAgree());
    EXPECT_THAT(Drain(), ElementsAre(3, 5));
}

TEST_F(QueueSelectTest, DeleteByReceiverAndTypeRemovesThoseOnly)
{
    PutSix();
    EXPECT_TRUE(m_queue.Delete(&m_receiver, A, &m_number));
    EXPECT_EQ(m_number, 2u);
    EXPECT_THAT(Drain(), ElementsAre(2, 3, 5, 6));
}

TEST_F(QueueSelectTest, DeleteWithoutAMatchStoresZeroAndChangesNothing)
{
    PutSix();
    EXPECT_FALSE(m_queue.Delete(&m_other, B, &m_number));
    EXPECT_EQ(m_number, 0u);
    m_number = UNTOUCHED;
    EXPECT_FALSE(m_queue.Delete(nullptr, &m_number));
    EXPECT_EQ(m_number, 0u);
    EXPECT_EQ(Units(), 6);
    EXPECT_THAT(Drain(), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(QueueSelectTest, DeleteOnAnEmptyQueueStoresZeroAndTakesNoUnit)
{
    m_queue.Give();
    EXPECT_FALSE(m_queue.Delete(&m_receiver, &m_number));
    EXPECT_EQ(m_number, 0u);
    m_number = UNTOUCHED;
    EXPECT_FALSE(m_queue.Delete(&m_receiver, A, &m_number));
    EXPECT_EQ(m_number, 0u);
    m_number = UNTOUCHED;
    EXPECT_FALSE(m_queue.DeleteEx(&m_receiver, A, 5, &m_number));
    EXPECT_EQ(m_number, 0u);
    EXPECT_EQ(Units(), 1);
}

TEST_F(QueueSelectTest, DeleteNeedsNoPlaceForTheNumber)
{
    PutSix();
    EXPECT_TRUE(m_queue.DeleteEx(&m_receiver, A, 1, nullptr));
    EXPECT_TRUE(m_queue.Delete(&m_receiver, B, nullptr));
    EXPECT_TRUE(m_queue.Delete(&m_other, nullptr));
    EXPECT_FALSE(m_queue.Delete(&m_other, nullptr));
    EXPECT_THAT(Drain(), ElementsAre(4));
}

TEST_F(QueueSelectTest, DeleteTakesOneUnitForEachRemovedEvent)
{
    PutSix();
    m_queue.Give();
    m_queue.Give();
    EXPECT_TRUE(m_queue.Delete(&m_receiver, nullptr));
    EXPECT_EQ(Units(), 4); // six puts and two, less four
    EXPECT_TRUE(m_queue.DeleteEx(&m_other, A, 1, nullptr));
    EXPECT_EQ(Units(), 3);
}

TEST_F(QueueSelectTest, DeleteDoesNotNeedTheUnits)
{
    PutSix();
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(m_queue.Try(0));
    }
    EXPECT_TRUE(m_queue.Delete(&m_receiver, &m_number));
    EXPECT_EQ(m_number, 4u);
    EXPECT_EQ(Units(), 0);
}

TEST_F(QueueSelectTest, DeleteExRemovesTheOldestAndReportsThem)
{
    for (std::uint32_t number = 1; number <= 5; ++number) {
        ASSERT_TRUE(PutFor(&m_receiver, A, number));
        ASSERT_TRUE(PutFor(&m_receiver, B, 10 * number));
    }
    EXPECT_TRUE(m_queue.DeleteEx(&m_receiver, A, 2, &m_number));
    EXPECT_EQ(m_number, 2u);
    EXPECT_THAT(Drain(), ElementsAre(10, 20, 3, 30, 4, 40, 5, 50));
}

TEST_F(QueueSelectTest, DeleteExOfNoneRemovesNone)
{
    PutSix();
    EXPECT_FALSE(m_queue.DeleteEx(&m_receiver, A, 0, &m_number));
    EXPECT_EQ(m_number, 0u);
    EXPECT_EQ(Units(), 6);
    EXPECT_THAT(Drain(), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(QueueSelectTest, DeleteExOfMoreThanThereAreRemovesAllAndReportsTheirNumber)
{
    PutSix();
    EXPECT_TRUE(m_queue.DeleteEx(&m_receiver, A, ~0u, &m_number));
    EXPECT_EQ(m_number, 2u);
    EXPECT_THAT(Drain(), ElementsAre(2, 3, 5, 6));
}

TEST_F(QueueSelectTest, DeleteExCountsTheEventsOfItsTypeOnly)
{
    PutSix();
    EXPECT_TRUE(m_queue.DeleteEx(&m_receiver, B, 1, &m_number));
    EXPECT_EQ(m_number, 1u);
    EXPECT_THAT(Drain(), ElementsAre(1, 3, 4, 5, 6));
}

TEST_F(QueueSelectTest, DeleteExReleasesTheOldestSynchronousSendersOnly)
{
    SyncSender first(m_queue, EventFor(&m_receiver, A, 1));
    PutFor(&m_receiver, A, 2);
    SyncSender third(m_queue, EventFor(&m_receiver, A, 3));
    EXPECT_TRUE(m_queue.DeleteEx(&m_receiver, A, 2, &m_number));
    EXPECT_EQ(m_number, 2u);
    EXPECT_TRUE(first.Result());
    ASSERT_EQ(m_queue.Size(), 1u);
    EXPECT_EQ(Probe().Event(0).param1, 3u);
    ASSERT_NE(Probe().Event(0).sync, nullptr);
    EXPECT_FALSE(Probe().Event(0).sync->Try(0)); // has not been given
    EXPECT_FALSE(third.Returned());
    EXPECT_TRUE(m_queue.DeleteEx(&m_receiver, A, 1, &m_number));
    EXPECT_TRUE(third.Result());
}

TEST_F(QueueSelectTest, DeletionKeepsTheOrderOfTheOthersFromEveryStartOfTheHead)
{
    for (std::uint64_t start = 0; start < 256; ++start) {
        SCOPED_TRACE("head starts at " + std::to_string(start));
        m_queue.Destroy();
        ASSERT_TRUE(m_queue.Create());
        Rotate(start);
        std::vector<std::uint32_t> others;
        for (std::uint32_t i = 0; i < 30; ++i) {
            const bool goes = i % 3 != 1;
            ASSERT_TRUE(PutFor(goes ? &m_receiver : &m_other, i % 2, i));
            if (!goes || i % 2 == 1) {
                others.push_back(i);
            }
        }
        ASSERT_TRUE(m_queue.Delete(&m_receiver, 0, &m_number));
        ASSERT_EQ(m_number, 30 - others.size());
        ASSERT_EQ(Probe().Head(), start);
        ASSERT_TRUE(Probe().IndicesAgree());
        ASSERT_EQ(Drain(), others);
    }
}

TEST_F(QueueSelectTest, DeletionOfAllMakesAFullQueueUsableAgain)
{
    PutAll(1, 240);
    for (std::uint32_t i = 0; i < 16; ++i) {
        ASSERT_TRUE(Put(1000 + i, true));
    }
    EXPECT_TRUE(m_queue.Delete(&m_receiver, &m_number));
    EXPECT_EQ(m_number, 256u);
    EXPECT_EQ(m_queue.Size(), 0u);
    EXPECT_EQ(Units(), 0);
    EXPECT_TRUE(Probe().IndicesAgree());
    PutAll(1, 240);
    EXPECT_FALSE(Put(241));
    EXPECT_EQ(Drain().size(), 240u);
}

TEST_F(QueueSelectTest, DeleteWhereNothingMatchesInAFullRingKeepsItFull)
{
    for (std::uint32_t i = 0; i < 256; ++i) {
        ASSERT_TRUE(Put(i, true));
    }
    EXPECT_FALSE(m_queue.Delete(&m_other, &m_number));
    EXPECT_EQ(m_queue.Size(), 256u);
    EXPECT_FALSE(m_queue.Get(&m_event, &m_other));
    EXPECT_FALSE(Put(256, true));
    EXPECT_EQ(Drain().size(), 256u);
}

} // namespace
