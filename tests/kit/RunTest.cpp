#include <gmock/gmock.h>

#include "KitSupport.h"

namespace {

using namespace zortest;
using zor::Error;

class RunTest : public KitTest
{};

TEST_F(RunTest, RunsOnTheTasksThreadAndReturnsItsValue)
{
    const zor::Result<pthread_t> id = m_tuner.Run([] { return pthread_self(); }, LONG);
    ASSERT_TRUE(id);
    EXPECT_EQ(*id, m_tuner.Id());
    const auto size = m_tuner.Run([](Tuner& tuner) { return tuner.trace.Size(); }, LONG);
    EXPECT_EQ(size.value(), 0U);
    EXPECT_TRUE(m_tuner.Run([] {}, LONG));
}

TEST_F(RunTest, WithoutWaitingItIsDoneInTurn)
{
    Hold hold(&m_tuner);
    EXPECT_TRUE(m_tuner.Post(Tune{1}));
    EXPECT_TRUE(m_tuner.Run([](Tuner& tuner) { tuner.trace.Add("run"); }));
    EXPECT_EQ(m_tuner.trace.Size(), 0U);
    hold.Release();
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_THAT(m_tuner.trace.Get(), ::testing::ElementsAre("tune 1", "run"));
}

TEST_F(RunTest, MoveOnlyLambdasAndValuesWork)
{
    auto number = std::make_unique<int>(4);
    const auto back =
        m_tuner.Run([number = std::move(number)]() mutable { return std::move(number); }, LONG);
    ASSERT_TRUE(back);
    EXPECT_EQ(**back, 4);
}

TEST_F(RunTest, IsToldWhatAskIsTold)
{
    Tuner idle;
    EXPECT_EQ(idle.Run([] { return 1; }, LONG).error(), Error::NO_TASK);
    EXPECT_EQ(idle.Run([] {}).error(), Error::NO_TASK);
    EXPECT_EQ(m_tuner.Run([]() -> int { throw 1; }, LONG).error(), Error::THREW);
    const auto own = [&] { return m_tuner.Run([] {}, LONG).error(); };
    EXPECT_EQ(m_tuner.Run(own, LONG).value(), Error::OWN_TASK);
    ASSERT_TRUE(m_tuner.Pause());
    EXPECT_EQ(m_tuner.Run([] {}, LONG).error(), Error::PAUSED);
    EXPECT_EQ(m_tuner.Run([] {}).error(), Error::PAUSED);
    ASSERT_TRUE(m_tuner.ResumeAsync());
    Hold hold(&m_tuner);
    EXPECT_EQ(m_tuner.Run([] {}, SHORT).error(), Error::NOT_ANSWERED);
    FillOrdinary();
    EXPECT_EQ(m_tuner.Run([] {}, LONG).error(), Error::QUEUE_FULL);
    EXPECT_EQ(m_tuner.Run([] {}).error(), Error::QUEUE_FULL);
    EXPECT_EQ(Listed(), 0);
}

TEST_F(RunTest, IsListedWhileItWaits)
{
    Hold hold(&m_tuner);
    Caller caller([&] { EXPECT_TRUE(m_tuner.Run([] {}, LONG)); });
    ASSERT_TRUE(caller.Blocks());
    EXPECT_EQ(Listed(), 1);
    hold.Release();
    caller.Join();
    EXPECT_EQ(Listed(), 0);
}

TEST_F(RunTest, LambdaThatIsNeverRunIsFreedAndItsWaiterTold)
{
    auto token = std::make_shared<int>(1);
    Hold hold(&m_tuner);
    TSEvent exit = EventTo(&m_tuner, TCTask::EVENT_EXIT);
    ASSERT_TRUE(TCTask::Send(&exit, false, false));
    ASSERT_TRUE(m_tuner.Run([token] {}));
    Caller caller([&] { EXPECT_EQ(m_tuner.Run([token] {}, LONG).error(), Error::NO_TASK); });
    ASSERT_TRUE(caller.Blocks());
    hold.Release();
    caller.Join();
    m_tuner.Destroy();
    EXPECT_EQ(token.use_count(), 1);
}

} // namespace
