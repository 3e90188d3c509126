#include <gmock/gmock.h>
#include <sys/prctl.h>

#include <thread>

#include "KitSupport.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using zor::Error;

class AskTest : public KitTest
{};

TEST_F(AskTest, ReturnsWhatTheHandlerReturned)
{
    const zor::Result<Tuned> answer = m_tuner.Ask(Tune{7}, LONG);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->channel, 7);
    EXPECT_EQ((*answer).handledOn, m_tuner.Id());
    const zor::Result<std::string> text = m_tuner.Ask(Text{"a"}, LONG);
    EXPECT_EQ(*text, "a!");
    const zor::Result<void> handled = m_tuner.Ask(Empty{}, LONG);
    EXPECT_TRUE(handled);
}

TEST_F(AskTest, ManyAsksOfOneThreadEachGetTheirOwnAnswer)
{
    for (int i = 0; i < 1000; ++i) {
        const auto answer = m_tuner.Ask(Tune{i}, LONG);
        ASSERT_TRUE(answer);
        ASSERT_EQ(answer->channel, i);
    }
}

TEST_F(AskTest, FirstOvertakesWhatIsQueued)
{
    Hold hold(&m_tuner);
    ASSERT_TRUE(m_tuner.Post(Tune{1}));
    Caller asker([&] { EXPECT_TRUE(m_tuner.Ask(Tune{2}, LONG, zor::Order::FIRST)); });
    EXPECT_TRUE(asker.Blocks());
    hold.Release();
    asker.Join();
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_THAT(m_tuner.trace.Get(), ElementsAre("tune 2", "tune 1"));
}

TEST_F(AskTest, IsRefusedByAFullQueue)
{
    Hold hold(&m_tuner);
    FillOrdinary();
    EXPECT_EQ(m_tuner.Ask(Tune{1}, LONG).error(), Error::QUEUE_FULL);
    EXPECT_EQ(m_tuner.MessageCounts().refused, 1U);
    EXPECT_EQ(Listed(), 0);
}

TEST_F(AskTest, IsRefusedByATaskThatIsNotCreated)
{
    Tuner idle;
    EXPECT_EQ(idle.Ask(Tune{1}, LONG).error(), Error::NO_TASK);
    EXPECT_EQ(Listed(), 0);
}

TEST_F(AskTest, IsRefusedByATaskWhoseLoopHasEndedAndByADestroyedOne)
{
    TSEvent exit = EventTo(&m_tuner, TCTask::EVENT_EXIT);
    ASSERT_TRUE(TCTask::Send(&exit, false, false));
    ASSERT_TRUE(Eventually([&] { return m_tuner.Id() == 0xFFFFFFFF; }));
    EXPECT_EQ(m_tuner.Ask(Tune{1}, LONG).error(), Error::NO_TASK);
    m_tuner.Destroy();
    EXPECT_EQ(m_tuner.Ask(Tune{1}, LONG).error(), Error::NO_TASK);
    EXPECT_EQ(m_tuner.trace.Size(), 0U);
    ASSERT_TRUE(m_tuner.Start("Tuner")) << "a second life";
    EXPECT_TRUE(m_tuner.Ask(Tune{1}, LONG));
}

TEST_F(AskTest, IsRefusedByATaskWhoseFirstHookHasRefused)
{
    class Refusing : public zor::Task<Refusing, Empty>
    {
     public:
        bool t_Create() override { return false; }
        void On(const Empty& /*message*/) {}
    } task;
    ASSERT_TRUE(task.Start("Refusing"));
    EXPECT_EQ(task.Ask(Empty{}, LONG).error(), Error::NO_TASK);
    task.Destroy();
}

TEST_F(AskTest, IsToldOfTheEndThatComesBeforeItsTurn)
{
    Hold hold(&m_tuner);
    TSEvent exit = EventTo(&m_tuner, TCTask::EVENT_EXIT);
    ASSERT_TRUE(TCTask::Send(&exit, false, false));
    Caller asker([&] { EXPECT_EQ(m_tuner.Ask(Tune{1}, LONG).error(), Error::NO_TASK); });
    EXPECT_TRUE(asker.Blocks());
    hold.Release();
    asker.Join();
    m_tuner.Destroy();
    EXPECT_EQ(m_tuner.trace.Size(), 0U);
}

/// The asker itself may be the last to let go of its request, whoever deletes that from the queue.
TEST_F(AskTest, IsToldOfTheEndWhereverItsRequestIsLetGoOfLast)
{
    Hold hold(&m_tuner);
    Caller asker([&] { EXPECT_EQ(m_tuner.Ask(Tune{1}, LONG).error(), Error::NO_TASK); });
    EXPECT_TRUE(asker.Blocks());
    TSEvent request;
    ASSERT_TRUE(
        m_tuner.Get(&request, static_cast<TCHandler*>(&m_tuner), Tuner::EventType<Tune>() + 1));
    hold.Release();
    m_tuner.End();
    request.wrappedData.reset();
    asker.Join();
}

TEST_F(AskTest, TaskMayBeDestroyedWhileItIsAsked)
{
    auto tuner = std::make_unique<Tuner>();
    ASSERT_TRUE(tuner->Start("Short"));
    auto hold = std::make_unique<Hold>(tuner.get());
    TSEvent exit = EventTo(tuner.get(), TCTask::EVENT_EXIT);
    ASSERT_TRUE(TCTask::Send(&exit, false, false));
    Tuner* const asked = tuner.get();
    Caller asker([&] { EXPECT_EQ(asked->Ask(Tune{1}, LONG).error(), Error::NO_TASK); });
    EXPECT_TRUE(asker.Blocks());
    hold->Release();
    tuner->Destroy();
    tuner.reset();
    asker.Join();
}

TEST_F(AskTest, IsRefusedByAPausedTask)
{
    ASSERT_TRUE(m_tuner.Pause());
    EXPECT_EQ(m_tuner.Ask(Tune{1}, LONG).error(), Error::PAUSED);
    ASSERT_TRUE(m_tuner.ResumeAsync());
    EXPECT_TRUE(m_tuner.Ask(Tune{2}, LONG)) << "at once after the resumption";
    EXPECT_THAT(m_tuner.trace.Get(), ElementsAre("tune 2"));
}

TEST_F(AskTest, EveryPauseRefusesAndEveryResumptionEndsThat)
{
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(m_tuner.Pause());
        ASSERT_EQ(m_tuner.Ask(Tune{i}, LONG).error(), Error::PAUSED);
        ASSERT_TRUE(m_tuner.ResumeAsync());
        ASSERT_TRUE(m_tuner.Ask(Tune{i}, LONG));
    }
}

TEST_F(AskTest, EndsByItsDeadlineAndTheLateAnswerIsDropped)
{
    Hold hold(&m_tuner);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(m_tuner.Ask(Text{"late"}, SHORT).error(), Error::NOT_ANSWERED);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, SHORT);
    EXPECT_EQ(m_tuner.trace.Size(), 0U);
    hold.Release();
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_THAT(m_tuner.trace.Get(), ElementsAre("late")) << "it is handled all the same";
    EXPECT_EQ(m_tuner.MessageCounts().late, 1U);
    EXPECT_EQ(*m_tuner.Ask(Text{"next"}, LONG), "next!") << "the next ask gets its own answer";
}

TEST_F(AskTest, DeadlineThatHasPassedLooksOnce)
{
    Hold hold(&m_tuner);
    EXPECT_EQ(m_tuner.Ask(Tune{1}, 0ms).error(), Error::NOT_ANSWERED);
    EXPECT_EQ(m_tuner.Ask(Tune{1}, -1h).error(), Error::NOT_ANSWERED);
    EXPECT_EQ(m_tuner.Ask(Tune{1}, std::chrono::hours::min()).error(), Error::NOT_ANSWERED);
    EXPECT_EQ(m_tuner.Ask(Tune{1}, std::chrono::nanoseconds::min()).error(), Error::NOT_ANSWERED);
    EXPECT_EQ(m_tuner.Ask(Tune{1}, std::chrono::duration<double>(-1e300)).error(),
              Error::NOT_ANSWERED);
}

TEST_F(AskTest, AnyDurationIsADeadline)
{
    EXPECT_TRUE(m_tuner.Ask(Tune{1}, std::chrono::hours::max()));
    EXPECT_TRUE(m_tuner.Ask(Tune{1}, std::chrono::duration<double>(60)));
    EXPECT_TRUE(m_tuner.Ask(Tune{1}, std::chrono::duration<double>(1e300)));
    EXPECT_TRUE(m_tuner.Ask(Tune{1}, std::chrono::nanoseconds(60'000'000'000)));
}

TEST_F(AskTest, IsToldThatItsRequestWasDeleted)
{
    Hold hold(&m_tuner);
    Caller asker([&] { EXPECT_EQ(m_tuner.Ask(Text{"a"}, LONG).error(), Error::DELETED); });
    EXPECT_TRUE(asker.Blocks());
    m_tuner.Delete(static_cast<TCHandler*>(&m_tuner), nullptr);
    asker.Join();
}

TEST_F(AskTest, IsToldThatTheHandlerThrewAndTheTaskGoesOn)
{
    m_tuner.onTune = [](int channel) {
        if (channel < 0) {
            throw std::runtime_error("no such channel");
        }
    };
    EXPECT_EQ(m_tuner.Ask(Tune{-1}, LONG).error(), Error::THREW);
    EXPECT_TRUE(m_tuner.Ask(Tune{1}, LONG));
    EXPECT_EQ(m_tuner.MessageCounts().thrown, 1U);
}

TEST_F(AskTest, TaskThatAsksItselfIsRefusedAtOnce)
{
    const auto answer = m_tuner.Ask(Call{[&] {
                                        const auto own = m_tuner.Ask(Tune{1}, LONG);
                                        return static_cast<int>(own.error());
                                    }},
                                    LONG);
    ASSERT_TRUE(answer);
    EXPECT_EQ(static_cast<Error>(*answer), Error::OWN_TASK);
    EXPECT_EQ(m_tuner.trace.Size(), 0U);
}

TEST_F(AskTest, CircleEndsByTheDeadlineOfTheInnerAsk)
{
    Doer other;
    ASSERT_TRUE(other.Start("Other"));
    // The tuner asks the other task, which asks the tuner back, which waits.
    const auto inner = [&] { return static_cast<int>(m_tuner.Ask(Tune{1}, SHORT).error()); };
    const auto outer = [&] { return *other.Ask(Call{inner}, LONG); };
    const auto answer = m_tuner.Ask(Call{outer}, LONG);
    ASSERT_TRUE(answer);
    EXPECT_EQ(static_cast<Error>(*answer), Error::NOT_ANSWERED);
}

TEST_F(AskTest, CircleEndsByTheDeadlineOfTheOuterAsk)
{
    Doer other;
    ASSERT_TRUE(other.Start("Other"));
    const auto inner = [&] { return m_tuner.Ask(Tune{1}, LONG) ? 1 : 0; };
    const auto outer = [&] { return static_cast<int>(other.Ask(Call{inner}, SHORT).error()); };
    const auto answer = m_tuner.Ask(Call{outer}, LONG);
    ASSERT_TRUE(answer);
    EXPECT_EQ(static_cast<Error>(*answer), Error::NOT_ANSWERED);
}

TEST_F(AskTest, IsListedWhileItWaitsAndNotAfter)
{
    auto hold = std::make_unique<Hold>(&m_tuner);
    Caller asker([&] {
        prctl(PR_SET_NAME, "asker");
        EXPECT_TRUE(m_tuner.Ask(Tune{1}, LONG));
    });
    EXPECT_TRUE(asker.Blocks());
    ASSERT_EQ(Listed(), 1);
    const PTSyncDetInfo& entry = TCSyncDet::m_arrPCSyncDet[0];
    EXPECT_STREQ(entry.callerName, "asker");
    EXPECT_EQ(entry.callerTid, asker.KernelId());
    EXPECT_STREQ(entry.receiverName, "Tuner");
    hold->Release();
    asker.Join();
    EXPECT_EQ(Listed(), 0);
}

TEST_F(AskTest, LeavesTheTableOnEveryWayOut)
{
    m_tuner.onTune = [](int) { throw 1; };
    EXPECT_EQ(m_tuner.Ask(Tune{1}, LONG).error(), Error::THREW);
    EXPECT_EQ(Listed(), 0);
    {
        Hold hold(&m_tuner);
        EXPECT_EQ(m_tuner.Ask(Tune{1}, SHORT).error(), Error::NOT_ANSWERED);
        EXPECT_EQ(Listed(), 0);
        FillOrdinary();
        EXPECT_EQ(m_tuner.Ask(Tune{1}, LONG).error(), Error::QUEUE_FULL);
        EXPECT_EQ(Listed(), 0);
    }
    ASSERT_TRUE(m_tuner.Pause());
    EXPECT_EQ(m_tuner.Ask(Tune{1}, LONG).error(), Error::PAUSED);
    EXPECT_EQ(Listed(), 0);
}

TEST_F(AskTest, LostRequestIsToldWhereverItWasLost)
{
    /// Takes the kit's events away.
    class Swallowing : public zor::Task<Swallowing, Tune>
    {
     public:
        ~Swallowing() override { End(); }
        int On(const Tune& tune) { return tune.channel; }
        bool t_OnEvent(const TSEvent* event) override
        {
            return event->type <= EVENT_RESUME ? Task::t_OnEvent(event) : true;
        }
    } task;
    ASSERT_TRUE(task.Start("Swallowing"));
    EXPECT_EQ(task.Ask(Tune{1}, LONG).error(), Error::DELETED);
}

} // namespace
