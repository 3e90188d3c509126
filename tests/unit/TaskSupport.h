#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Alarm.h"
#include "LogRecord.h"
#include "Sync.h"
#include "Task.h"
#include "TestThread.h"
#include "Wait.h"
#include "zor/testing/Runtime.h"

/// @file
/// What the tests of tasks share.

namespace zortest {

/// So long that no idle hook runs while a test does.
constexpr unsigned int LONG_WAIT_MSEC = 600 * 1000;

using TaskRuntime = zor::testing::Runtime;

/// Holds the registry's lock for a scope.
class RegistryLock
{
 public:
    RegistryLock() { TCTaskList::m_mutex.Lock(); }
    ~RegistryLock() { TCTaskList::m_mutex.Unlock(); }

    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;
};

/// Whether @p task is in the registry.
bool IsRegistered(const TCTask* task);

/// What happened, in order. Any thread may add.
class Trace
{
 public:
    void Add(const std::string& what);
    std::vector<std::string> Get() const;
    std::size_t Size() const;

    /// Waits until there are at least @p size entries.
    bool WaitFor(std::size_t size) const;

 private:
    mutable std::mutex m_mutex; ///< guards the entries
    std::vector<std::string> m_entries;
};

/// A task whose hooks are functions of the test's; a hook without one is the task's own. Set them
/// before Start(). Its destructor ends it.
class TestTask : public TCTask
{
 public:
    TestTask() = default;
    ~TestTask() override { End(); }

    bool Start(const char* name = "task", unsigned int waitMsec = LONG_WAIT_MSEC,
               unsigned long watchdogTime = 0);

    /// Deletes what is queued for the task's own handler, ends the loop and destroys the task, if
    /// it is created.
    void End();

    bool t_Create() override;
    void t_Idle() override;
    void t_Destroy() override;
    bool t_OnExit(const TSEvent* event) override;
    bool t_OnUser(const TSEvent* event) override;
    bool t_OnClearQueue(const TSEvent* event) override;
    void t_OnPause(const TSEvent* event) override;
    void t_OnResume(const TSEvent* event) override;

    using TCTask::OnClearQueue;
    using TCTask::OnPause;
    using TCTask::OnPing;

    /// The bare names of two bases' flags.
    bool IsQueueCreated() const { return TCQueue::FlagCreate(); }
    bool IsThreadCreated() const { return TCThread::FlagCreate(); }

    std::function<bool()> onCreate;
    std::function<void()> onIdle;
    std::function<void()> onDestroy;
    std::function<bool(const TSEvent*)> onExit;
    std::function<bool(const TSEvent*)> onUser;
    std::function<bool(const TSEvent*)> onClearQueue;
    std::function<void(const TSEvent*)> onPause;
    std::function<void(const TSEvent*)> onResume;
};

/// A handler whose body is a function of the test's. When it is destroyed none of its events may
/// have been taken off the queue without their handling having begun.
class FunctionHandler : public TCHandler
{
 public:
    using Body = std::function<bool(const TSEvent*)>;

    explicit FunctionHandler(Body body, TCTask* task = nullptr);
    ~FunctionHandler() override;

    bool t_OnEvent(const TSEvent* event) override;

    int Handled() const { return m_handled; }

 private:
    const Body m_body;
    std::atomic<int> m_begun{0};
    std::atomic<int> m_handled{0};
};

/// Keeps a task in the handling of an event from its construction to Release().
class Hold
{
 public:
    explicit Hold(TCTask* task);
    ~Hold() { Release(); }

    void Release() { m_release.Pass(); }

 private:
    Gate m_entered;
    Gate m_release;
    FunctionHandler m_handler;
};

/// A thread that makes a call which may block. Its destructor waits for it.
class Caller
{
 public:
    explicit Caller(std::function<void()> call);
    ~Caller() { Join(); }

    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    bool IsDone() const { return m_done; }

    /// Waits until the thread sleeps inside the call.
    /// @return false if the call has returned instead
    bool Blocks() const;

    void Join();

    pthread_t Id() const { return m_id; }
    pid_t KernelId() const { return m_kernelId; }

 private:
    std::atomic<pid_t> m_kernelId{0};
    std::atomic<pthread_t> m_id{0};
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

/// Waits until thread @p kernelId of this process sleeps and goes on sleeping.
/// @return false if it does not within DEADLINE
bool FallsAsleep(pid_t kernelId);

TSEvent EventTo(TCHandler* receiver, unsigned long type = TCTask::EVENT_USER,
                std::uint32_t param1 = 0);

/// Sends an asynchronous ordinary event.
bool Post(TCHandler* receiver, unsigned long type = TCTask::EVENT_USER, std::uint32_t param1 = 0);

/// Sends an ordinary event, waiting a full queue out, and waits until it has been handled and with
/// it all that was queued before.
bool Flush(TCTask* task);

/// Runs @p body on @p task's thread, before what is queued, and waits until it is done.
bool RunOn(TCTask* task, const std::function<void()>& body);

/// Destroys @p alarm, if it is created, on its task's thread: between two events none of the
/// alarm's is in hand, so that the object may be freed as soon as this has returned.
void EndAlarm(TCAlarm* alarm);

/// Fills @p task's queue with user events until even a priority event is refused.
void FillQueue(TCTask* task);

/// The entries of @p record that contain "[pause_resume]", as "flag priority text".
std::vector<std::string> PauseLines(const LogRecord& record);

/// An attachment that tells when and where it is released.
class ReleaseProbe
{
 public:
    /// @param releasedOn  where to store the id of the releasing thread
    explicit ReleaseProbe(std::atomic<pthread_t>* releasedOn) : m_releasedOn(releasedOn) {}
    ReleaseProbe(ReleaseProbe&& other) noexcept : m_releasedOn(other.m_releasedOn)
    {
        other.m_releasedOn = nullptr;
    }
    ~ReleaseProbe()
    {
        if (m_releasedOn != nullptr) {
            *m_releasedOn = pthread_self();
        }
    }

    ReleaseProbe(const ReleaseProbe&) = delete;
    ReleaseProbe& operator=(const ReleaseProbe&) = delete;
    ReleaseProbe& operator=(ReleaseProbe&&) = delete;

 private:
    std::atomic<pthread_t>* m_releasedOn;
};

} // namespace zortest
