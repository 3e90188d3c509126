#include <gmock/gmock.h>

#include <algorithm>

#include "KitSupport.h"

namespace {

using namespace zortest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;
using zor::Error;

/// A tuner that is held, so that its queue fills.
class FullQueueTest : public KitTest
{
 protected:
    Hold m_hold{&m_tuner};
};

TEST_F(FullQueueTest, RefusesByDefaultAndCounts)
{
    FillOrdinary();
    const auto posted = m_tuner.Post(Tune{1});
    ASSERT_FALSE(posted);
    EXPECT_EQ(posted.error(), Error::QUEUE_FULL);
    EXPECT_EQ(m_tuner.Post(Tune{1}, zor::Refuse()).error(), Error::QUEUE_FULL);
    EXPECT_EQ(m_tuner.MessageCounts().refused, 2U);
    EXPECT_TRUE(m_tuner.Post(Tune{1}, zor::Order::FIRST)) << "there is room for these";
}

TEST_F(FullQueueTest, DropsAndCounts)
{
    EXPECT_TRUE(m_tuner.Post(Tune{1}, zor::DropWhenFull()));
    FillOrdinary();
    EXPECT_EQ(m_tuner.Post(Tune{2}, zor::DropWhenFull()).error(), Error::DROPPED);
    EXPECT_EQ(m_tuner.MessageCounts().dropped, 1U);
    EXPECT_EQ(m_tuner.MessageCounts().refused, 0U);
}

TEST_F(FullQueueTest, WaitsUntilThereIsRoom)
{
    FillOrdinary();
    Caller sender([&] { EXPECT_TRUE(m_tuner.Post(Tune{5}, zor::WaitAtMost(LONG))); });
    EXPECT_TRUE(Eventually([&] { return m_tuner.MessageCounts().waited == 1; }));
    m_hold.Release();
    sender.Join();
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_THAT(m_tuner.trace.Get(), Contains("tune 5"));
    EXPECT_EQ(m_tuner.MessageCounts().refused, 0U);
}

TEST_F(FullQueueTest, WaitsNoLongerThanItsDeadline)
{
    FillOrdinary();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(m_tuner.Post(Text{"a"}, zor::WaitAtMost(SHORT)).error(), Error::QUEUE_FULL);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, SHORT);
    EXPECT_EQ(m_tuner.MessageCounts().refused, 1U);
    EXPECT_EQ(m_tuner.MessageCounts().waited, 1U);
}

TEST_F(FullQueueTest, TaskDoesNotWaitForRoomInItsOwnQueue)
{
    m_hold.Release();
    const auto answer = m_tuner.Ask(
        Call{[&] {
            FillOrdinary();
            return static_cast<int>(m_tuner.Post(Tune{1}, zor::WaitAtMost(LONG)).error());
        }},
        LONG);
    EXPECT_EQ(static_cast<Error>(answer.value()), Error::QUEUE_FULL);
    EXPECT_EQ(m_tuner.MessageCounts().waited, 0U);
}

TEST_F(FullQueueTest, ReplacesWhatIsQueuedOfTheSameType)
{
    ASSERT_TRUE(m_tuner.Post(Tune{1}, zor::ReplaceQueued()));
    ASSERT_TRUE(m_tuner.Post(Tune{2}, zor::ReplaceQueued())) << "not full: nothing is replaced";
    ASSERT_TRUE(m_tuner.Post(Text{"other"}));
    FillOrdinary();
    EXPECT_TRUE(m_tuner.Post(Tune{3}, zor::ReplaceQueued()));
    EXPECT_EQ(m_tuner.MessageCounts().replaced, 2U);
    m_hold.Release();
    ASSERT_TRUE(Flush(&m_tuner));
    const auto trace = m_tuner.trace.Get();
    EXPECT_EQ(trace.front(), "other");
    EXPECT_EQ(trace.back(), "tune 3");
    EXPECT_THAT(trace, Not(Contains("tune 1")));
    EXPECT_THAT(trace, Not(Contains("tune 2")));
}

/// Priority events may take room beyond what ordinary ones have. Taking out one message then makes
/// no room for an ordinary one: of the two values neither would arrive.
TEST_F(FullQueueTest, NothingIsReplacedWhereThatWouldMakeNoRoom)
{
    ASSERT_TRUE(m_tuner.Post(Tune{1}));
    ASSERT_TRUE(m_tuner.Post(Text{"old"}));
    FillOrdinary();
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(m_tuner.Post(Empty{}, zor::Order::FIRST));
    }
    EXPECT_EQ(m_tuner.Post(Tune{2}, zor::ReplaceQueued()).error(), Error::QUEUE_FULL);
    EXPECT_EQ(m_tuner.Post(Text{"new"}, zor::ReplaceQueued()).error(), Error::QUEUE_FULL);
    EXPECT_EQ(m_tuner.MessageCounts().replaced, 0U);
    EXPECT_EQ(m_tuner.MessageCounts().refused, 2U);
    EXPECT_TRUE(m_tuner.Post(Tune{3}, zor::ReplaceQueued(zor::Order::FIRST)))
        << "not full for these";
    m_hold.Release();
    ASSERT_TRUE(Flush(&m_tuner));
    auto trace = m_tuner.trace.Get();
    trace.erase(std::remove(trace.begin(), trace.end(), "user 0"), trace.end());
    EXPECT_THAT(trace, ElementsAre("tune 3", "empty", "empty", "empty", "tune 1", "old"));
}

/// The other way round: all that is queued is old values, and priority ones at that.
TEST_F(FullQueueTest, ReplacesPriorityMessagesByAnOrdinaryOne)
{
    while (m_tuner.Post(Tune{1}, zor::Order::FIRST)) {
    }
    EXPECT_TRUE(m_tuner.Post(Tune{2}, zor::ReplaceQueued()));
    EXPECT_EQ(m_tuner.MessageCounts().replaced, 256U);
    m_hold.Release();
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_THAT(m_tuner.trace.Get(), ElementsAre("tune 2"));
}

TEST_F(FullQueueTest, WhatIsReplacedIsFreedBehindTheLock)
{
    /// Looks whether another thread gets the queue's lock while it is freed.
    struct Probing
    {
        Tuner* tuner;
        bool* wasFree;
        ~Probing()
        {
            std::atomic<bool> done{false};
            std::thread other([&] {
                tuner->Size();
                done = true;
            });
            *wasFree = Eventually([&] { return done.load(); });
            other.join();
        }
    };
    bool wasFree = false;
    {
        auto token = std::shared_ptr<int>(
            new int(0),
            [probe = std::make_shared<Probing>(Probing{&m_tuner, &wasFree})](int* i) { delete i; });
        wasFree = false;
        ASSERT_TRUE(m_tuner.Post(Counted{std::move(token)}));
    }
    FillOrdinary();
    EXPECT_FALSE(wasFree);
    ASSERT_TRUE(m_tuner.Post(Counted{std::make_shared<int>(1)}, zor::ReplaceQueued()));
    EXPECT_TRUE(wasFree);
}

TEST_F(FullQueueTest, ReplacingSparesWhoAsks)
{
    Caller asker([&] { EXPECT_TRUE(m_tuner.Ask(Tune{1}, LONG)); });
    ASSERT_TRUE(asker.Blocks());
    FillOrdinary();
    EXPECT_EQ(m_tuner.Post(Tune{2}, zor::ReplaceQueued()).error(), Error::QUEUE_FULL)
        << "there is nothing to replace";
    m_hold.Release();
    asker.Join();
}

TEST_F(FullQueueTest, ManySendersThatReplaceLeaveTheLastOfEach)
{
    constexpr int EACH = 2000;
    {
        std::vector<std::unique_ptr<Caller>> senders;
        for (int sender = 0; sender < 2; ++sender) {
            senders.push_back(std::make_unique<Caller>([&, sender] {
                for (int i = 0; i < EACH; ++i) {
                    ASSERT_TRUE(m_tuner.Post(Tune{sender * EACH + i}, zor::ReplaceQueued()));
                }
            }));
        }
    }
    m_hold.Release();
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_EQ(m_tuner.trace.Size() + m_tuner.MessageCounts().replaced, 2U * EACH);
}

TEST_F(FullQueueTest, CountsLieBehindTheTaskUnderAMark)
{
    FillOrdinary();
    ASSERT_FALSE(m_tuner.Post(Tune{1}));
    ASSERT_FALSE(m_tuner.Post(Tune{1}, zor::DropWhenFull()));
    const auto* const counters = reinterpret_cast<const zor::detail::Counters*>(
        reinterpret_cast<const char*>(static_cast<TCTask*>(&m_tuner)) + sizeof(TCTask));
    EXPECT_EQ(counters->mark, zor::detail::Counters::MARK);
    EXPECT_EQ(std::memcmp(&counters->mark, "ZOR_K1\0", 8), 0);
    EXPECT_EQ(counters->refused, 1U);
    EXPECT_EQ(counters->dropped, 1U);
}

} // namespace
