#include "Order.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace storm;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// Stamps are small numbers here, as they come in the text of a test.
class OrderTest : public ::testing::Test
{
 protected:
    std::string Ordinary(std::uint64_t id, Stamp accepted, Stamp taken, unsigned sender = 0,
                         unsigned queue = 0)
    {
        return m_order.Check({id, sender, queue, false, false, accepted}, taken);
    }

    std::string Priority(std::uint64_t id, Stamp accepted, Stamp taken, unsigned sender = 0,
                         unsigned queue = 0)
    {
        return m_order.Check({id, sender, queue, true, false, accepted}, taken);
    }

    Order m_order;
};

TEST_F(OrderTest, OrdinaryEventsOfOneSenderKeepTheirOrder)
{
    EXPECT_THAT(Ordinary(1, 1, 10), IsEmpty());
    EXPECT_THAT(Ordinary(3, 3, 11), IsEmpty());
    EXPECT_THAT(Ordinary(2, 2, 12), HasSubstr("after event 3"));
}

TEST_F(OrderTest, OrdinaryEventsOfDifferentSendersHaveNone)
{
    EXPECT_THAT(Ordinary(3, 3, 10, 0), IsEmpty());
    EXPECT_THAT(Ordinary(2, 2, 11, 1), IsEmpty());
}

TEST_F(OrderTest, QueuesHaveAnOrderEach)
{
    EXPECT_THAT(Ordinary(3, 3, 10, 0, 0), IsEmpty());
    EXPECT_THAT(Ordinary(2, 2, 11, 0, 1), IsEmpty());
}

TEST_F(OrderTest, SameEventTwiceIsNoticed)
{
    EXPECT_THAT(Ordinary(1, 1, 10), IsEmpty());
    EXPECT_THAT(Ordinary(1, 1, 11), HasSubstr("after event 1"));
}

TEST_F(OrderTest, PriorityEventOvertakesOrdinaryOnes)
{
    EXPECT_THAT(Priority(2, 5, 6), IsEmpty());
    EXPECT_THAT(Ordinary(1, 1, 7), IsEmpty());
}

TEST_F(OrderTest, OrdinaryEventTakenBeforeAQueuedPriorityEventIsNoticed)
{
    EXPECT_THAT(Ordinary(1, 1, 7, 1), IsEmpty());
    EXPECT_THAT(Priority(2, 5, 8), HasSubstr("an ordinary event was taken before it"));
}

TEST_F(OrderTest, OrdinaryEventTakenBeforeThePriorityEventCameIsInOrder)
{
    EXPECT_THAT(Ordinary(1, 1, 4), IsEmpty());
    EXPECT_THAT(Priority(2, 5, 8), IsEmpty());
}

TEST_F(OrderTest, YoungestPriorityEventComesFirst)
{
    EXPECT_THAT(Priority(3, 3, 10), IsEmpty());
    EXPECT_THAT(Priority(2, 2, 11), IsEmpty());
    EXPECT_THAT(Priority(1, 1, 12), IsEmpty());
}

TEST_F(OrderTest, OlderPriorityEventTakenBeforeAQueuedYoungerOneIsNoticed)
{
    EXPECT_THAT(Priority(1, 1, 10), IsEmpty());
    EXPECT_THAT(Priority(2, 2, 11), HasSubstr("older priority event 1"));
}

TEST_F(OrderTest, OlderPriorityEventTakenBeforeTheYoungerOneCameIsInOrder)
{
    EXPECT_THAT(Priority(1, 1, 10), IsEmpty());
    EXPECT_THAT(Priority(2, 11, 12), IsEmpty());
}

TEST_F(OrderTest, OlderPriorityEventIsRememberedBehindAYoungerOne)
{
    EXPECT_THAT(Priority(1, 1, 10), IsEmpty());
    EXPECT_THAT(Priority(3, 11, 12), IsEmpty()); // came later
    EXPECT_THAT(Priority(2, 2, 13), HasSubstr("older priority event 1"));
}

TEST_F(OrderTest, SendThatHasNotReturnedMayHaveComeLate)
{
    EXPECT_THAT(Ordinary(1, 1, 10), IsEmpty());
    EXPECT_THAT(Priority(2, 0, 11), IsEmpty());
}

TEST_F(OrderTest, QueueBehindTakenWhileAnEventWaitedIsNoticed)
{
    EXPECT_THAT(Ordinary(1, 1, 10, 1, 2), IsEmpty());
    EXPECT_THAT(Ordinary(2, 5, 11, 0, 1), HasSubstr("an event of queue 2 was taken before it"));
}

TEST_F(OrderTest, QueueBehindTakenBeforeTheEventCameIsInOrder)
{
    EXPECT_THAT(Ordinary(1, 1, 10, 1, 2), IsEmpty());
    EXPECT_THAT(Ordinary(2, 11, 12, 0, 1), IsEmpty());
    EXPECT_THAT(Ordinary(3, 5, 13, 0, 3), IsEmpty()); // it is the one behind
}

TEST(FiringsTest, IndicesRise)
{
    Firings firings;
    EXPECT_THAT(firings.Check(0), IsEmpty());
    EXPECT_THAT(firings.Check(1), IsEmpty());
    EXPECT_THAT(firings.Check(5), IsEmpty()); // those between were refused
}

TEST(FiringsTest, SameIndexTwiceIsNoticed)
{
    Firings firings;
    EXPECT_THAT(firings.Check(0), IsEmpty());
    EXPECT_THAT(firings.Check(0), HasSubstr("firing 0 came after firing 0"));
}

TEST(FiringsTest, EachRestartAllowsOneStepBack)
{
    Firings firings;
    EXPECT_THAT(firings.Check(4), IsEmpty());
    firings.Restarts();
    EXPECT_THAT(firings.Check(0), IsEmpty());
    EXPECT_THAT(firings.Check(0), HasSubstr("firing 0 came after"));
}

} // namespace
