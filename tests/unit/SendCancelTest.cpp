#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "../../src/MutexLock.h"
#include "CancelledThread.h"
#include "ConditionSeams.h"
#include "Sync.h"
#include "TCDebugPrint.h"
#include "TaskSupport.h"

/// @file
/// Threads that are cancelled in a send. Scope traces of the debug-print library are taken over, as
/// places where a thread may be cancelled: the library writes there.

namespace {

using namespace zortest;

Seam<int(int, int*)> setCancelStateSeam("pthread_setcancelstate");

/// In which of its trace's two calls the calling thread is cancelled: from 1, 0 for none.
thread_local int tCancelledInTrace = 0;
thread_local bool tIsSender = false;

void PassTrace()
{
    if (tCancelledInTrace > 0 && --tCancelledInTrace == 0) {
        pthread_cancel(pthread_self());
    }
    pthread_testcancel();
}

} // namespace

TCScopeTrace::TCScopeTrace(const char* /*fmt*/, ...) : m_text{}, m_startNsec(0)
{
    PassTrace();
}

TCScopeTrace::~TCScopeTrace()
{
    static_cast<void>(m_text); // the library's own functions are not here to use them
    static_cast<void>(m_startNsec);
    PassTrace();
}

extern "C" int pthread_setcancelstate(int state, int* before)
{
    return setCancelStateSeam(state, before);
}

namespace {

class QueuesTask : public TCMultiQTask
{
 public:
    static constexpr unsigned int QUEUE = 1;

    QueuesTask() { EXPECT_TRUE(Create("queues", 50, TEST_STACK_SIZE, QUEUE + 1, 0)); }
    ~QueuesTask() override
    {
        EXPECT_TRUE(Post(this, EVENT_EXIT));
        Destroy();
    }

    bool t_OnUser(const TSEvent* event) override { return onUser(event); }

    std::function<bool(const TSEvent*)> onUser;
};

/// The lock of the table of synchronous calls, which is private: an explicit instantiation may name
/// it.
TCMutex** TableLock();

template <TCMutex** LOCK>
struct TableLockNamed
{
    friend TCMutex** TableLock() { return LOCK; }
};

template struct TableLockNamed<&TCSyncDet::m_pLock>;

/// A thread that holds the lock of the table while this lives.
class TableHolder
{
 public:
    TableHolder()
        : m_thread([this] {
              const zor::MutexLock lock(*TableLock());
              m_held.Pass();
              m_release.Wait();
          })
    {
        EXPECT_TRUE(m_held.Wait());
    }

    ~TableHolder()
    {
        m_release.Pass();
        m_thread.join();
    }

 private:
    Gate m_held;
    Gate m_release;
    std::thread m_thread;
};

/// One thread that sends to a task and is cancelled meanwhile.
class SendCancelTest : public ::testing::Test
{
 protected:
    SendCancelTest()
        : m_wait(condWaitSeam, [this](pthread_cond_t* condition, pthread_mutex_t* mutex) {
              if (tIsSender) {
                  m_waitingFor = condition;
              }
              return condWaitSeam.Real(condition, mutex);
          })
    {
        const auto handle = [this](const TSEvent*) {
            if (m_whileHandled) {
                m_whileHandled();
            }
            return ++m_handled > 0;
        };
        m_task.onUser = handle;
        m_queues.onUser = handle;
        EXPECT_TRUE(m_task.Start());
    }

    ~SendCancelTest() override { m_task.End(); } // before what its hook uses goes

    /// Starts the thread that sends.
    ///
    /// @param cancelledInTrace  which of the trace's calls cancels it, from 1; 0 if none
    void StartSender(bool toQueues, bool sync, int cancelledInTrace = 0)
    {
        m_body = [this, toQueues, sync, cancelledInTrace] {
            tIsSender = true;
            tCancelledInTrace = cancelledInTrace;
            TSEvent event = EventTo(toQueues ? static_cast<TCTask*>(&m_queues) : &m_task);
            EXPECT_TRUE(toQueues ? TCMultiQTask::Send(&event, sync, false, QueuesTask::QUEUE)
                                 : TCTask::Send(&event, sync, false));
            m_returned = true;
        };
        m_sender.emplace(&m_body);
    }

    /// How many events are queued.
    std::size_t Queued() { return m_task.Size() + m_queues.Size(QueuesTask::QUEUE); }

    /// The sender has been cancelled, but not before its send had returned and the event had been
    /// handled; nothing is left of the send.
    void ExpectCancelledBehindTheSend()
    {
        EXPECT_TRUE(m_sender->Join());
        EXPECT_TRUE(m_returned);
        EXPECT_TRUE(Eventually([this] { return m_handled == 1; }));
        EXPECT_EQ(Queued(), 0u);
        for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
            EXPECT_FALSE(TCSyncDet::m_arrPCSyncDet[i].bValid) << i;
        }
    }

    const TaskRuntime m_runtime;
    std::atomic<pthread_cond_t*> m_waitingFor{nullptr}; ///< by the sender, at last
    std::atomic<bool> m_returned{false};
    std::atomic<int> m_handled{0};
    std::function<void()> m_whileHandled;
    std::function<void()> m_body;
    std::optional<CancelledThread> m_sender;
    TestTask m_task;
    QueuesTask m_queues;

 private:
    Takeover<int(pthread_cond_t*, pthread_mutex_t*)> m_wait;
};

TEST_F(SendCancelTest, CallIsEnteredIntoTheTableAndMade)
{
    {
        const TableHolder holder;
        StartSender(false, true);
        ASSERT_TRUE(Eventually([this] { return m_waitingFor != nullptr; }));
        m_sender->Cancel();
    }
    ExpectCancelledBehindTheSend();
}

TEST_F(SendCancelTest, CallIsTakenOutOfTheTable)
{
    std::unique_ptr<TableHolder> holder;
    std::atomic<pthread_cond_t*> reply{nullptr};
    m_whileHandled = [&] {
        EXPECT_TRUE(Eventually([this] { return m_waitingFor != nullptr; }));
        holder = std::make_unique<TableHolder>();
        reply = m_waitingFor.load();
    };
    StartSender(false, true);
    ASSERT_TRUE(Eventually([&] { return reply != nullptr && m_waitingFor != reply; }));
    m_sender->Cancel();
    holder.reset();
    ExpectCancelledBehindTheSend();
}

TEST_F(SendCancelTest, DirectCallRunsItsHandlerToTheEnd)
{
    int stateInHandler = -1;
    int stateBehind = -1;
    FunctionHandler handler(
        [&](const TSEvent*) {
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &stateInHandler);
            return true;
        },
        &m_task);
    EXPECT_TRUE(RunOn(&m_task, [&] {
        TSEvent event = EventTo(&handler);
        EXPECT_TRUE(TCTask::Send(&event, true, true));
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &stateBehind);
    }));
    EXPECT_EQ(stateInHandler, PTHREAD_CANCEL_DISABLE);
    EXPECT_EQ(stateBehind, PTHREAD_CANCEL_ENABLE);
}

/// The same to a task of one queue and to one of several.
class SendsCancelTest : public SendCancelTest, public ::testing::WithParamInterface<bool>
{
 protected:
    TCTask* Task() { return GetParam() ? static_cast<TCTask*>(&m_queues) : &m_task; }
};

TEST_P(SendsCancelTest, SynchronousCallHasItsReply)
{
    Gate cancelled;
    m_whileHandled = [&cancelled] { EXPECT_TRUE(cancelled.Wait()); };
    StartSender(GetParam(), true);
    EXPECT_TRUE(Eventually([this] { return m_waitingFor != nullptr; }));
    m_sender->Cancel();
    cancelled.Pass();
    ExpectCancelledBehindTheSend();
}

TEST_P(SendsCancelTest, SendToAPausedTaskIsMadeAndTraced)
{
    for (const bool sync : {false, true}) {
        for (const int cancelledInTrace : {1, 2}) {
            m_handled = 0;
            m_returned = false;
            ASSERT_TRUE(Task()->Pause());
            StartSender(GetParam(), sync, cancelledInTrace);
            EXPECT_TRUE(Eventually([this] { return Queued() == 1; }));
            ASSERT_TRUE(Task()->ResumeAsync());
            ExpectCancelledBehindTheSend();
        }
    }
}

TEST_P(SendsCancelTest, OnlySynchronousSendsLookAtTheCancelState)
{
    for (const bool sync : {false, true}) {
        for (const int before : {PTHREAD_CANCEL_DISABLE, PTHREAD_CANCEL_ENABLE}) {
            std::thread([&] {
                pthread_setcancelstate(before, nullptr);
                std::atomic<int> calls{0};
                {
                    const Takeover count(setCancelStateSeam, [&](int state, int* old) {
                        ++calls;
                        return setCancelStateSeam.Real(state, old);
                    });
                    TSEvent event = EventTo(Task());
                    EXPECT_TRUE(GetParam()
                                    ? TCMultiQTask::Send(&event, sync, false, QueuesTask::QUEUE)
                                    : TCTask::Send(&event, sync, false));
                }
                EXPECT_EQ(calls > 0, sync);
                int behind = -1;
                pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &behind);
                EXPECT_EQ(behind, before);
            }).join();
        }
    }
    EXPECT_TRUE(Eventually([this] { return m_handled == 4; }));
}

INSTANTIATE_TEST_SUITE_P(ToOneQueueOrSeveral, SendsCancelTest, ::testing::Bool());

} // namespace
