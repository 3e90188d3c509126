#include <gmock/gmock.h>

#include <cstring>
#include <type_traits>

#include "AllocationCount.h"
#include "KitSupport.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

class PostTest : public KitTest
{};

TEST_F(PostTest, MessageIsHandledOnTheTasksThread)
{
    std::atomic<pthread_t> handledOn{0};
    m_tuner.onTune = [&](int) { handledOn = pthread_self(); };
    if (!m_tuner.Post(Tune{7})) {
        FAIL() << "not queued";
    }
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_THAT(m_tuner.trace.Get(), ElementsAre("tune 7"));
    EXPECT_EQ(handledOn, m_tuner.Id());
}

TEST_F(PostTest, MessagesAreHandledInTurnAmongOrdinaryEvents)
{
    EXPECT_TRUE(m_tuner.Post(Tune{1}));
    EXPECT_TRUE(Post(&m_tuner, TCTask::EVENT_USER, 2));
    EXPECT_TRUE(m_tuner.Post(Text{"three"}));
    EXPECT_TRUE(m_tuner.Post(Empty{}));
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_THAT(m_tuner.trace.Get(), ElementsAre("tune 1", "user 2", "three", "empty"));
}

TEST_F(PostTest, FirstOvertakesWhatIsQueued)
{
    Hold hold(&m_tuner);
    EXPECT_TRUE(m_tuner.Post(Tune{1}));
    EXPECT_TRUE(m_tuner.Post(Tune{2}, zor::Order::FIRST));
    hold.Release();
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_THAT(m_tuner.trace.Get(), ElementsAre("tune 2", "tune 1"));
}

TEST_F(PostTest, EveryByteOfASmallMessageArrives)
{
    const Exact sent{0x0102030405060708, 0x1112131415161718, 0x21222324, 0x3132, 0x41, 0x51};
    static_assert(sizeof(Exact) == zor::detail::ROOM_IN_EVENT);
    static_assert(zor::detail::TRAVELS_IN_PARAMETERS<Exact>);
    ASSERT_TRUE(m_tuner.Ask(sent, LONG));
    EXPECT_EQ(std::memcmp(&m_tuner.exact, &sent, sizeof(sent)), 0);
    m_tuner.exact = {};
    ASSERT_TRUE(m_tuner.Post(sent));
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_EQ(std::memcmp(&m_tuner.exact, &sent, sizeof(sent)), 0);
}

TEST_F(PostTest, LargerMessagesArriveWhole)
{
    static_assert(!zor::detail::TRAVELS_IN_PARAMETERS<TooLarge>);
    static_assert(!zor::detail::TRAVELS_IN_PARAMETERS<Text>);
    TooLarge sent{};
    for (unsigned char i = 0; i < sizeof(sent.bytes); ++i) {
        sent.bytes[i] = static_cast<unsigned char>(i + 1);
    }
    ASSERT_TRUE(m_tuner.Post(sent));
    ASSERT_TRUE(Flush(&m_tuner));
    EXPECT_THAT(m_tuner.tooLarge.bytes, ElementsAreArray(sent.bytes));
}

TEST_F(PostTest, UnusedParametersKeepTheirMarks)
{
    TSEvent event;
    zor::detail::Pack<Exact>(&event, Exact{});
    EXPECT_EQ(event.param3, 0xFFFFU);
    EXPECT_EQ(event.param4, 0xFFFFU);
    TSEvent small;
    zor::detail::Pack<Tune>(&small, Tune{7});
    EXPECT_EQ(small.param1, 0U);
    EXPECT_EQ(small.param2, 0U);
    EXPECT_EQ(small.param5, 7U) << "on a little-endian machine";
    EXPECT_EQ(small.param6, 0U);
}

TEST_F(PostTest, SmallMessageAllocatesNothingAndALargerOneOnce)
{
    ASSERT_TRUE(m_tuner.Post(Tune{1}));
    ASSERT_TRUE(m_tuner.Post(Exact{}));
    ASSERT_TRUE(Flush(&m_tuner)); // records of the ring exist
    Hold hold(&m_tuner);
    const unsigned long before = AllocationCount();
    EXPECT_TRUE(m_tuner.Post(Tune{1}));
    EXPECT_TRUE(m_tuner.Post(Exact{}));
    EXPECT_EQ(AllocationCount() - before, 0U);
    EXPECT_TRUE(m_tuner.Post(TooLarge{}));
    EXPECT_EQ(AllocationCount() - before, 1U);
}

TEST_F(PostTest, MoveOnlyMessageArrives)
{
    ASSERT_TRUE(m_tuner.Post(Gift{std::make_unique<int>(5)}));
    const auto answer = m_tuner.Ask(Gift{std::make_unique<int>(6)}, LONG);
    ASSERT_TRUE(answer);
    EXPECT_EQ(**answer, 6);
}

TEST_F(PostTest, MessageIsFreedOnceItIsHandled)
{
    auto token = std::make_shared<int>(1);
    ASSERT_TRUE(m_tuner.Post(Counted{token}));
    ASSERT_TRUE(m_tuner.trace.WaitFor(1));
    EXPECT_TRUE(Eventually([&] { return token.use_count() == 1; }));
}

TEST_F(PostTest, MessageWhoseHandlerNeverRunsIsFreedWithItsTask)
{
    auto token = std::make_shared<int>(1);
    Hold hold(&m_tuner);
    TSEvent exit = EventTo(&m_tuner, TCTask::EVENT_EXIT);
    ASSERT_TRUE(TCTask::Send(&exit, false, false));
    ASSERT_TRUE(m_tuner.Post(Counted{token}));
    EXPECT_EQ(token.use_count(), 2);
    hold.Release();
    m_tuner.Destroy();
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_THAT(m_tuner.trace.Get(), ElementsAre());
}

TEST_F(PostTest, MessageThatIsDeletedFromTheQueueIsFreed)
{
    auto token = std::make_shared<int>(1);
    Hold hold(&m_tuner);
    ASSERT_TRUE(m_tuner.Post(Counted{token}));
    m_tuner.Delete(static_cast<TCHandler*>(&m_tuner), nullptr);
    EXPECT_EQ(token.use_count(), 1);
}

TEST_F(PostTest, MessageThatIsRefusedIsFreed)
{
    auto token = std::make_shared<int>(1);
    Hold hold(&m_tuner);
    FillOrdinary();
    EXPECT_FALSE(m_tuner.Post(Counted{token}));
    EXPECT_EQ(token.use_count(), 1);
}

TEST_F(PostTest, PausedTaskHandlesMessagesWhenItIsResumed)
{
    ASSERT_TRUE(m_tuner.Pause());
    EXPECT_TRUE(m_tuner.Post(Tune{1}));
    EXPECT_EQ(m_tuner.trace.Size(), 0U);
    ASSERT_TRUE(m_tuner.ResumeAsync());
    EXPECT_TRUE(m_tuner.trace.WaitFor(1));
}

TEST_F(PostTest, TaskThatIsNotCreatedTakesNothing)
{
    Tuner idle;
    const auto posted = idle.Post(Tune{1});
    ASSERT_FALSE(posted);
    EXPECT_EQ(posted.error(), zor::Error::NO_TASK);
    EXPECT_EQ(idle.Post(Text{"a"}).error(), zor::Error::NO_TASK);
}

TEST_F(PostTest, EventThatWasFilledByHandIsTheMessage)
{
    TSEvent event = EventTo(&m_tuner, Tuner::EventType<Text>());
    event.setWrappedData(Text{"by hand"});
    ASSERT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_THAT(m_tuner.trace.Get(), ElementsAre("by hand"));
}

TEST_F(PostTest, EventTypesAreDifferentAndAboveTheRuntimes)
{
    EXPECT_EQ(Tuner::EventType<Tune>(), 0x10002U);
    EXPECT_EQ(Tuner::EventType<Exact>(), 0x10004U);
    static_assert(Tuner::Takes<Gift>());
    static_assert(!Tuner::Takes<int>());
}

TEST_F(PostTest, RecordedMessagesAreFlagged)
{
    EXPECT_FALSE(m_tuner.IsRecorded());
    m_tuner.SetRecorded(true);
    Hold hold(&m_tuner);
    ASSERT_TRUE(m_tuner.Post(Tune{1}));
    TSEvent queued;
    ASSERT_TRUE(m_tuner.Get(&queued, static_cast<TCHandler*>(&m_tuner)));
    EXPECT_TRUE(queued.flag);
}

TEST_F(PostTest, EndComesBehindWhatIsQueuedInAFullQueueOfAPausedTask)
{
    ASSERT_TRUE(m_tuner.Post(Tune{1}));
    ASSERT_TRUE(m_tuner.Pause());
    ASSERT_TRUE(m_tuner.Post(Tune{2}));
    FillOrdinary();
    const LogRecord log;
    m_tuner.End();
    EXPECT_FALSE(m_tuner.FlagCreate());
    EXPECT_THAT(m_tuner.trace.Get(), ::testing::Contains("tune 2"));
    for (const LogEntry& entry : log.Get()) {
        EXPECT_THAT(entry.text, ::testing::Not(::testing::HasSubstr("Was not resumed")));
    }
}

/// Ends its own loop, at once or when it comes to an exit event.
class Quitter : public zor::Task<Quitter, Empty>
{
 public:
    explicit Quitter(bool atOnce) : m_atOnce(atOnce) {}

    bool t_Create() override { return !m_atOnce; }
    void t_Destroy() override { gone.Pass(); }
    void On(const Empty& /*message*/) {}

    Gate gone; ///< not with atOnce

 private:
    const bool m_atOnce;
};

/// Nobody would ever make room for its exit event.
void ExpectToEndWithAFullQueue(Quitter* quitter)
{
    while (zortest::Post(quitter)) {
    }
    Caller ending([&] { quitter->End(); });
    const bool hasEnded = Eventually([&] { return ending.IsDone(); });
    EXPECT_TRUE(hasEnded);
    if (!hasEnded) {
        quitter->Delete(static_cast<TCHandler*>(quitter), nullptr);
    }
}

TEST_F(PostTest, TaskWhoseFirstHookHasRefusedEndsWithAFullQueue)
{
    Quitter quitter(true);
    ASSERT_TRUE(quitter.Start("Quitter"));
    ExpectToEndWithAFullQueue(&quitter);
}

TEST_F(PostTest, TaskWhoseLoopHasEndedEndsWithAFullQueue)
{
    Quitter quitter(false);
    ASSERT_TRUE(quitter.Start("Quitter"));
    ASSERT_TRUE(zortest::Post(&quitter, TCTask::EVENT_EXIT));
    ASSERT_TRUE(quitter.gone.Wait());
    ExpectToEndWithAFullQueue(&quitter);
}

template <std::size_t SIZE>
struct Sized
{
    unsigned char bytes[SIZE];
};

template <std::size_t... SIZES>
void ExpectEverySizeToArrive(std::index_sequence<SIZES...> /*sizes*/)
{
    const auto check = [](auto sent) {
        for (std::size_t i = 0; i < sizeof(sent); ++i) {
            sent.bytes[i] = static_cast<unsigned char>(0xA0 + i);
        }
        TSEvent event;
        zor::detail::Pack<decltype(sent)>(&event, sent);
        EXPECT_EQ(event.wrappedData, nullptr);
        zor::detail::Unpacked<decltype(sent)> received(event);
        EXPECT_EQ(std::memcmp(&received.Get(), &sent, sizeof(sent)), 0) << sizeof(sent);
    };
    (check(Sized<SIZES + 1>{}), ...);
}

TEST_F(PostTest, EverySizeUpToTheRoomInTheEventArrives)
{
    ExpectEverySizeToArrive(std::make_index_sequence<zor::detail::ROOM_IN_EVENT>());
}

/// Its own hooks may send it messages, from the first one on.
class Starter : public zor::Task<Starter, Empty>
{
 public:
    ~Starter() override { End(); }

    bool t_Create() override
    {
        EXPECT_TRUE(Post(Empty{}));
        EXPECT_EQ(Current(), this);
        return true;
    }

    void On(const Empty& /*message*/) { started.Pass(); }

    Gate started;
};

TEST_F(PostTest, TaskMayPostToItselfFromItsFirstHookOn)
{
    EXPECT_EQ(zor::TaskBase::Current(), nullptr);
    Starter starter;
    ASSERT_TRUE(starter.Start("Starter"));
    EXPECT_TRUE(starter.started.Wait());
}

TEST(ResultTest, EveryErrorHasANameAndAText)
{
    using zor::Error;
    std::vector<std::string> seen;
    for (int i = 0; i <= static_cast<int>(Error::NO_MEMORY); ++i) {
        const auto error = static_cast<Error>(i);
        EXPECT_STRNE(zor::Name(error), "?");
        EXPECT_STRNE(zor::Text(error), "unknown error");
        EXPECT_THAT(seen, ::testing::Not(::testing::Contains(zor::Text(error))));
        seen.emplace_back(zor::Text(error));
    }
    constexpr auto NONE = static_cast<Error>(100);
    EXPECT_STREQ(zor::Name(NONE), "?");
    EXPECT_STREQ(zor::Text(NONE), "unknown error");
    EXPECT_STREQ(zor::Name(Error::NOT_ANSWERED), "NOT_ANSWERED");
    EXPECT_STREQ(zor::Text(Error::NOT_ANSWERED), "no answer came in time");
}

} // namespace
