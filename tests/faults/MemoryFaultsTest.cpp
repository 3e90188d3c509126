#include <unistd.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "AllocationFault.h"
#include "DeprecatedPing.h"
#include "Queue.h"
#include "RWLock.h"
#include "Sync.h"
#include "TCDebugPrint.h"
#include "TaskSupport.h"
#include "WatchdogNotifier.h"
#include "ZorServiceDebug.h"
#include "ZorServiceDebugOverlay.h"

namespace {

using namespace zortest;

// What tasks are made of.

TEST(MemoryFaultsTest, SemaphoreMutexQueueAndThreadAreNotCreated)
{
    const FaultCase fault("operator new",
                          "TCSemaphore::Create, TCMutex::Create, TCQueue::Create, TCThread::Create "
                          "(each allocation)",
                          "`Create()` is false and the object is not created; it works the next "
                          "time");
    TCSemaphore semaphore;
    EXPECT_EQ(FailEachAllocation([&] { return semaphore.Create(0); },
                                 [&] { EXPECT_FALSE(semaphore.FlagCreate()); }),
              1);
    semaphore.Destroy();

    TCMutex mutex;
    FailEachAllocation([&] { return mutex.Create(); }, [&] { EXPECT_FALSE(mutex.FlagCreate()); });
    mutex.Destroy();

    TCQueue queue;
    FailEachAllocation([&] { return queue.Create(); }, [&] { EXPECT_FALSE(queue.FlagCreate()); });
    queue.Destroy();

    TestThread thread;
    FailEachAllocation([&] { return thread.Create("worker", TEST_STACK_SIZE); },
                       [&] { EXPECT_FALSE(thread.FlagCreate()); });
    thread.Destroy();
}

TEST(MemoryFaultsTest, FirstReadLockOfAThreadThrowsAndLocksNothing)
{
    const FaultCase fault("operator new", "TCRWLock::RLock",
                          "std::bad_alloc; nothing is locked, and it works the next time");
    TCRWLock lock;
    FailEachAllocation([&] { return lock.RLock(); },
                       [&] {
                           OnAnotherThread([&] {
                               EXPECT_TRUE(lock.WLock());
                               EXPECT_TRUE(lock.WUnlock());
                           });
                       });
    EXPECT_TRUE(lock.RUnlock());
}

TEST(MemoryFaultsTest, SyncTableWithoutItsMemoryIsNotThere)
{
    const FaultCase fault("operator new[]", "TCSyncDet::Create",
                          "std::bad_alloc or false; there is no table, and `Destroy()` frees what "
                          "stays of the lock");
    // What stays is freed by asserting that there is a table, which is not of interest here.
    test::TSCustomAssert::callback = [](const char*, unsigned long) {};
    FailEachAllocation([] { return TCSyncDet::Create(); },
                       [] {
                           EXPECT_FALSE(TCSyncDet::FlagCreate());
                           TCSyncDet::Destroy();
                       });
    test::TSCustomAssert::callback = nullptr;
    EXPECT_TRUE(TCSyncDet::Destroy());
}

// Tasks.

class TaskMemoryFaultsTest : public ::testing::Test
{
 protected:
    ~TaskMemoryFaultsTest() override { TCDebugPrintZOR::GetInstance()->SetAppData("", 0); }

    /// The registry's lock, the task's queue and its thread are free, and no call is listed.
    void ExpectFree()
    {
        OnAnotherThread([this] {
            EXPECT_TRUE(TCTask::Ping(&m_task, LONG_WAIT_MSEC));
            EXPECT_TRUE(Flush(&m_task));
            EXPECT_FALSE(m_task.IsPaused());
        });
        EXPECT_EQ(m_task.Size(), 0u);
        for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
            EXPECT_FALSE(TCSyncDet::m_arrPCSyncDet[i].bValid) << i;
        }
    }

    const TaskRuntime m_runtime;
    TestTask m_task;
};

TEST_F(TaskMemoryFaultsTest, TaskIsNotCreatedAndNothingStays)
{
    const FaultCase fault("operator new", "TCTask::Create (each allocation)",
                          "std::bad_alloc or false; nothing stays, the task is not registered and "
                          "has no thread; it works the next time");
    FailEachAllocation([this] { return m_task.Start(); },
                       [this] {
                           EXPECT_FALSE(m_task.FlagCreate());
                           EXPECT_FALSE(m_task.IsQueueCreated());
                           EXPECT_FALSE(m_task.IsThreadCreated());
                           EXPECT_FALSE(IsRegistered(&m_task));
                       });
    EXPECT_TRUE(IsRegistered(&m_task));
    ExpectFree();
}

TEST_F(TaskMemoryFaultsTest, SendsThrowAndQueueNothing)
{
    const FaultCase fault("operator new", "TCTask::Send (every kind, each allocation)",
                          "std::bad_alloc or false; nothing is queued or handled, the call is not "
                          "listed any more");
    ASSERT_TRUE(m_task.Start());
    // So long a name that each event has to allocate it.
    TCDebugPrintZOR::GetInstance()->SetAppData("an application with a long name", 7);
    std::atomic<int> handled{0};
    m_task.onUser = [&handled](const TSEvent*) { return ++handled > 0; };
    for (const bool sync : {false, true}) {
        for (const bool priority : {false, true}) {
            const int before = handled;
            TSEvent event = EventTo(&m_task);
            FailEachAllocation([&] { return TCTask::Send(&event, sync, priority); },
                               [&] {
                                   ExpectFree();
                                   EXPECT_EQ(handled, before);
                               });
            EXPECT_TRUE(Eventually([&] { return handled == before + 1; }));
        }
    }
}

TEST_F(TaskMemoryFaultsTest, PauseThrowsAndTheTaskRunsOn)
{
    const FaultCase fault("operator new", "TCTask::Pause (each allocation)",
                          "std::bad_alloc; the task is not paused, no request stays, and the next "
                          "pause works");
    ASSERT_TRUE(m_task.Start());
    FailEachAllocation([this] { return m_task.Pause(); }, [this] { ExpectFree(); });
    EXPECT_TRUE(m_task.IsPaused());
    {
        const AllocationFault noMemory(0); // and none is needed
        EXPECT_TRUE(m_task.ResumeAsync());
        EXPECT_FALSE(noMemory.HasHappened());
    }
    ExpectFree();
}

TEST_F(TaskMemoryFaultsTest, PingsThrowAndLockNothing)
{
    const FaultCase fault("operator new", "TCTask::Ping (both forms, each allocation)",
                          "std::bad_alloc; the registry is not locked and no request stays");
    ASSERT_TRUE(m_task.Start());
    FailEachAllocation([this] { return TCTask::Ping(&m_task, LONG_WAIT_MSEC); },
                       [this] { ExpectFree(); });
    FailEachAllocation([this] { return DeprecatedPing(&m_task, LONG_WAIT_MSEC); },
                       [this] { ExpectFree(); });
}

TEST_F(TaskMemoryFaultsTest, ClearQueueThrowsAndLocksNothing)
{
    const FaultCase fault("operator new", "TCTask::ClearQueue (each allocation)",
                          "std::bad_alloc; the registry is not locked and no request stays");
    ASSERT_TRUE(m_task.Start());
    FailEachAllocation([this] { return TCTask::ClearQueue(&m_task, LONG_WAIT_MSEC); },
                       [this] { ExpectFree(); });
}

TEST_F(TaskMemoryFaultsTest, ConstructionAndDestroyNeedNoMemory)
{
    const FaultCase fault("operator new", "TCTask::TCTask, TCTask::Destroy",
                          "not called: a task can be constructed, ended and destroyed without "
                          "memory");
    {
        const AllocationFault noMemory(0);
        const TestTask task;
        EXPECT_FALSE(noMemory.HasHappened());
    }
    ASSERT_TRUE(m_task.Start());
    TSEvent exit = EventTo(&m_task, TCTask::EVENT_EXIT);
    {
        const AllocationFault noMemory(0);
        EXPECT_TRUE(TCTask::Send(&exit, false, false));
        m_task.Destroy();
        EXPECT_FALSE(noMemory.HasHappened());
        EXPECT_THROW(::operator delete(::operator new(1)), std::bad_alloc); // it was there
    }
    EXPECT_FALSE(m_task.FlagCreate());
}

using TaskMemoryFaultsDeathTest = TaskMemoryFaultsTest;

TEST_F(TaskMemoryFaultsDeathTest, PauseWithoutMemoryOnTheTasksThreadEndsTheProcess)
{
    const FaultCase fault("operator new", "TCTask::OnPause",
                          "std::bad_alloc leaves the task's thread: std::terminate");
    EXPECT_FAULT_EXIT(
        {
            std::unique_ptr<AllocationFault> noMemory;
            FunctionHandler arm([&](const TSEvent*) {
                noMemory = std::make_unique<AllocationFault>(0);
                return true;
            });
            EXPECT_TRUE(m_task.Start());
            EXPECT_TRUE(arm.Create(&m_task));
            TSEvent event = EventTo(&arm); // handled before the pause can overtake it
            EXPECT_TRUE(TCTask::Send(&event, true, false));
            m_task.Pause();
        },
        ::testing::KilledBySignal(SIGABRT), ::testing::HasSubstr("std::bad_alloc"));
}

// Services.

TEST(NotifierMemoryFaultsTest, WithoutMemoryForTheInstanceThereIsNone)
{
    const FaultCase fault("operator new", "TCWatchdogNotifier::Init",
                          "std::bad_alloc for the instance itself, and there is none; without the "
                          "memory for its semaphores it has no thread");
    {
        const AllocationFault noMemory(0);
        EXPECT_THROW(TCWatchdogNotifier::Init(), std::bad_alloc);
    }
    for (int number = 1; number <= 3; ++number) {
        {
            const AllocationFault noMemory(number);
            TCWatchdogNotifier::Init();
            EXPECT_TRUE(noMemory.HasHappened());
        }
        EXPECT_FALSE(TCWatchdogNotifier::Instance()->FlagCreate());
        TCWatchdogNotifier::Exit();
    }
}

// Texts.

TEST(TextMemoryFaultsTest, TextsThrow)
{
    const FaultCase fault("operator new", "TCZorServiceDebug::ToString (every form)",
                          "std::bad_alloc, and the same text the next time");
    const auto fails = [](const auto& value, const std::string& text) {
        std::string got;
        FailEachAllocation([&] { return !(got = TCZorServiceDebug::ToString(value)).empty(); },
                           [&] { EXPECT_EQ(got, ""); });
        EXPECT_EQ(got, text);
    };
    fails(0xFFFFFFFFFFFFFFFFULL, "INVALID_SERVICE_ID");
    fails(0xFA000000000B0005ULL, "0xFA000000000B0005 (dirTune)(cT:hotel-ext,cN:5)");
    fails(0x1000000000000001ULL, "0x1000000000000001 (cT:atv,sP:atsc,cN:0,mj:0,mn:1,pN:0)");
    fails(0x200001ULL, "0x200001 (defSrv)(cT:atv,sP:isdb,cN:0)");
    fails(ZORHandle{-1234567890, 1234567890}, "-1234567890-1234567");
    TSTvMode mode{};
    mode.broadcastType = -2;
    mode.serviceMode = static_cast<EServiceMode>(52);
    fails(mode, "auto-Osterreichliste");
}

TEST(TextMemoryFaultsTest, LongCallbackNameThrows)
{
    const FaultCase fault("operator new", "TCCallbackNameSetter::TCCallbackNameSetter",
                          "std::bad_alloc of the platform's; the name is not set");
    const std::string name(100, 'x');
    FailEachAllocation(
        [&] {
            const TCCallbackNameSetter setter(name);
            return TCDebugPrintZOR::GetInstance()->GetCallbackName() == name;
        },
        [&] { EXPECT_EQ(TCDebugPrintZOR::GetInstance()->GetCallbackName(), ""); });
}

// Logging.

/// A plug-in with a name that has to be allocated.
class NamedLogger : public IZORLogger
{
 public:
    void ZORLog(bool, log_priority, const char*, const char*, const char*, const char*, int, int,
                int, int, int, int, const char*, va_list*) override
    {
        ++entries;
    }

    const std::string& GetLoggerId() const override
    {
        static const std::string id = "a logger with a long name";
        return id;
    }

    static inline int entries = 0;
};

TEST(LoggingMemoryFaultsTest, PluginIsNotAddedAndNothingStaysLocked)
{
    const FaultCase fault("operator new", "ZORLogs::AddPlugin (each allocation)",
                          "std::bad_alloc; the plug-in is destroyed and nothing is locked");
    ZORLogs* const front = ZORLogs::getInstance();
    const std::string id = NamedLogger().GetLoggerId();
    std::unique_ptr<IZORLogger> plugin = std::make_unique<NamedLogger>();
    const auto log = [] { ZOR_LOG(false, DLOG_INFO, "an entry"); };
    FailEachAllocation(
        [&] {
            front->AddPlugin(std::move(plugin));
            return true;
        },
        [&] {
            plugin = std::make_unique<NamedLogger>();
            OnAnotherThread(log);
            EXPECT_EQ(NamedLogger::entries, 0);
        });
    log();
    EXPECT_EQ(NamedLogger::entries, 1);
    {
        const AllocationFault noMemory(0); // and none is needed
        log();
        front->RemovePlugin(id);
        EXPECT_FALSE(noMemory.HasHappened());
    }
    log();
    EXPECT_EQ(NamedLogger::entries, 2);
}

TEST(LoggingMemoryFaultsTest, EntryUnderANewTagThrowsAndIsLoggedTheNextTime)
{
    const FaultCase fault("operator new", "ZORLoggerLegacy::ZORLog (new tag)",
                          "std::bad_alloc; nothing is locked, and the entry is logged the next "
                          "time");
    ZORLogs* const front = ZORLogs::getInstance();
    front->SetLoggingSystem(ZORLoggerLegacy::Instance());
    const auto log = [] {
        ZOR_LOG_TAGGED("A_TAG_THAT_NOBODY_HAS_LOGGED_UNDER", false, DLOG_INFO, "an entry");
        return true;
    };
    FailEachAllocation(log, [&] {
        OnAnotherThread([] { ZOR_LOG_TAGGED("ZOR_CORE", false, DLOG_INFO, "an entry"); });
    });
    front->SetLoggingSystem(ZORLoggerDLOG::Instance());
}

using LoggingMemoryFaultsDeathTest = ::testing::Test;

TEST_F(LoggingMemoryFaultsDeathTest, FrontAndLegacyLoggerAreMadeTheNextTime)
{
    const FaultCase fault("operator new", "ZORLogs::getInstance, ZORLoggerLegacy::Instance (first)",
                          "std::bad_alloc; nothing is locked, and the next call makes it");
    // In a process of its own: each is made once.
    EXPECT_FAULT_EXIT(
        {
            FailEachAllocation([] { return ZORLogs::getInstance() != nullptr; },
                               [] { EXPECT_TRUE(true); });
            FailEachAllocation([] { return ZORLoggerLegacy::Instance() != nullptr; },
                               [] { EXPECT_TRUE(true); });
            EXPECT_EQ(ZORLoggerLegacy::m_levelMapping.size(), 10u);
            EXPECT_EQ(ZORLoggerLegacy::m_moduleMapping.size(), 43u);
            OnAnotherThread([] { ZOR_LOG(false, DLOG_INFO, "an entry"); });
            _exit(HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), ::testing::_);
}

} // namespace
