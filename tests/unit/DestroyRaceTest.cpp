#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "TaskSupport.h"
#include "ZorServiceDebugOverlay.h"

namespace {

using namespace zortest;

/// Keeps every thread that logs a certain text where it does so, from its construction to
/// Release().
class LogStop
{
 public:
    explicit LogStop(std::string text) : m_state(std::make_shared<State>())
    {
        m_state->text = std::move(text);
        ZORLogs::getInstance()->AddPlugin(std::make_unique<Plugin>(m_state));
    }

    ~LogStop()
    {
        Release();
        ZORLogs::getInstance()->RemovePlugin(Plugin::Id());
    }

    LogStop(const LogStop&) = delete;
    LogStop& operator=(const LogStop&) = delete;

    /// Waits until a thread has been stopped.
    bool HasStopped() const { return m_state->stopped.Wait(); }

    void Release() { m_state->release.Pass(); }

 private:
    struct State
    {
        std::string text;
        Gate stopped;
        Gate release;
    };

    class Plugin : public IZORLogger
    {
     public:
        explicit Plugin(std::shared_ptr<State> state) : m_state(std::move(state)) {}

        static const std::string& Id()
        {
            static const std::string id = "stop of a test";
            return id;
        }

        void ZORLog(bool /*flag*/, log_priority /*priority*/, const char* /*tag*/,
                    const char* /*file*/, const char* /*prettyFunction*/, const char* /*function*/,
                    int /*scope*/, int /*classBegin*/, int /*classEnd*/, int /*functionBegin*/,
                    int /*functionEnd*/, int /*line*/, const char* fmt, va_list* /*args*/) override
        {
            if (m_state->text == fmt) {
                m_state->stopped.Pass();
                EXPECT_TRUE(m_state->release.Wait());
            }
        }

        const std::string& GetLoggerId() const override { return Id(); }

     private:
        const std::shared_ptr<State> m_state;
    };

    const std::shared_ptr<State> m_state;
};

constexpr char RESUMED[] = "[pause_resume] END";
constexpr char NOT_PAUSED[] = "[pause_resume] Resume WARNING Task was not in pause state.";
constexpr char ENDED[] = "[pause_resume] The task has ended.";

/// A task of either kind, whose exit hook can be kept waiting.
template <typename Base>
class Exiting : public Base
{
 public:
    bool Start()
    {
        if constexpr (std::is_same_v<Base, TCMultiQTask>) {
            return this->Create("exiting", LONG_WAIT_MSEC, TEST_STACK_SIZE, 2, 0);
        } else {
            return this->Create("exiting", LONG_WAIT_MSEC, TEST_STACK_SIZE, 0);
        }
    }

    bool t_OnExit(const TSEvent* /*event*/) override
    {
        exiting.Pass();
        return leave.Wait();
    }

    bool t_OnUser(const TSEvent* /*event*/) override
    {
        onUser();
        return true;
    }

    using TCTask::HasEnded;

    Gate exiting;
    Gate leave;
    std::function<void()> onUser;
};

/// A task of either kind that is being destroyed while others pause and resume it.
template <typename Base>
class DestroyRaceTest : public ::testing::Test
{
 protected:
    DestroyRaceTest() { EXPECT_TRUE(m_task->Start()); }

    /// Destroys and deletes the task on a thread of its own, which now waits for the task's.
    void BeginDestruction()
    {
        m_destroyer.emplace([this] {
            m_task->Destroy();
            m_task.reset();
        });
        EXPECT_TRUE(Eventually([this] { return !IsRegistered(m_watched); }));
        EXPECT_TRUE(m_destroyer->Blocks());
    }

    /// The destroyer waits although the task's thread has ended.
    void ExpectDestructionWaits()
    {
        EXPECT_TRUE(Eventually([this] { return m_watched->HasEnded(); }));
        EXPECT_TRUE(m_destroyer->Blocks());
    }

    void ExpectDestructionEnds()
    {
        m_destroyer->Join();
        EXPECT_EQ(m_task, nullptr);
    }

    const TaskRuntime m_runtime;
    std::unique_ptr<Exiting<Base>> m_task = std::make_unique<Exiting<Base>>();
    Exiting<Base>* const m_watched = m_task.get();
    std::optional<Caller> m_destroyer;
};

using BothKinds = ::testing::Types<TCTask, TCMultiQTask>;

/// The kinds by their names.
struct KindNames
{
    template <typename Kind>
    static std::string GetName(int /*index*/)
    {
        return std::is_same_v<Kind, TCTask> ? "Task" : "MultiQTask";
    }
};

TYPED_TEST_SUITE(DestroyRaceTest, BothKinds, KindNames);

TYPED_TEST(DestroyRaceTest, DestroyWaitsForAResumeThatLetTheTaskEnd)
{
    this->m_watched->leave.Pass();
    this->BeginDestruction(); // has seen that the task is not paused
    EXPECT_TRUE(this->m_watched->Pause());
    EXPECT_TRUE(Post(this->m_watched, TCTask::EVENT_EXIT));
    std::optional<LogStop> stop(RESUMED);
    Caller resumer([this] { EXPECT_TRUE(this->m_watched->ResumeAsync()); });
    EXPECT_TRUE(stop->HasStopped());
    this->ExpectDestructionWaits();
    stop->Release();
    resumer.Join();
    this->ExpectDestructionEnds();
}

TYPED_TEST(DestroyRaceTest, DestroyWaitsForAPauseThatFindsTheTaskEnded)
{
    this->BeginDestruction();
    EXPECT_TRUE(Post(this->m_watched, TCTask::EVENT_EXIT));
    EXPECT_TRUE(this->m_watched->exiting.Wait());
    std::optional<LogStop> stop(ENDED);
    Caller pauser([this] { EXPECT_FALSE(this->m_watched->Pause()); });
    EXPECT_TRUE(pauser.Blocks());
    this->m_watched->leave.Pass();
    EXPECT_TRUE(stop->HasStopped());
    this->ExpectDestructionWaits();
    stop->Release();
    pauser.Join();
    this->ExpectDestructionEnds();
}

TYPED_TEST(DestroyRaceTest, DestroyWaitsForThoseWhoWaitForAnothersPause)
{
    this->BeginDestruction();
    EXPECT_TRUE(Post(this->m_watched, TCTask::EVENT_EXIT));
    EXPECT_TRUE(this->m_watched->exiting.Wait());
    std::optional<LogStop> stop(NOT_PAUSED);
    Caller pauser([this] { EXPECT_FALSE(this->m_watched->Pause()); });
    EXPECT_TRUE(pauser.Blocks());
    Caller asker([this] { EXPECT_FALSE(this->m_watched->IsPaused()); });
    EXPECT_TRUE(asker.Blocks()); // at the pause-request mutex
    Caller resumer([this] { EXPECT_FALSE(this->m_watched->ResumeAsync()); });
    EXPECT_TRUE(resumer.Blocks());
    this->m_watched->leave.Pass();
    EXPECT_TRUE(stop->HasStopped());
    this->ExpectDestructionWaits();
    stop->Release();
    pauser.Join();
    asker.Join();
    resumer.Join();
    this->ExpectDestructionEnds();
}

/// Asks and resumes on the task's own thread.
template <typename Base>
using OwnThreadTest = DestroyRaceTest<Base>;
TYPED_TEST_SUITE(OwnThreadTest, BothKinds, KindNames);

TYPED_TEST(OwnThreadTest, AskingAndResumingDoNotWaitForAPauseThatWaitsForTheTask)
{
    Exiting<TypeParam>& task = *this->m_task;
    Gate entered;
    Gate asked;
    bool paused = true;
    bool resumed = true;
    task.onUser = [&] {
        entered.Pass();
        EXPECT_TRUE(asked.Wait());
        paused = task.IsPaused();
        resumed = task.ResumeAsync();
    };
    EXPECT_TRUE(Post(&task));
    EXPECT_TRUE(entered.Wait());
    Caller pauser([&] { EXPECT_TRUE(task.Pause()); });
    EXPECT_TRUE(pauser.Blocks());
    asked.Pass();
    pauser.Join(); // the handler has returned, and the task is paused
    EXPECT_FALSE(paused);
    EXPECT_FALSE(resumed);
    EXPECT_TRUE(task.IsPaused());
    EXPECT_TRUE(task.ResumeAsync());
    EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    task.leave.Pass();
    task.Destroy();
}

} // namespace
