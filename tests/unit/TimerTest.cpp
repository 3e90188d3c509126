#include "Timer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "ConsoleSeam.h"
#include "Layout.h"
#include "LogSeam.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr milliseconds LONG(600 * 1000);
constexpr std::size_t NO_ID = TCTimersScheduler::INVALID_TIMER_ID;

/// The scheduler's id of a timer, which is its first member.
std::size_t IdOf(const TCTimer& timer)
{
    return FieldAt<std::size_t>(timer, sizeof(ITimer));
}

bool HasHandler(const TCTimer& timer)
{
    return FieldAt<void*>(timer, sizeof(ITimer) + sizeof(std::size_t)) != nullptr;
}

/// The texts of the scheduler's entries in the log, but for those of firings.
std::vector<std::string> Lines()
{
    std::vector<std::string> texts;
    for (const LogLine& line : LogLinesWith("Id[")) {
        if (line.text.find("Timer fire!") == std::string::npos &&
            line.text.find("Can't keep up!") == std::string::npos) {
            texts.push_back(line.text.substr(line.text.find("Id[")));
        }
    }
    return texts;
}

class Listener : public ITimerListener
{
 public:
    bool OnTimer(const TSEvent* event, void* userData) override
    {
        trace.Add(std::to_string(event->param1) + "/" + std::to_string(event->param2));
        thread = pthread_self();
        data = userData;
        if (during) {
            during(event);
        }
        return result;
    }

    Trace trace;
    std::atomic<pthread_t> thread{0};
    std::atomic<void*> data{nullptr};
    std::atomic<bool> result{true};
    std::function<void(const TSEvent*)> during; ///< set before the timer runs
};

class TimerTest : public ::testing::Test
{
 protected:
    TimerTest()
    {
        EXPECT_TRUE(m_task.Start());
        m_task.onUser = [this](const TSEvent*) {
            m_taskThread = pthread_self();
            return true;
        };
        TSEvent event = EventTo(&m_task);
        EXPECT_TRUE(TCTask::Send(&event, true, false));
    }

    /// What timers have handed over is released by the task, before anybody empties its queue.
    ~TimerTest() override { EXPECT_TRUE(Flush(&m_task)); }

    ITimer::TimerHandlerParams Params()
    {
        ITimer::TimerHandlerParams params;
        params.task = &m_task;
        params.listener = m_listener;
        params.userData = this;
        params.userDataRelease = [this](void* data) {
            EXPECT_EQ(data, this);
            m_releasedOn = pthread_self();
            ++m_releases;
        };
        return params;
    }

    /// Runs @p call on the task's thread with the handler that a firing is addressed to, once: the
    /// call may have the handler call the listener again.
    void WithHandler(const std::function<void(TCHandler*)>& call)
    {
        Gate done;
        bool called = false;
        m_listener->during = [&](const TSEvent* event) {
            if (std::exchange(called, true)) {
                return;
            }
            call(event->receiver);
            done.Pass();
        };
        TCTimer timer(Params());
        EXPECT_TRUE(timer.Restart(milliseconds(10), 1));
        EXPECT_TRUE(done.Wait());
    }

    const TaskRuntime m_runtime;
    TestTask m_task;
    std::atomic<pthread_t> m_taskThread{0};
    std::atomic<pthread_t> m_releasedOn{0};
    std::atomic<int> m_releases{0};
    std::shared_ptr<Listener> m_listener = std::make_shared<Listener>();
};

static_assert(std::is_abstract_v<ITimer>);
static_assert(std::has_virtual_destructor_v<ITimer>);
static_assert(std::has_virtual_destructor_v<ITimerListener>);
static_assert(std::is_base_of_v<ITimer, TCTimer>);
static_assert(!std::is_copy_constructible_v<TCTimer> && !std::is_copy_assignable_v<TCTimer>);
static_assert(std::is_nothrow_move_constructible_v<TCTimer>);
static_assert(std::is_nothrow_move_assignable_v<TCTimer>);

TEST(TimerLayoutTest, LimitsAndTypes)
{
    EXPECT_EQ(ITimer::INTERVAL_MIN, milliseconds(10));
    EXPECT_EQ(ITimer::INFINITE_FIRE, 0xFFFFFFFFu);
    EXPECT_EQ(EVENT_TIMER_TIMEOUT, 0u);
    EXPECT_EQ(EVENT_TIMER_SYNC, 1u);
}

TEST(TimerLayoutTest, OperationsAreInOrder)
{
    EXPECT_EQ(SlotOf(&ITimer::Restart), 2u);
    EXPECT_EQ(SlotOf(&ITimer::Pause), 3u);
    EXPECT_EQ(SlotOf(&ITimer::Resume), 4u);
    EXPECT_EQ(SlotOf(&TCTimer::Restart), 2u);
    EXPECT_EQ(SlotOf(&TCTimer::Pause), 3u);
    EXPECT_EQ(SlotOf(&TCTimer::Resume), 4u);
    EXPECT_EQ(SlotOf(&ITimerListener::OnTimer), 2u);
}

TEST(TimerLayoutTest, MembersAreInOrder)
{
    EXPECT_EQ(sizeof(ITimer), sizeof(void*));
    EXPECT_EQ(sizeof(TCTimer), 3 * sizeof(void*));
    const TCTimer timer;
    EXPECT_EQ(IdOf(timer), NO_ID);
    EXPECT_FALSE(HasHandler(timer));
}

TEST(TimerLayoutTest, FieldsOfTheParametersAreInOrder)
{
    const ITimer::TimerHandlerParams params;
    const auto offset = [&params](const void* field) {
        return static_cast<const char*>(field) - reinterpret_cast<const char*>(&params);
    };
    EXPECT_EQ(offset(&params.task), 0);
    EXPECT_EQ(offset(&params.listener), 8);
    EXPECT_EQ(offset(&params.userData), 24);
    EXPECT_EQ(offset(&params.userDataRelease), 32);
    EXPECT_EQ(sizeof(params), 64u);
}

TEST_F(TimerTest, NewTimerDoesNotFireUntilRestart)
{
    TCTimer timer(Params());
    TCTimer other(Params());
    EXPECT_TRUE(other.Restart(milliseconds(5), 3)); // as 10 ms, and exactly three times
    EXPECT_TRUE(m_listener->trace.WaitFor(3));
    EXPECT_TRUE(timer.Restart(milliseconds(10), 1));
    EXPECT_TRUE(m_listener->trace.WaitFor(4));
    EXPECT_THAT(m_listener->trace.Get(), ElementsAre("3/0", "3/1", "3/2", "1/0"));
    EXPECT_EQ(m_listener->thread, m_taskThread);
    EXPECT_EQ(m_listener->data, this);
}

TEST_F(TimerTest, IntervalBelowTheLeastIsRaised)
{
    TCTimer timer(Params());
    const auto begin = std::chrono::steady_clock::now();
    ClearLog();
    EXPECT_TRUE(timer.Restart(milliseconds(5), 10));
    EXPECT_TRUE(m_listener->trace.WaitFor(10));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(100));
    ASSERT_EQ(Lines().size(), 1u);
    EXPECT_THAT(Lines()[0], ::testing::HasSubstr("Interv[10] Count[10] WakedUp["));
}

TEST_F(TimerTest, InfiniteCountGoesOnAndCanBePaused)
{
    TCTimer timer(Params());
    EXPECT_TRUE(timer.Restart(milliseconds(10), ITimer::INFINITE_FIRE));
    EXPECT_TRUE(m_listener->trace.WaitFor(10));
    EXPECT_TRUE(timer.Pause());
    EXPECT_FALSE(timer.Pause());
    EXPECT_TRUE(Flush(&m_task));
    const std::size_t fired = m_listener->trace.Size();
    EXPECT_TRUE(timer.Resume());
    EXPECT_FALSE(timer.Resume());
    EXPECT_TRUE(m_listener->trace.WaitFor(fired + 2));
    EXPECT_EQ(m_listener->trace.Get()[fired], "4294967295/" + std::to_string(fired));
}

TEST_F(TimerTest, EveryOperationIsLoggedUnderTheTimersId)
{
    ClearLog();
    const TCTimer last(Params());
    TCTimer timer(Params());
    const std::string id = "Id[" + std::to_string(IdOf(timer)) + "] ";
    EXPECT_EQ(Lines().back(), id + "WakedUp[0] New timer created!");
    EXPECT_TRUE(timer.Restart(LONG, 0));
    EXPECT_EQ(Lines().back(), id + "Interv[600000] Count[0] WakedUp[0] Timer reseted!");
    EXPECT_TRUE(timer.Pause());
    EXPECT_EQ(Lines().back(), id + "Timer paused!");
    EXPECT_FALSE(timer.Pause());
    EXPECT_EQ(Lines().back(), id + "State[5] Wrong state to pause!");
    EXPECT_TRUE(timer.Resume()); // to expired: there is nothing to go on with
    EXPECT_EQ(Lines().back(), id + "WakedUp[0] Timer resumed!");
    EXPECT_FALSE(timer.Resume());
    EXPECT_EQ(Lines().back(), id + "State[3] Wrong state to resume!");
    timer = TCTimer();
    EXPECT_EQ(Lines().back(), id + "WakedUp[0] Timer destroyed!");
}

TEST_F(TimerTest, EmptyTimerRefusesEverything)
{
    ClearLog();
    {
        TCTimer timer;
        EXPECT_FALSE(timer.Restart(milliseconds(10), 1));
        EXPECT_FALSE(timer.Pause());
        EXPECT_FALSE(timer.Resume());
    }
    EXPECT_THAT(Lines(), ElementsAre("Id[18446744073709551615] Timer not found!",
                                     "Id[18446744073709551615] Timer not found!",
                                     "Id[18446744073709551615] Timer not found!"));
    for (const LogLine& line : LogLinesWith("Timer not found!")) {
        EXPECT_EQ(line.priority, DLOG_INFO);
    }
}

TEST_F(TimerTest, RestartDropsQueuedFirings)
{
    TCTimer timer(Params());
    {
        Hold hold(&m_task);
        EXPECT_TRUE(timer.Restart(milliseconds(10), 2));
        EXPECT_TRUE(Eventually([this] { return m_task.Size() == 2; }));
        EXPECT_TRUE(timer.Restart(LONG, 1));
        EXPECT_EQ(m_task.Size(), 0u);
    }
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_listener->trace.Get(), IsEmpty());
}

TEST_F(TimerTest, RestartOfARunningTimerBeginsTheCountAnew)
{
    TCTimer timer(Params());
    EXPECT_TRUE(timer.Restart(milliseconds(10), 2));
    EXPECT_TRUE(m_listener->trace.WaitFor(2));
    EXPECT_TRUE(timer.Restart(milliseconds(10), 3));
    EXPECT_TRUE(m_listener->trace.WaitFor(5));
    EXPECT_THAT(m_listener->trace.Get(), ElementsAre("2/0", "2/1", "3/0", "3/1", "3/2"));
}

TEST_F(TimerTest, HandlerAnswersWhatTheListenerAnswers)
{
    std::atomic<int> calls{0};
    WithHandler([&](TCHandler* handler) {
        const TSEvent event = EventTo(handler, EVENT_TIMER_TIMEOUT, 9);
        EXPECT_TRUE(handler->t_OnEvent(&event));
        m_listener->result = false;
        EXPECT_FALSE(handler->t_OnEvent(&event));
        ++calls;
    });
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(m_listener->trace.Get(), ElementsAre("1/0", "9/0", "9/0"));
}

TEST_F(TimerTest, SynchronisationMarkerIsAcceptedWithoutTheListener)
{
    m_listener->result = false;
    WithHandler([](TCHandler* handler) {
        const TSEvent event = EventTo(handler, EVENT_TIMER_SYNC);
        EXPECT_TRUE(handler->t_OnEvent(&event));
    });
    EXPECT_EQ(m_listener->trace.Size(), 1u);
}

TEST_F(TimerTest, OtherEventTypesAreAssertedAndRefused)
{
    WithHandler([](TCHandler* handler) {
        const TSEvent event = EventTo(handler, 2);
        EXPECT_THAT(AssertionsOf([&] { EXPECT_FALSE(handler->t_OnEvent(&event)); }),
                    ElementsAre("ev->type == TimerEventType::EVENT_TIMER_TIMEOUT || "
                                "ev->type == TimerEventType::EVENT_TIMER_SYNC"));
    });
    EXPECT_EQ(m_listener->trace.Size(), 1u);
}

TEST_F(TimerTest, NoEventIsAsserted)
{
    WithHandler([](TCHandler* handler) {
        EXPECT_ASSERT_DEATH(handler->t_OnEvent(nullptr), "ev != nullptr");
    });
}

/// The handler is a handler no more by the time the user data are released.
TEST_F(TimerTest, EventForAReleasedHandlerIsAsserted)
{
    std::atomic<TCHandler*> handler{nullptr};
    m_listener->during = [&](const TSEvent* event) { handler = event->receiver; };
    ITimer::TimerHandlerParams params = Params();
    params.userDataRelease = [&](void*) {
        const TSEvent event = EventTo(handler, EVENT_TIMER_SYNC);
        EXPECT_THAT(AssertionsOf([&] { EXPECT_TRUE(handler.load()->t_OnEvent(&event)); }),
                    ElementsAre("FlagCreate() == true"));
        ++m_releases;
    };
    {
        TCTimer timer(params);
        EXPECT_TRUE(timer.Restart(milliseconds(10), 1));
        EXPECT_TRUE(Eventually([&] { return handler != nullptr; }));
    }
    EXPECT_TRUE(Eventually([this] { return m_releases == 1; }));
}

TEST_F(TimerTest, TimerWithoutATaskIsAsserted)
{
    ITimer::TimerHandlerParams params = Params();
    params.task = nullptr;
    EXPECT_ASSERT_DEATH(TCTimer{params}, "task != NULL");
}

TEST_F(TimerTest, TaskIsHandedAResumeEventThatTakesNoAction)
{
    const LogRecord record;
    std::atomic<int> resumed{0};
    m_task.onResume = [&resumed](const TSEvent*) { ++resumed; };
    Hold hold(&m_task);
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_USER));
    TSEvent event;
    {
        const TCTimer timer(Params());
        EXPECT_EQ(m_task.Size(), 1u);
    }
    EXPECT_EQ(m_task.Size(), 2u);
    ASSERT_TRUE(m_task.Get(&event, 0)); // it has overtaken what was queued
    EXPECT_EQ(event.type, TCTask::EVENT_RESUME);
    EXPECT_EQ(event.receiver, static_cast<TCHandler*>(&m_task));
    EXPECT_EQ(event.sync, nullptr);
    EXPECT_NE(event.wrappedData, nullptr);
    EXPECT_EQ(event.wrappedData.use_count(), 1);
    EXPECT_EQ(m_releases, 0);
    EXPECT_TRUE(TCTask::Send(&event, false, true));
    event = TSEvent();
    EXPECT_EQ(m_releases, 0);
    hold.Release();
    EXPECT_TRUE(Eventually([this] { return m_releases == 1; }));
    EXPECT_EQ(m_releasedOn, m_taskThread);
    EXPECT_EQ(resumed, 0);
    EXPECT_THAT(PauseLines(record), IsEmpty());
}

TEST_F(TimerTest, DestroyedTimerIsReleasedOnceOnTheTasksThread)
{
    {
        Hold hold(&m_task);
        {
            TCTimer timer(Params());
            EXPECT_TRUE(timer.Restart(milliseconds(10), 3));
            EXPECT_TRUE(Eventually([this] { return m_task.Size() > 0; }));
        }
        EXPECT_EQ(m_task.Size(), 1u); // the handler on its way
        EXPECT_EQ(m_releases, 0);
    }
    EXPECT_TRUE(Eventually([this] { return m_releases == 1; }));
    EXPECT_EQ(m_releasedOn, m_taskThread);
    EXPECT_THAT(m_listener->trace.Get(), IsEmpty()); // queued firings went with the timer
    EXPECT_EQ(m_listener.use_count(), 1);
}

TEST_F(TimerTest, ListenerIsLetGoBeforeTheUserDataAre)
{
    const std::weak_ptr<Listener> listener = m_listener;
    std::atomic<bool> gone{false};
    ITimer::TimerHandlerParams params = Params();
    params.userDataRelease = [&](void*) {
        gone = listener.expired();
        ++m_releases;
    };
    m_listener.reset();
    {
        const TCTimer timer(params);
        params.listener.reset();
        EXPECT_FALSE(listener.expired());
    }
    EXPECT_TRUE(Eventually([this] { return m_releases == 1; }));
    EXPECT_TRUE(gone);
}

TEST_F(TimerTest, ReleaseOfUserDataMayBeLeftOut)
{
    ITimer::TimerHandlerParams params = Params();
    params.userDataRelease = nullptr;
    {
        TCTimer timer(params);
        EXPECT_TRUE(timer.Restart(milliseconds(10), 1));
        EXPECT_TRUE(m_listener->trace.WaitFor(1));
    }
    params.listener.reset();
    EXPECT_TRUE(Eventually([this] { return m_listener.use_count() == 1; }));
    EXPECT_EQ(m_listener->data, this);
}

TEST_F(TimerTest, TimerDestroyedWhileItsListenerRunsIsReleasedAfterwards)
{
    Gate entered;
    Gate leave;
    m_listener->during = [&](const TSEvent*) {
        entered.Pass();
        leave.Wait();
    };
    {
        TCTimer timer(Params());
        EXPECT_TRUE(timer.Restart(milliseconds(10), 1));
        EXPECT_TRUE(entered.Wait());
    }
    EXPECT_EQ(m_releases, 0);
    leave.Pass();
    EXPECT_TRUE(Eventually([this] { return m_releases == 1; }));
    EXPECT_EQ(m_releasedOn, m_taskThread);
}

TEST_F(TimerTest, ListenerMayDestroyItsOwnTimer)
{
    std::unique_ptr<TCTimer> timer;
    std::atomic<int> releasesDuring{-1};
    m_listener->during = [&](const TSEvent* event) {
        timer.reset();
        releasesDuring = m_releases.load();
        EXPECT_TRUE(event->receiver->FlagCreate());
    };
    timer = std::make_unique<TCTimer>(Params());
    EXPECT_TRUE(timer->Restart(milliseconds(10), ITimer::INFINITE_FIRE));
    EXPECT_TRUE(Eventually([this] { return m_releases == 1; }));
    EXPECT_EQ(releasesDuring, 0);
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_EQ(m_listener->trace.Size(), 1u);
}

TEST_F(TimerTest, ReleaseMayDestroyAnotherTimer)
{
    auto other = std::make_unique<TCTimer>(Params());
    ITimer::TimerHandlerParams params = Params();
    params.userDataRelease = [&](void*) { other.reset(); };
    {
        const TCTimer timer(params);
    }
    EXPECT_TRUE(Eventually([this] { return m_releases == 1; }));
}

/// Three timers of a task whose loop has ended, each owned by the one before.
class TimerChainTest : public ::testing::TestWithParam<bool>
{};

TEST_P(TimerChainTest, TimersThatOwnTimersAreReleasedWithTheTask)
{
    struct Link
    {
        std::unique_ptr<TCTimer> next;
        int releases = 0;
    };

    const TaskRuntime runtime;
    TestTask task;
    Gate loopEnded;
    task.onDestroy = [&loopEnded] { loopEnded.Pass(); };
    ASSERT_TRUE(task.Start());
    Link links[3];
    ITimer::TimerHandlerParams params;
    params.task = &task;
    params.listener = std::make_shared<Listener>();
    params.userDataRelease = [](void* userData) {
        auto* const link = static_cast<Link*>(userData);
        ++link->releases;
        link->next.reset();
    };
    const auto make = [&params](Link* link) {
        params.userData = link;
        return std::make_unique<TCTimer>(params);
    };
    links[1].next = make(&links[2]);
    links[0].next = make(&links[1]);
    std::unique_ptr<TCTimer> first = make(&links[0]);
    ASSERT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    ASSERT_TRUE(loopEnded.Wait());
    if (GetParam()) {
        FillQueue(&task);
    }
    first.reset();
    task.Destroy();
    for (const Link& link : links) {
        EXPECT_EQ(link.releases, 1);
    }
    EXPECT_EQ(params.listener.use_count(), 1);
}

INSTANTIATE_TEST_SUITE_P(WithAQueueThatIsEmptyOrFull, TimerChainTest, ::testing::Bool());

/// More timers than the queue takes, destroyed while the task is in a listener.
TEST_F(TimerTest, FullQueueDoesNotKeepAHandlerFromItsTask)
{
    constexpr int TIMERS = 300;
    {
        Hold hold(&m_task);
        std::vector<TCTimer> timers;
        for (int i = 0; i < TIMERS; ++i) {
            timers.emplace_back(Params());
        }
        FillQueue(&m_task);
        timers.clear();
        EXPECT_EQ(m_releases, 0);
    }
    EXPECT_TRUE(Eventually([this] { return m_releases == TIMERS; }));
    EXPECT_EQ(m_releasedOn, m_taskThread);
}

/// A task that stays in its first idle turn until it is told to go on.
class IdlingTask : public TestTask
{
 public:
    IdlingTask()
    {
        onIdle = [this] {
            if (std::exchange(m_first, false)) {
                m_idle.Pass();
                m_goOn.Wait();
            }
        };
    }
    ~IdlingTask() override { End(); } // before the gates go

    bool StartAndIdle() { return Start("idle", 10) && m_idle.Wait(); }
    void GoOn() { m_goOn.Pass(); }

 private:
    Gate m_idle;
    Gate m_goOn;
    bool m_first = true; // only the task's thread
};

TEST_F(TimerTest, HandlerKeptOutByAFullQueueGoesWhenTheTaskFindsTheQueueEmptied)
{
    IdlingTask task;
    ASSERT_TRUE(task.StartAndIdle());
    {
        ITimer::TimerHandlerParams params = Params();
        params.task = &task;
        const TCTimer timer(params);
        FillQueue(&task);
    }
    EXPECT_TRUE(task.Delete(static_cast<TCHandler*>(&task), nullptr));
    EXPECT_EQ(m_releases, 0);
    task.GoOn();
    EXPECT_TRUE(Eventually([this] { return m_releases == 1; })); // and no event comes any more
}

TEST_F(TimerTest, HandlerKeptOutByAFullQueueGoesWithADroppedEvent)
{
    std::atomic<int> releasesSeen{-1};
    IdlingTask task;
    ASSERT_TRUE(task.StartAndIdle());
    FunctionHandler gone([](const TSEvent*) { return true; });
    FunctionHandler looks(
        [&](const TSEvent*) {
            releasesSeen = m_releases.load();
            return true;
        },
        &task);
    {
        ITimer::TimerHandlerParams params = Params();
        params.task = &task;
        const TCTimer timer(params);
        FillQueue(&task);
        TSEvent event;
        EXPECT_TRUE(task.Get(&event, static_cast<TCHandler*>(&task)));
        EXPECT_TRUE(task.Get(&event, static_cast<TCHandler*>(&task)));
        for (TCHandler* receiver : {&looks, &gone}) { // the last one is taken first
            event = EventTo(receiver);
            EXPECT_TRUE(task.Put(&event, true));
        }
    }
    EXPECT_EQ(m_releases, 0);
    task.GoOn();
    EXPECT_TRUE(Eventually([&] { return releasesSeen >= 0; }));
    EXPECT_EQ(releasesSeen, 1);
}

TEST_F(TimerTest, HandlerKeptOutByAFullQueueStaysWhileTheQueueIsLocked)
{
    Gate entered;
    Gate leave;
    std::atomic<bool> left{false};
    pid_t kernelId = 0; // of the task's thread; ordered by the gate
    FunctionHandler handler(
        [&](const TSEvent*) {
            kernelId = static_cast<pid_t>(syscall(SYS_gettid));
            entered.Pass();
            EXPECT_TRUE(leave.Wait());
            left = true;
            return true;
        },
        &m_task);
    EXPECT_TRUE(Post(&handler));
    ASSERT_TRUE(entered.Wait());
    {
        const TCTimer timer(Params());
        FillQueue(&m_task);
    }
    m_task.Lock();
    leave.Pass();
    EXPECT_TRUE(Eventually([&] { return left.load(); }));
    EXPECT_TRUE(FallsAsleep(kernelId));
    EXPECT_EQ(m_releases, 0);
    m_task.Unlock();
    EXPECT_TRUE(Eventually([this] { return m_releases == 1; }));
}

TEST_F(TimerTest, HandlerThatItsEndedTaskNoLongerTakesGoesBeforeTheTasksDestroyReturns)
{
    std::optional<TCTimer> timer;
    TestTask task;
    task.onDestroy = [&] {
        FillQueue(&task);
        timer.reset();
        EXPECT_EQ(m_releases, 0);
    };
    ASSERT_TRUE(task.Start());
    ITimer::TimerHandlerParams params = Params();
    params.task = &task;
    timer.emplace(params);
    task.End();
    EXPECT_EQ(m_releases, 1);
}

TEST_F(TimerTest, MovedTimerKeepsRunningUnderItsId)
{
    TCTimer timer;
    {
        TCTimer source(Params());
        const std::size_t id = IdOf(source);
        EXPECT_TRUE(source.Restart(milliseconds(10), ITimer::INFINITE_FIRE));
        timer = std::move(source);
        EXPECT_EQ(IdOf(timer), id);
        // NOLINTBEGIN(bugprone-use-after-move): it has no timer any more
        EXPECT_EQ(IdOf(source), NO_ID);
        EXPECT_FALSE(HasHandler(source));
        EXPECT_FALSE(source.Pause());
        // NOLINTEND(bugprone-use-after-move)
    }
    EXPECT_TRUE(m_listener->trace.WaitFor(m_listener->trace.Size() + 2));
    EXPECT_EQ(m_releases, 0);
    const std::size_t id = IdOf(timer);
    const TCTimer last(std::move(timer));
    EXPECT_EQ(IdOf(last), id);
    EXPECT_EQ(IdOf(timer), NO_ID); // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(m_listener->trace.WaitFor(m_listener->trace.Size() + 2));
    EXPECT_EQ(m_releases, 0);
}

TEST_F(TimerTest, MoveOntoATimerEndsIt)
{
    TCTimer timer(Params());
    timer = TCTimer(Params());
    EXPECT_TRUE(Eventually([this] { return m_releases == 1; }));
    EXPECT_TRUE(timer.Restart(milliseconds(10), 1));
    EXPECT_TRUE(m_listener->trace.WaitFor(1));
}

TEST_F(TimerTest, MoveOfNoTimerOntoATimerEndsIt)
{
    TCTimer timer(Params());
    timer = TCTimer();
    EXPECT_EQ(IdOf(timer), NO_ID);
    EXPECT_FALSE(HasHandler(timer));
    EXPECT_TRUE(Eventually([this] { return m_releases == 1; }));
    EXPECT_EQ(m_releasedOn, m_taskThread);
}

TEST_F(TimerTest, MoveOntoItselfChangesNothing)
{
    TCTimer timer(Params());
    TCTimer& same = timer;
    const std::size_t id = IdOf(timer);
    timer = std::move(same);
    EXPECT_EQ(IdOf(timer), id);
    EXPECT_TRUE(timer.Restart(milliseconds(10), 1));
    EXPECT_TRUE(m_listener->trace.WaitFor(1));
    EXPECT_EQ(m_releases, 0);
}

/// A timer whose slot somebody else has freed is not handed over: its handler dies with it.
TEST_F(TimerTest, HandlerOfATimerThatTheSchedulerHasLostDiesWithTheTimer)
{
    {
        const TCTimer timer(Params());
        EXPECT_TRUE(TCTimer::m_scheduler.DestroyTimer(IdOf(timer)));
    }
    EXPECT_EQ(m_releases, 1);
    EXPECT_EQ(m_releasedOn, pthread_self());
}

TEST_F(TimerTest, DestroyedInTheMiddleOfItsFiringsManyTimes)
{
    constexpr int ROUNDS = 300;
    for (int i = 0; i < ROUNDS; ++i) {
        TCTimer timer(Params());
        EXPECT_TRUE(timer.Restart(milliseconds(10), ITimer::INFINITE_FIRE));
        if (i % 30 == 0) {
            EXPECT_TRUE(m_listener->trace.WaitFor(m_listener->trace.Size() + 1));
        }
    }
    EXPECT_TRUE(Eventually([this] { return m_releases == ROUNDS; }));
}

/// One timer of many, and what has become of it. The user data of its timer.
struct Fate
{
    Gate entered;                     ///< its listener has been called
    Gate leave;                       ///< its listener may return
    std::atomic<int> calls{0};        ///< of its listener
    std::atomic<int> releases{0};     ///< of its user data
    std::atomic<bool> running{false}; ///< its listener is being called
    std::atomic<int> cutShort{0};     ///< releases while the listener was being called
    std::atomic<pthread_t> thread{0}; ///< where the user data were released
    std::unique_ptr<TCTimer> timer;   ///< the main thread's
};

class FateListener : public ITimerListener
{
 public:
    bool OnTimer(const TSEvent* /*event*/, void* userData) override
    {
        auto* fate = static_cast<Fate*>(userData);
        fate->running = true;
        ++fate->calls;
        fate->entered.Pass();
        EXPECT_TRUE(fate->leave.Wait());
        fate->running = false;
        return true;
    }
};

/// Timers destroyed while the task is in their listeners. Of each two neighbours one's listener
/// returns only after the destruction, the other's at the same time. As many at once as the queue
/// takes firings: each has to wait for its interval.
TEST_F(TimerTest, TenThousandTimersDestroyedWhileTheirListenersRun)
{
    constexpr int ROUNDS = 50;
    constexpr int TIMERS = 200;
    const auto listener = std::make_shared<FateListener>();
    ITimer::TimerHandlerParams params;
    params.task = &m_task;
    params.listener = listener;
    params.userDataRelease = [](void* userData) {
        auto* fate = static_cast<Fate*>(userData);
        fate->cutShort += fate->running ? 1 : 0;
        fate->thread = pthread_self();
        ++fate->releases;
    };
    for (int round = 0; round < ROUNDS; ++round) {
        std::vector<Fate> fates(TIMERS);
        for (Fate& fate : fates) {
            params.userData = &fate;
            fate.timer = std::make_unique<TCTimer>(params);
            ASSERT_TRUE(fate.timer->Restart(milliseconds(10), 1));
        }
        // Due one after the other, or together with the lower id first: their order may be any.
        for (std::size_t i = 0; i < fates.size(); ++i) {
            auto running = fates.end();
            ASSERT_TRUE(Eventually([&] {
                running = std::find_if(fates.begin(), fates.end(), [](const Fate& fate) {
                    return fate.timer != nullptr && fate.entered.IsOpen();
                });
                return running != fates.end();
            }));
            if (i % 2 == 0) {
                running->leave.Pass();
                running->timer.reset();
            } else {
                running->timer.reset();
                EXPECT_EQ(running->releases, 0);
                running->leave.Pass();
            }
        }
        ASSERT_TRUE(Flush(&m_task));
        for (const Fate& fate : fates) {
            ASSERT_EQ(fate.calls, 1);
            ASSERT_EQ(fate.releases, 1);
            ASSERT_EQ(fate.cutShort, 0);
            ASSERT_EQ(fate.thread, m_taskThread);
        }
        ClearLog();
    }
    params.listener.reset();
    EXPECT_EQ(listener.use_count(), 1);
}

} // namespace
