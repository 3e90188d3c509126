#include <pthread.h>
#include <sys/prctl.h>

#include <cerrno>
#include <string>
#include <vector>

#include "AllocationSeam.h"
#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "DiagnosticSeams.h"
#include "FaultCase.h"
#include "LogRecord.h"
#include "LogSeam.h"
#include "TestThread.h"
#include "ThreadSeams.h"
#include "ThreadUtil.h"
#include "TimesSeams.h"
#include "Wait.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

std::string OwnName()
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

class ThreadFaultsTest : public ::testing::Test
{
 protected:
    ThreadFaultsTest() { ClearLog(); }

    void ExpectCreateFails()
    {
        EXPECT_FALSE(m_thread.Create("worker", TEST_STACK_SIZE));
        EXPECT_FALSE(m_thread.FlagCreate());
    }

    void ExpectCreateWorks()
    {
        EXPECT_TRUE(m_thread.Create("worker", TEST_STACK_SIZE));
        m_thread.Destroy();
        EXPECT_THAT(m_ran, ElementsAre("worker"));
    }

    std::vector<std::string> m_ran; ///< the names of the threads whose body ran
    TestThread m_thread{[this] { m_ran.push_back(OwnName()); }};
};

TEST_F(ThreadFaultsTest, WithoutTheStartGateCreateFails)
{
    const FaultCase fault("pthread_cond_init", "TCThread::Create (call 1, start gate)",
                          "`Create()` is false, nothing is logged, and it works the next time");
    {
        const FailingCall refused(condInitSeam, EAGAIN, 0);
        ExpectCreateFails();
    }
    EXPECT_THAT(LogLines(), IsEmpty());
    ExpectCreateWorks();
}

TEST_F(ThreadFaultsTest, WithoutTheExitGateCreateFails)
{
    const FaultCase fault("pthread_cond_init", "TCThread::Create (call 2, exit gate)",
                          "`Create()` is false, nothing is logged, and it works the next time");
    {
        const FailingCall refused(condInitSeam, EAGAIN, 1);
        ExpectCreateFails();
    }
    EXPECT_THAT(LogLines(), IsEmpty());
    ExpectCreateWorks();
}

TEST_F(ThreadFaultsTest, WithoutPidSyncCreateFailsAndLogsIt)
{
    const FaultCase fault("pthread_cond_init", "TCThread::Create (call 3, m_pidSync)",
                          "`Create()` is false, promoted FATAL entry \"[QLN]: ERROR: "
                          "TCThread::Create() : m_pidSync Create Error\"");
    {
        const FailingCall refused(condInitSeam, EAGAIN, 2);
        ExpectCreateFails();
    }
    const std::vector<LogLine> lines = LogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, 7);
    EXPECT_THAT(lines[0].text, EndsWith(">> [QLN]: ERROR: TCThread::Create() : m_pidSync Create "
                                        "Error"));
    ExpectCreateWorks();
}

TEST_F(ThreadFaultsTest, WithoutMemoryForAnySemaphoreCreateFails)
{
    const FaultCase fault("operator new (nothrow)", "TCThread::Create (calls 1 to 3)",
                          "`Create()` is false, and it works the next time");
    for (const int number : {0, 1, 2}) {
        const FailingCall noMemory(nothrowNewSeam, nullptr, number);
        ExpectCreateFails();
        EXPECT_EQ(noMemory.Failed(), 1);
    }
    ExpectCreateWorks();
}

TEST_F(ThreadFaultsTest, RefusedThreadIsAsserted)
{
    const FaultCase fault("pthread_create", "TCThread::Create",
                          "asserts \"0\", \"TCThread not created: errno = %d\\n\" on standard "
                          "error, `Create()` is false; m_pidSync stays created");
    // Of a thread that never was a semaphore stays, which its destructor would assert.
    static auto* const refused = new TestThread;
    bool created = true;
    CaptureStderr();
    const std::vector<std::string> failed = AssertionsOf([&] {
        const FailingCall create(pthreadCreateSeam, EAGAIN);
        created = refused->Create("worker", TEST_STACK_SIZE);
    });
    EXPECT_EQ(GetCapturedStderr(), "TCThread not created: errno = 11\n");
    EXPECT_THAT(failed, ElementsAre("0"));
    EXPECT_FALSE(created);
    EXPECT_FALSE(refused->FlagCreate());
    ExpectCreateWorks();
}

TEST_F(ThreadFaultsTest, RefusedStackSizeLeavesTheDefault)
{
    const FaultCase fault("pthread_attr_setstacksize", "TCThread::Create",
                          "ignored: the thread gets the default stack");
    std::size_t given = 0;
    std::size_t usual = 0;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_getstacksize(&attributes, &usual);
    const int result = pthread_attr_setstacksize(&attributes, 512);
    pthread_attr_destroy(&attributes);
    ASSERT_EQ(result, EINVAL); // the system refuses what the runtime's own components ask for
    const Takeover create(pthreadCreateSeam, [&](pthread_t* handle, const pthread_attr_t* wanted,
                                                 ThreadEntry entry, void* argument) {
        pthread_attr_getstacksize(wanted, &given);
        FaultCase::Injected();
        return pthreadCreateSeam.Real(handle, wanted, entry, argument);
    });
    EXPECT_TRUE(m_thread.Create("worker", 512));
    m_thread.Destroy();
    EXPECT_EQ(given, usual);
}

TEST_F(ThreadFaultsTest, RefusedNameLeavesTheCreators)
{
    const FaultCase fault("prctl", "_Process (PR_SET_NAME)",
                          "ignored: the thread runs under the name of its creator");
    {
        const Takeover refused(prctlSeam, [](int option, unsigned long one, unsigned long two) {
            if (option != PR_SET_NAME) {
                return prctlSeam.Real(option, one, two);
            }
            FaultCase::Injected();
            errno = EFAULT;
            return -1;
        });
        EXPECT_TRUE(m_thread.Create("worker", TEST_STACK_SIZE));
        m_thread.Destroy();
    }
    EXPECT_THAT(m_ran, ElementsAre(OwnName()));
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ThreadFaultsTest, RefusedPriorityIsFalse)
{
    const FaultCase fault("setpriority", "TCThread::SetPriority", "false; the thread runs on");
    Gate end;
    TestThread thread([&end] { EXPECT_TRUE(end.Wait()); });
    ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
    {
        const FailingCall refused(setprioritySeam, -1, 0, From::HERE, EPERM);
        EXPECT_FALSE(thread.SetPriority(0));
    }
    EXPECT_TRUE(thread.SetPriority(2)); // which needs no privilege
    end.Pass();
    thread.Destroy();
}

TEST_F(ThreadFaultsTest, RefusedPriorityOfTheCallerIsFalse)
{
    const FaultCase fault("setpriority", "TCThreadSelf::SetPriority", "false");
    const FailingCall refused(setprioritySeam, -1, 0, From::HERE, EPERM);
    EXPECT_FALSE(TCThreadSelf::SetPriority(0));
    EXPECT_TRUE(TCThreadSelf::SetPriority(2)); // which needs no privilege
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ThreadFaultsTest, RefusedNameOfTheCallerIsLogged)
{
    const FaultCase fault("pthread_setname_np", "TCThreadUtil::SetCurrentThreadName",
                          "promoted INFO entry with the tag \"\\\"failed to set %s name, "
                          "result:%ld\\\"\" and the name as its message");
    const LogRecord record;
    const FailingCall refused(setnameSeam, ERANGE);
    TCThreadUtil::SetCurrentThreadName("worker");
    const std::vector<LogEntry> entries = record.Get();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_TRUE(entries[0].flag);
    EXPECT_EQ(entries[0].priority, 4);
    EXPECT_EQ(entries[0].tag, "\"failed to set %s name, result:%ld\"");
    EXPECT_EQ(entries[0].text, "worker");
}

TEST_F(ThreadFaultsTest, UnknownTimeIsAllOnesAndPrinted)
{
    const FaultCase fault("times", "TCTimeWrapper::Tick",
                          "all ones, and \"QLN Warning: times() return error(-1).\\n\" is printed");
    const FailingCall unknown(timesSeam, static_cast<clock_t>(-1));
    EXPECT_EQ(TCTimeWrapper::Tick(), ~0UL);
    EXPECT_EQ(CountLogLines("> QLN Warning: times() return error(-1).\n"), 1u);
    EXPECT_NE(TCTimeWrapper::Tick(), ~0UL);
}

} // namespace
