#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <exception>
#include <future>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ConsoleSeam.h"
#include "TaskSeams.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// A running task that notes its user events and what becomes of its pauses.
class PauseTest : public ::testing::Test
{
 protected:
    PauseTest()
    {
        m_task.onUser = [this](const TSEvent* event) {
            m_trace.Add(std::to_string(event->param1));
            return true;
        };
        m_task.onPause = [this](const TSEvent* event) {
            EXPECT_EQ(event->type, TCTask::EVENT_PAUSE);
            m_trace.Add("pause");
        };
        m_task.onResume = [this](const TSEvent* event) {
            EXPECT_EQ(event->type, TCTask::EVENT_PAUSE);
            m_trace.Add("resume");
        };
        EXPECT_TRUE(m_task.Start());
    }

    const TaskRuntime m_runtime;
    FakeWatchdog m_watchdog;
    Trace m_trace;
    TestTask m_task;
};

TEST_F(PauseTest, PausedFromPauseToResume)
{
    EXPECT_FALSE(m_task.IsPaused());
    EXPECT_TRUE(m_task.Pause());
    EXPECT_TRUE(m_task.IsPaused());
    EXPECT_TRUE(m_task.ResumeAsync());
    EXPECT_FALSE(m_task.IsPaused());
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), ElementsAre("pause", "resume"));
}

TEST_F(PauseTest, CanBeDoneAgain)
{
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(m_task.Pause());
        EXPECT_TRUE(m_task.ResumeAsync());
    }
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(),
                ElementsAre("pause", "resume", "pause", "resume", "pause", "resume"));
}

TEST_F(PauseTest, HooksRunOnTheTasksThread)
{
    std::vector<pthread_t> threads;
    m_task.onPause = [&](const TSEvent*) { threads.push_back(pthread_self()); };
    m_task.onResume = [&](const TSEvent*) { threads.push_back(pthread_self()); };
    ASSERT_TRUE(m_task.Pause());
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(threads, ElementsAre(m_task.Id(), m_task.Id()));
}

TEST_F(PauseTest, PauseReturnsAfterItsHookHasRun)
{
    EXPECT_TRUE(m_task.Pause());
    EXPECT_THAT(m_trace.Get(), ElementsAre("pause"));
    EXPECT_TRUE(m_task.ResumeAsync());
}

TEST_F(PauseTest, EventsSentDuringThePauseAreHandledInOrderAfterTheResumeHook)
{
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_USER, 1));
    EXPECT_TRUE(Flush(&m_task));
    ASSERT_TRUE(m_task.Pause());
    for (std::uint32_t i = 2; i <= 5; ++i) {
        EXPECT_TRUE(Post(&m_task, TCTask::EVENT_USER, i));
    }
    EXPECT_EQ(m_task.Size(), 4u);
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), ElementsAre("1", "pause", "resume", "2", "3", "4", "5"));
}

TEST_F(PauseTest, OvertakesOrdinaryEvents)
{
    std::optional<Hold> hold(&m_task);
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_USER, 1));
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_USER, 2));
    Caller pauser([this] { EXPECT_TRUE(m_task.Pause()); });
    EXPECT_TRUE(Eventually([this] { return m_task.Size() == 3; }));
    hold->Release();
    pauser.Join();
    EXPECT_THAT(m_trace.Get(), ElementsAre("pause"));
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), ElementsAre("pause", "resume", "1", "2"));
}

TEST_F(PauseTest, SynchronousSendWaitsForTheResume)
{
    ASSERT_TRUE(m_task.Pause());
    Caller sender([this] {
        TSEvent event = EventTo(&m_task, TCTask::EVENT_USER, 1);
        EXPECT_TRUE(TCTask::Send(&event, true, true));
    });
    EXPECT_TRUE(sender.Blocks());
    ASSERT_TRUE(m_task.ResumeAsync());
    sender.Join();
    EXPECT_THAT(m_trace.Get(), ElementsAre("pause", "resume", "1"));
}

TEST_F(PauseTest, WaitsForTheEventBeingHandled)
{
    Hold hold(&m_task);
    Caller pauser([this] { EXPECT_TRUE(m_task.Pause()); });
    EXPECT_TRUE(pauser.Blocks());
    EXPECT_THAT(m_trace.Get(), IsEmpty());
    hold.Release();
    pauser.Join();
    EXPECT_TRUE(m_task.IsPaused());
    EXPECT_TRUE(m_task.ResumeAsync());
}

TEST_F(PauseTest, IsPausedWaitsWhileAPauseIsUnderWayAndReportsTrue)
{
    Hold hold(&m_task);
    Caller pauser([this] { EXPECT_TRUE(m_task.Pause()); });
    EXPECT_TRUE(Eventually([this] { return m_task.Size() == 1; })); // it has the mutex
    bool paused = false;
    Caller asker([&] { paused = m_task.IsPaused(); });
    EXPECT_TRUE(asker.Blocks());
    hold.Release();
    asker.Join();
    EXPECT_TRUE(paused);
    pauser.Join();
    EXPECT_TRUE(m_task.ResumeAsync());
}

TEST_F(PauseTest, ResumeWaitsWhileAPauseIsUnderWay)
{
    Hold hold(&m_task);
    Caller pauser([this] { EXPECT_TRUE(m_task.Pause()); });
    EXPECT_TRUE(Eventually([this] { return m_task.Size() == 1; }));
    bool resumed = false;
    Caller resumer([&] { resumed = m_task.ResumeAsync(); });
    EXPECT_TRUE(resumer.Blocks());
    hold.Release();
    resumer.Join();
    pauser.Join();
    EXPECT_TRUE(resumed);
    EXPECT_FALSE(m_task.IsPaused());
}

TEST_F(PauseTest, SecondPauseOfTwoWaitsAndFindsTheTaskPaused)
{
    Hold hold(&m_task);
    Caller first([this] { EXPECT_TRUE(m_task.Pause()); });
    EXPECT_TRUE(Eventually([this] { return m_task.Size() == 1; }));
    Caller second([this] { EXPECT_TRUE(m_task.Pause()); });
    EXPECT_TRUE(second.Blocks());
    EXPECT_EQ(m_task.Size(), 1u); // it has sent nothing
    hold.Release();
    first.Join();
    second.Join();
    EXPECT_TRUE(m_task.ResumeAsync()); // one is enough
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), ElementsAre("pause", "resume"));
}

TEST_F(PauseTest, ResumeReturnsWhileTheResumeHookRuns)
{
    Gate entered;
    Gate release;
    m_task.onResume = [&](const TSEvent*) {
        entered.Pass();
        EXPECT_TRUE(release.Wait());
        m_trace.Add("resume");
    };
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(m_task.ResumeAsync());
    EXPECT_FALSE(m_task.IsPaused());
    EXPECT_TRUE(entered.Wait());
    EXPECT_THAT(m_trace.Get(), ElementsAre("pause"));
    EXPECT_FALSE(m_task.ResumeAsync());
    release.Pass();
    EXPECT_TRUE(Flush(&m_task));
}

TEST_F(PauseTest, AnyThreadResumes)
{
    std::optional<Caller> caller([this] { EXPECT_TRUE(m_task.Pause()); });
    caller->Join();
    caller.emplace([this] { EXPECT_TRUE(m_task.ResumeAsync()); });
    caller->Join();
    EXPECT_FALSE(m_task.IsPaused());
}

TEST_F(PauseTest, ATaskCanPauseAndResumeAnother)
{
    TestTask other;
    other.onUser = [this](const TSEvent*) {
        EXPECT_TRUE(m_task.Pause());
        EXPECT_TRUE(m_task.ResumeAsync());
        return true;
    };
    ASSERT_TRUE(other.Start("other"));
    TSEvent event = EventTo(&other);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), ElementsAre("pause", "resume"));
}

TEST_F(PauseTest, DestroyOfAPausedTaskResumesIt)
{
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_USER, 1));
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_EXIT));
    m_task.Destroy();
    EXPECT_FALSE(m_task.FlagCreate());
    EXPECT_THAT(m_trace.Get(), ElementsAre("pause", "resume", "1"));
    ASSERT_TRUE(m_task.Start());
    EXPECT_FALSE(m_task.IsPaused());
}

TEST_F(PauseTest, DeletedRequestBreaksItsPromise)
{
    std::optional<Hold> hold(&m_task);
    std::optional<std::error_code> error;
    std::exception_ptr kept; // goes on this thread, once the other has ended
    Caller pauser([&] {
        try {
            m_task.Pause();
        } catch (const std::future_error& failure) {
            error = failure.code();
            kept = std::current_exception();
        }
    });
    EXPECT_TRUE(Eventually([this] { return m_task.Size() == 1; }));
    EXPECT_TRUE(m_task.Delete(static_cast<TCHandler*>(&m_task), nullptr));
    pauser.Join();
    EXPECT_EQ(error, std::make_error_code(std::future_errc::broken_promise));
    EXPECT_FALSE(m_task.IsPaused()); // and the request mutex is free
    hold->Release();
    EXPECT_TRUE(m_task.Pause());
    EXPECT_TRUE(m_task.ResumeAsync());
}

TEST_F(PauseTest, RequestIsAPriorityEventWithAPromise)
{
    Hold hold(&m_task);
    Caller pauser([this] { EXPECT_THROW(m_task.Pause(), std::future_error); });
    EXPECT_TRUE(Eventually([this] { return m_task.Size() == 1; }));
    {
        TSEvent event;
        EXPECT_TRUE(m_task.Get(&event, &m_task, TCTask::EVENT_PAUSE)); // of an asynchronous one
        EXPECT_FALSE(event.flag);
        EXPECT_NE(dynamic_cast<ZORManagedEventData<std::promise<bool>>*>(event.wrappedData.get()),
                  nullptr);
        // The requester lets go when its send has returned.
        EXPECT_TRUE(Eventually([&event] { return event.wrappedData.use_count() == 1; }));
    }
    pauser.Join();
}

/// Calls OnPause() with an event without or with the wrong attachment.
class PauseEventTest : public PauseTest
{
 protected:
    std::error_code ErrorOf(const TSEvent& event)
    {
        try {
            m_task.OnPause(&event);
        } catch (const std::future_error& failure) {
            return failure.code();
        }
        return {};
    }
};

TEST_F(PauseEventTest, WithoutPromiseThrowsNoState)
{
    const TSEvent event = EventTo(&m_task, TCTask::EVENT_PAUSE);
    EXPECT_EQ(ErrorOf(event), std::make_error_code(std::future_errc::no_state));
    EXPECT_THAT(m_trace.Get(), ElementsAre("pause"));
    EXPECT_TRUE(m_task.IsPaused()); // the flag was set before
}

TEST_F(PauseEventTest, WithAnotherAttachmentThrowsNoState)
{
    TSEvent event = EventTo(&m_task, TCTask::EVENT_PAUSE);
    event.setWrappedData(std::promise<int>());
    EXPECT_EQ(ErrorOf(event), std::make_error_code(std::future_errc::no_state));
}

TEST_F(PauseEventTest, AcknowledgementAndAnswerAreTrue)
{
    std::promise<bool> reply;
    std::future<bool> acknowledged = reply.get_future();
    TSEvent event = EventTo(&m_task, TCTask::EVENT_PAUSE);
    event.setWrappedData(std::move(reply));
    bool answer = false;
    Caller paused([&] { answer = m_task.OnPause(&event); });
    EXPECT_TRUE(acknowledged.get());
    EXPECT_TRUE(m_task.ResumeAsync());
    paused.Join();
    EXPECT_TRUE(answer);
}

using PauseDeathTest = PauseTest;

TEST_F(PauseDeathTest, HandlingWithoutATaskOrAnEventAsserts)
{
    TestTask hooked;
    hooked.onPause = [](const TSEvent*) {}; // the task's own hook would assert the same
    TestTask idle;
    const TSEvent event;
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", hooked.OnPause(&event), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", idle.t_OnPause(&event), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", idle.t_OnResume(&event), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", idle.Pause(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", idle.ResumeAsync(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH_IN("TaskControl.cpp", m_task.OnPause(nullptr), "event != NULL");
}

TEST_F(PauseDeathTest, EventWithoutPromiseEndsTheProcess)
{
    const auto pause = [this] {
        EXPECT_TRUE(Post(&m_task, TCTask::EVENT_PAUSE));
        Flush(&m_task);
    };
    EXPECT_EXIT(pause(), ::testing::KilledBySignal(SIGABRT), HasSubstr("std::future_error"));
}

constexpr char BEGIN_PAUSE[] = "true 7 [pause_resume] Begin";
constexpr char BEGIN_RESUME[] = "true 7 [pause_resume] BEGIN";
constexpr char END[] = "true 7 [pause_resume] END";
constexpr char EVENT[] = "false 4 [pause_resume] EVENT_PAUSE";
constexpr char ON_PAUSE[] = "true 7 [pause_resume]";
constexpr char START_WAITING[] = "true 7 [pause_resume] start waiting";
constexpr char READY[] =
    "true 7 [pause_resume] resume_future status = ready; t_OnResume will be called";
constexpr char RESUMING[] = "true 7 [pause_resume] resuming task";

/// The log lines of pause and resume, as flag, priority and text.
class PauseLogTest : public PauseTest
{
 protected:
    /// The lines so far; with those of the task's thread or of its requesters only, which run side
    /// by side.
    std::vector<std::string> Lines(bool ofTask) const
    {
        std::vector<std::string> lines;
        for (const std::string& line : PauseLines(m_record)) {
            const bool isTasks = line == EVENT || line == ON_PAUSE || line == START_WAITING ||
                                 line == READY || line == RESUMING;
            if (isTasks == ofTask) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    bool ComesBefore(const char* first, const char* second) const
    {
        const std::vector<std::string> lines = PauseLines(m_record);
        const auto at = std::find(lines.begin(), lines.end(), first);
        return at != lines.end() && std::find(at, lines.end(), second) != lines.end() &&
               std::find(lines.begin(), at, second) == at;
    }

    const LogRecord m_record;
};

TEST_F(PauseLogTest, EveryStepOfAPauseIsLogged)
{
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(Eventually([this] { return Lines(true).size() == 3; }));
    EXPECT_THAT(Lines(false), ElementsAre(BEGIN_PAUSE, END));
    EXPECT_THAT(Lines(true), ElementsAre(EVENT, ON_PAUSE, START_WAITING));
    EXPECT_TRUE(ComesBefore(BEGIN_PAUSE, EVENT));
    EXPECT_TRUE(ComesBefore(ON_PAUSE, END));
    ASSERT_TRUE(m_task.ResumeAsync());
}

TEST_F(PauseLogTest, EveryStepOfAResumeIsLogged)
{
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(Eventually([this] { return Lines(true).size() == 3; }));
    const std::size_t before = PauseLines(m_record).size();
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(Lines(false), ElementsAre(BEGIN_PAUSE, END, BEGIN_RESUME, END));
    EXPECT_THAT(Lines(true), ElementsAre(EVENT, ON_PAUSE, START_WAITING, READY, RESUMING));
    const std::vector<std::string> lines = PauseLines(m_record);
    ASSERT_EQ(lines.size(), before + 4);
    EXPECT_EQ(lines[before], BEGIN_RESUME);
    EXPECT_EQ(lines[before + 1], READY); // the end waits for it
}

TEST_F(PauseLogTest, PauseOfAPausedTaskWarnsAndReturnsTrueAtOnce)
{
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(m_task.Pause());
    EXPECT_EQ(m_task.Size(), 0u);
    EXPECT_THAT(Lines(false), ElementsAre(BEGIN_PAUSE, END, BEGIN_PAUSE,
                                          "true 7 [pause_resume] Warning already on pause"));
    EXPECT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), ElementsAre("pause", "resume"));
}

TEST_F(PauseLogTest, ResumeOfARunningTaskWarnsAndReturnsFalse)
{
    EXPECT_FALSE(m_task.ResumeAsync());
    EXPECT_THAT(PauseLines(m_record),
                ElementsAre(BEGIN_RESUME,
                            "true 7 [pause_resume] Resume WARNING Task was not in pause state."));
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_THAT(m_trace.Get(), IsEmpty());
}

TEST_F(PauseLogTest, PauseFailsWhenTheQueueIsFull)
{
    {
        Hold hold(&m_task);
        FillQueue(&m_task);
        EXPECT_FALSE(m_task.Pause());
        EXPECT_FALSE(m_task.IsPaused());
        EXPECT_THAT(PauseLines(m_record),
                    ElementsAre(BEGIN_PAUSE, "true 7 [pause_resume] Sending pause failed."));
    }
    EXPECT_TRUE(Eventually([this] { return m_task.Size() == 0; }));
    EXPECT_TRUE(m_task.Pause());
    EXPECT_TRUE(m_task.ResumeAsync());
}

TEST_F(PauseLogTest, PauseFailsWhenTheLoopHasEnded)
{
    Gate ended;
    m_task.onDestroy = [&] { ended.Pass(); };
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_EXIT));
    EXPECT_TRUE(ended.Wait());
    EXPECT_FALSE(m_task.Pause());
    EXPECT_FALSE(m_task.IsPaused());
    EXPECT_EQ(m_task.Size(), 0u); // the request has been taken back
    EXPECT_THAT(PauseLines(m_record),
                ElementsAre(BEGIN_PAUSE, "true 7 [pause_resume] The task has ended."));
}

TEST_F(PauseLogTest, DestroyOfAPausedTaskSaysSoAndResumes)
{
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(Post(&m_task, TCTask::EVENT_EXIT));
    m_task.Destroy();
    EXPECT_THAT(
        Lines(false),
        ElementsAre(BEGIN_PAUSE, END, "true 7 [pause_resume] Was not resumed before destroying.",
                    BEGIN_RESUME, END));
    EXPECT_THAT(Lines(true), ElementsAre(EVENT, ON_PAUSE, START_WAITING, READY, RESUMING));
}

TEST_F(PauseLogTest, DestroyOfARunningTaskSaysNothing)
{
    ASSERT_TRUE(m_task.Pause());
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_TRUE(Flush(&m_task));
    const std::size_t before = PauseLines(m_record).size();
    m_task.End();
    EXPECT_EQ(PauseLines(m_record).size(), before);
}

} // namespace
