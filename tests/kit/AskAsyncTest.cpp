#include <gmock/gmock.h>

#include <optional>

#include "KitSupport.h"

namespace {

using namespace zortest;
using zor::Error;

/// A second task, which asks.
class AskAsyncTest : public KitTest
{
 protected:
    AskAsyncTest() { EXPECT_TRUE(m_asker.Start("Asker")); }

    /// Has @p function run on the asker's thread.
    void OnAsker(const std::function<void()>& function)
    {
        ASSERT_TRUE(m_asker.Ask(Call{[&] {
                                    function();
                                    return 0;
                                }},
                                LONG));
    }

    /// The error of an ask that the asker makes.
    Error ErrorOf(
        Tuner& tuner, std::function<void()> meanwhile = [] {})
    {
        std::optional<Error> error;
        Gate called;
        OnAsker([&] {
            EXPECT_TRUE(tuner.AskAsync(Text{"a"}, [&](const zor::Result<std::string>& answer) {
                EXPECT_FALSE(answer);
                error = answer.error();
                called.Pass();
            }));
            EXPECT_FALSE(called.IsOpen()) << "never within the call";
        });
        meanwhile();
        EXPECT_TRUE(called.Wait());
        return error.value_or(Error::NO_MEMORY);
    }

    Doer m_asker;
};

TEST_F(AskAsyncTest, AnswerComesOnTheAskingTasksThread)
{
    Gate called;
    pthread_t calledOn = 0;
    int channel = 0;
    OnAsker([&] {
        EXPECT_TRUE(m_tuner.AskAsync(Tune{7}, [&](zor::Result<Tuned> answer) {
            ASSERT_TRUE(answer);
            channel = answer->channel;
            calledOn = pthread_self();
            called.Pass();
        }));
    });
    ASSERT_TRUE(called.Wait());
    EXPECT_EQ(channel, 7);
    EXPECT_EQ(calledOn, m_asker.Id());
}

TEST_F(AskAsyncTest, MoveOnlyAnswersAndCallbacksWork)
{
    Gate called;
    OnAsker([&] {
        auto own = std::make_unique<int>(1);
        m_tuner.AskAsync(Gift{std::make_unique<int>(6)},
                         [&, own = std::move(own)](zor::Result<std::unique_ptr<int>> answer) {
                             EXPECT_EQ(**answer + *own, 7);
                             called.Pass();
                         });
    });
    EXPECT_TRUE(called.Wait());
}

TEST_F(AskAsyncTest, TaskMayAskItself)
{
    Gate called;
    OnAsker([&] {
        m_asker.AskAsync(Call{[] { return 3; }}, [&](zor::Result<int> answer) {
            EXPECT_EQ(*answer, 3);
            called.Pass();
        });
    });
    EXPECT_TRUE(called.Wait());
}

TEST_F(AskAsyncTest, EveryAnswerComesOnce)
{
    constexpr int ASKS = 200;
    std::vector<int> answers;
    Gate called(ASKS);
    OnAsker([&] {
        for (int i = 0; i < ASKS; ++i) {
            m_tuner.AskAsync(Tune{i}, [&](const zor::Result<Tuned>& answer) {
                answers.push_back(answer ? answer->channel : -1);
                called.Pass();
            });
        }
    });
    ASSERT_TRUE(called.Wait());
    OnAsker([&] {
        EXPECT_EQ(answers.size(), static_cast<std::size_t>(ASKS));
        EXPECT_EQ(std::count(answers.begin(), answers.end(), -1), 0);
        EXPECT_TRUE(std::is_sorted(answers.begin(), answers.end()));
    });
}

TEST_F(AskAsyncTest, ThreadThatIsNoTasksIsRefused)
{
    bool called = false;
    const auto asked = m_tuner.AskAsync(Tune{1}, [&](const zor::Result<Tuned>&) { called = true; });
    ASSERT_FALSE(asked);
    EXPECT_EQ(asked.error(), Error::NO_ASKER);
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_FALSE(called);
    EXPECT_EQ(m_tuner.trace.Size(), 0U);
}

TEST_F(AskAsyncTest, CallbackIsToldWhyThereIsNoAnswer)
{
    Tuner idle;
    EXPECT_EQ(ErrorOf(idle), Error::NO_TASK);
    ASSERT_TRUE(m_tuner.Pause());
    EXPECT_EQ(ErrorOf(m_tuner), Error::PAUSED);
    ASSERT_TRUE(m_tuner.ResumeAsync());
    {
        Hold hold(&m_tuner);
        EXPECT_EQ(
            ErrorOf(m_tuner, [&] { m_tuner.Delete(static_cast<TCHandler*>(&m_tuner), nullptr); }),
            Error::DELETED);
        FillOrdinary();
        EXPECT_EQ(ErrorOf(m_tuner), Error::QUEUE_FULL);
        m_tuner.Delete(static_cast<TCHandler*>(&m_tuner), nullptr);
        TSEvent exit = EventTo(&m_tuner, TCTask::EVENT_EXIT);
        ASSERT_TRUE(TCTask::Send(&exit, false, false));
        EXPECT_EQ(ErrorOf(m_tuner, [&] { hold.Release(); }), Error::NO_TASK);
    }
    m_tuner.Destroy();
}

TEST_F(AskAsyncTest, DeadlineIsToldAndTheLateAnswerDropped)
{
    Hold hold(&m_tuner);
    Gate called;
    int calls = 0;
    OnAsker([&] {
        EXPECT_TRUE(m_tuner.AskAsync(Tune{1}, SHORT, [&](const zor::Result<Tuned>& answer) {
            ++calls;
            EXPECT_EQ(answer.error(), Error::NOT_ANSWERED);
            called.Pass();
        }));
    });
    ASSERT_TRUE(called.Wait());
    hold.Release();
    ASSERT_TRUE(Eventually([&] { return m_asker.MessageCounts().late == 1; }));
    EXPECT_EQ(calls, 1);
}

TEST_F(AskAsyncTest, AnyDurationIsADeadline)
{
    Hold hold(&m_tuner);
    std::atomic<int> answered{0};
    OnAsker([&] {
        const auto callback = [&](const zor::Result<Tuned>& answer) {
            answered += answer ? 1 : 100;
        };
        EXPECT_TRUE(m_tuner.AskAsync(Tune{1}, std::chrono::hours::max(), callback));
        EXPECT_TRUE(m_tuner.AskAsync(Tune{2}, std::chrono::milliseconds::max(), callback));
        EXPECT_TRUE(m_tuner.AskAsync(Tune{3}, std::chrono::duration<double>(1e300), callback));
        EXPECT_TRUE(m_tuner.AskAsync(Tune{4}, std::chrono::duration<double>(60), callback));
    });
    std::this_thread::sleep_for(SHORT); // a deadline in the past would be over by then
    OnAsker([] {});
    hold.Release();
    EXPECT_TRUE(Eventually([&] { return answered >= 4; }));
    EXPECT_EQ(answered, 4);
}

TEST_F(AskAsyncTest, DeadlineLongPastIsToldSoon)
{
    Hold hold(&m_tuner);
    std::atomic<int> late{0};
    OnAsker([&] {
        const auto callback = [&](const zor::Result<Tuned>& answer) {
            late += answer.error() == Error::NOT_ANSWERED ? 1 : 100;
        };
        EXPECT_TRUE(m_tuner.AskAsync(Tune{1}, 0ms, callback));
        EXPECT_TRUE(m_tuner.AskAsync(Tune{1}, std::chrono::hours::min(), callback));
    });
    EXPECT_TRUE(Eventually([&] { return late >= 2; }));
    EXPECT_EQ(late, 2);
}

TEST_F(AskAsyncTest, AnswerInTimeComesOnceWithADeadlineToo)
{
    Gate called;
    OnAsker([&] {
        EXPECT_TRUE(m_tuner.AskAsync(Tune{1}, LONG, [&](const zor::Result<Tuned>& answer) {
            EXPECT_EQ(answer->channel, 1);
            called.Pass();
        }));
    });
    EXPECT_TRUE(called.Wait());
}

TEST_F(AskAsyncTest, AskerThatEndsFirstIsNotCalledAndItsCallbackDiesOnItsThread)
{
    struct Probe
    {
        std::atomic<pthread_t>* where;
        Probe(std::atomic<pthread_t>* to) : where(to) {}
        Probe(Probe&& other) noexcept : where(std::exchange(other.where, nullptr)) {}
        ~Probe()
        {
            if (where != nullptr) {
                *where = pthread_self();
            }
        }
    };
    Hold hold(&m_tuner);
    std::atomic<bool> called{false};
    std::atomic<pthread_t> diedOn{0};
    pthread_t askersThread = 0;
    OnAsker([&] {
        askersThread = pthread_self();
        EXPECT_TRUE(m_tuner.AskAsync(
            Tune{1}, [&, probe = Probe(&diedOn)](const zor::Result<Tuned>&) { called = true; }));
    });
    m_asker.End();
    EXPECT_EQ(diedOn, askersThread);
    hold.Release();
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_FALSE(called);
    EXPECT_EQ(m_tuner.trace.Size(), 1U) << "the message was handled";
    EXPECT_EQ(m_tuner.MessageCounts().late, 1U);
}

TEST_F(AskAsyncTest, AnswersReachAnAskerWhoseQueueIsFull)
{
    constexpr int ASKS = 300; // more than its queue has room for
    Gate called(ASKS);
    std::atomic<int> answered{0};
    OnAsker([&] {
        FillQueue(&m_asker);
        for (int i = 0; i < ASKS; ++i) {
            m_tuner.AskAsync(Tune{i}, [&](const zor::Result<Tuned>& answer) {
                answered += answer ? 1 : 0;
                called.Pass();
            });
            EXPECT_TRUE(
                Eventually([&] { return m_tuner.trace.Size() > static_cast<unsigned>(i); }));
        }
    });
    EXPECT_TRUE(called.Wait());
    EXPECT_EQ(answered, ASKS);
}

TEST_F(AskAsyncTest, HandlerThatThrewIsTold)
{
    m_tuner.onTune = [](int) { throw std::runtime_error("x"); };
    Gate called;
    OnAsker([&] {
        m_tuner.AskAsync(Tune{1}, [&](const zor::Result<Tuned>& answer) {
            EXPECT_EQ(answer.error(), Error::THREW);
            called.Pass();
        });
    });
    EXPECT_TRUE(called.Wait());
}

} // namespace
