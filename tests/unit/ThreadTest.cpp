#include "Thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "Layout.h"
#include "LogSeam.h"
#include "TestThread.h"
#include "ThreadNames.h"
#include "ThreadSeams.h"
#include "Wait.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr pthread_t ENDED = 0xFFFFFFFF;

// The conditions of a thread's semaphores, in the order in which Create() makes them.
constexpr int START_GATE = 0;
constexpr int EXIT_GATE = 1;
constexpr int PID_SYNC = 2;

// The fields of a thread, which have an order.
constexpr std::size_t HANDLE_OFFSET = 8;
constexpr std::size_t KERNEL_ID_OFFSET = 16;
constexpr std::size_t PID_SYNC_OFFSET = 24;
constexpr std::size_t START_GATE_OFFSET = 40;
constexpr std::size_t EXIT_GATE_OFFSET = 56;
constexpr std::size_t NAME_OFFSET = 72;
constexpr std::size_t STATE_IN_SEMAPHORE = 8;

int KernelId()
{
    return static_cast<int>(syscall(SYS_gettid));
}

std::string KernelName()
{
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    return name;
}

/// The kernel name that a thread created as @p name has in its body.
std::string NameInBody(const char* name)
{
    std::string seen;
    TestThread thread([&] { seen = KernelName(); });
    EXPECT_TRUE(thread.Create(name, TEST_STACK_SIZE));
    thread.Destroy();
    return seen;
}

TEST(ThreadTest, IsCreatedFromCreateToDestroy)
{
    TestThread thread;
    EXPECT_FALSE(thread.FlagCreate());
    ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
    EXPECT_TRUE(thread.FlagCreate());
    EXPECT_TRUE(Eventually([&] { return thread.Id() == ENDED; }));
    EXPECT_TRUE(thread.FlagCreate());
    thread.Destroy();
    EXPECT_FALSE(thread.FlagCreate());
}

TEST(ThreadTest, BodyRunsOnceOnAThreadOfItsOwn)
{
    std::vector<pthread_t> ids;
    TestThread thread([&] { ids.push_back(TCThreadSelf::Id()); });
    ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
    thread.Destroy();
    ASSERT_EQ(ids.size(), 1u);
    EXPECT_NE(ids.front(), pthread_self());
}

TEST(ThreadTest, IdIsTheHandleOfTheThread)
{
    Gate looked;
    pthread_t self = 0;
    pthread_t id = 0;
    TestThread* running = nullptr;
    TestThread thread([&] {
        self = pthread_self();
        id = running->Id();
        looked.Wait();
    });
    running = &thread;
    pthread_t handle = 0;
    const Takeover create(
        pthreadCreateSeam, [&](pthread_t* created, const pthread_attr_t* attributes,
                               ThreadEntry entry, void* argument) {
            const int result = pthreadCreateSeam.Real(created, attributes, entry, argument);
            handle = *created;
            return result;
        });
    ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
    EXPECT_EQ(thread.Id(), handle);
    looked.Pass();
    thread.Destroy();
    EXPECT_EQ(self, handle);
    EXPECT_EQ(id, handle);
}

TEST(ThreadTest, BodyWaitsAtTheStartGateUntilTheHandleIsStored)
{
    const ConditionWatch watch;
    std::atomic<bool> bodyRan{false};
    bool idWasRight = false;
    TestThread* running = nullptr;
    TestThread thread([&] {
        bodyRan = true;
        idWasRight = running->Id() == pthread_self();
    });
    running = &thread;
    const Takeover create(
        pthreadCreateSeam, [&](pthread_t* handle, const pthread_attr_t* attributes,
                               ThreadEntry entry, void* argument) {
            const int result = pthreadCreateSeam.Real(handle, attributes, entry, argument);
            EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(START_GATE); }));
            EXPECT_FALSE(bodyRan);
            return result;
        });
    ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
    thread.Destroy();
    EXPECT_TRUE(bodyRan);
    EXPECT_TRUE(idWasRight);
}

TEST(ThreadTest, DestroyWaitsForTheBody)
{
    const ConditionWatch watch;
    Gate end;
    std::atomic<bool> bodyEnded{false};
    std::atomic<bool> destroyed{false};
    TestThread thread([&] {
        end.Wait();
        bodyEnded = true;
    });
    ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
    std::thread destroyer([&] {
        thread.Destroy();
        EXPECT_TRUE(bodyEnded);
        destroyed = true;
    });
    EXPECT_TRUE(Eventually([&] { return watch.WaitedFor(EXIT_GATE); }));
    EXPECT_FALSE(destroyed);
    EXPECT_THAT(watch.Destroyed(), IsEmpty());
    end.Pass();
    destroyer.join();
    EXPECT_TRUE(destroyed);
}

TEST(ThreadTest, DestroyReleasesStartGateExitGateAndPidSyncInThisOrder)
{
    const ConditionWatch watch;
    TestThread thread;
    ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
    EXPECT_EQ(watch.Made(), 3);
    // The exit gate has been given and its giver is gone: a giver that wakes somebody would be the
    // last to let go of the gate's state.
    EXPECT_TRUE(Eventually([&] { return thread.HasEnded(); }));
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed("worker") == 0; }));
    thread.Destroy();
    EXPECT_THAT(watch.Destroyed(), ElementsAre(START_GATE, EXIT_GATE, PID_SYNC));
}

TEST(ThreadTest, IdIsTheLow32BitsAllOnesAfterTheBody)
{
    TestThread thread;
    ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
    EXPECT_TRUE(Eventually([&] { return thread.Id() == ENDED; }));
    EXPECT_EQ(thread.Id(), 0x00000000FFFFFFFFUL);
    thread.Destroy();
}

TEST(ThreadTest, WhoeverSeesThatTheBodyHasEndedSeesWhatItDid)
{
    Gate end;
    int result = 0;
    TestThread thread([&] {
        end.Wait();
        result = 42;
    });
    EXPECT_FALSE(thread.HasEnded());
    ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
    EXPECT_FALSE(thread.HasEnded());
    end.Pass();
    EXPECT_TRUE(Eventually([&] { return thread.HasEnded(); }));
    EXPECT_EQ(result, 42); // no other synchronisation orders it
    thread.Destroy();
}

TEST(ThreadTest, CanBeCreatedAgainAfterDestroy)
{
    constexpr int TIMES = 20;
    int runs = 0;
    TestThread thread([&] { ++runs; });
    for (int i = 0; i < TIMES; ++i) {
        ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
        thread.Destroy();
    }
    EXPECT_EQ(runs, TIMES);
}

TEST(ThreadTest, NameIsThatOfTheKernelThread)
{
    EXPECT_EQ(NameInBody("w"), "w");
    EXPECT_EQ(NameInBody("worker"), "worker");
    EXPECT_EQ(NameInBody("123456789012345"), "123456789012345");
}

TEST(ThreadTest, NameOfTwentyCharactersIsCutToFifteen)
{
    EXPECT_EQ(NameInBody("abcdefghijklmnopqrst"), "abcdefghijklmno");
}

TEST(ThreadTest, EmptyNameLeavesTheNameOfTheCreator)
{
    std::string creator;
    std::string thread;
    std::thread([&] {
        prctl(PR_SET_NAME, "the creator");
        creator = KernelName();
        thread = NameInBody("");
    }).join();
    EXPECT_EQ(creator, "the creator");
    EXPECT_EQ(thread, creator);
}

TEST(ThreadTest, SecondCreateReplacesTheWholeName)
{
    std::string seen;
    TestThread thread([&] { seen = KernelName(); });
    ASSERT_TRUE(thread.Create("a longer name", TEST_STACK_SIZE));
    thread.Destroy();
    EXPECT_EQ(seen, "a longer name");
    ASSERT_TRUE(thread.Create("short", TEST_STACK_SIZE));
    thread.Destroy();
    EXPECT_EQ(seen, "short");
    ASSERT_TRUE(thread.Create("", TEST_STACK_SIZE));
    thread.Destroy();
    EXPECT_EQ(seen, KernelName());
}

TEST(ThreadTest, StartsDetachedWithTheObjectAsArgument)
{
    TestThread thread;
    int detached = -1;
    std::size_t stackSize = 0;
    void* passed = nullptr;
    {
        const Takeover create(
            pthreadCreateSeam, [&](pthread_t* handle, const pthread_attr_t* attributes,
                                   ThreadEntry entry, void* argument) {
                pthread_attr_getdetachstate(attributes, &detached);
                pthread_attr_getstacksize(attributes, &stackSize);
                passed = argument;
                return pthreadCreateSeam.Real(handle, attributes, entry, argument);
            });
        ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE + 8));
    }
    thread.Destroy();
    EXPECT_EQ(detached, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(stackSize, TEST_STACK_SIZE + 8);
    EXPECT_EQ(passed, static_cast<TCThread*>(&thread));
}

/// The stack size that pthread_create() is asked for when Create() is asked for @p size.
std::size_t StackSizePassedOn(unsigned long size)
{
    std::size_t passed = 0;
    const Takeover create(pthreadCreateSeam,
                          [&](pthread_t* handle, const pthread_attr_t* attributes,
                              ThreadEntry entry, void* argument) {
                              pthread_attr_getstacksize(attributes, &passed);
                              return pthreadCreateSeam.Real(handle, attributes, entry, argument);
                          });
    TestThread thread;
    EXPECT_TRUE(thread.Create("worker", size));
    thread.Destroy();
    return passed;
}

TEST(ThreadTest, StackSizeIsNotRounded)
{
    for (const unsigned long size : {262145UL, 300001UL, TEST_STACK_SIZE}) {
        EXPECT_EQ(StackSizePassedOn(size), size);
    }
}

TEST(ThreadTest, StackSizeBelowTheSystemsMinimumLeavesTheDefault)
{
    std::size_t defaultSize = 0;
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    pthread_attr_getstacksize(&attributes, &defaultSize);
    pthread_attr_destroy(&attributes);
    for (const unsigned long size : {0UL, 512UL, 4096UL, 8192UL}) {
        EXPECT_EQ(StackSizePassedOn(size), defaultSize);
    }
}

TEST(ThreadTest, AttributesAreDestroyedOnce)
{
    TestThread thread;
    const int before = AttributesDestroyed();
    ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
    EXPECT_EQ(AttributesDestroyed(), before + 1);
    thread.Destroy();
}

TEST(ThreadTest, DestroyOnTheThreadItselfReleasesOnlyPidSyncAndReturns)
{
    ClearLog();
    const ConditionWatch watch;
    Gate done;
    std::vector<std::string> failed;
    static TestThread* thread; // what is left of it can never be released, so it stays for good
    thread = new TestThread([&] {
        failed = AssertionsOf([] { thread->Destroy(); });
        done.Pass();
    });
    ASSERT_TRUE(thread->Create("worker", TEST_STACK_SIZE));
    ASSERT_TRUE(done.Wait());
    EXPECT_THAT(failed, ElementsAre("TCThreadSelf::Id() != Id()"));
    EXPECT_THAT(watch.Destroyed(), ElementsAre(PID_SYNC));
    EXPECT_EQ(CountLogLines("> Assert Error : Current Thread can't destroy itself\n\n"), 1u);
    EXPECT_TRUE(thread->FlagCreate());
    EXPECT_TRUE(Eventually([] { return thread->Id() == ENDED; }));
}

using ThreadDeathTest = ::testing::Test;

TEST_F(ThreadDeathTest, OperationsBeforeCreateAssert)
{
    TestThread thread;
    EXPECT_ASSERT_DEATH(thread.Id(), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(thread.SetPriority(1), "FlagCreate() == true");
    EXPECT_ASSERT_DEATH(thread.Destroy(), "FlagCreate() == true");
}

TEST_F(ThreadDeathTest, SecondCreateAsserts)
{
    EXPECT_ASSERT_DEATH(
        {
            TestThread thread;
            thread.Create("worker", TEST_STACK_SIZE);
            thread.Create("worker", TEST_STACK_SIZE);
        },
        "FlagCreate() == false");
}

TEST_F(ThreadDeathTest, CreateWithoutANameAsserts)
{
    TestThread thread;
    EXPECT_ASSERT_DEATH(thread.Create(nullptr, TEST_STACK_SIZE), "threadname != NULL");
}

TEST_F(ThreadDeathTest, DestructionWithoutDestroyAsserts)
{
    EXPECT_ASSERT_DEATH(
        {
            Gate inBody;
            TestThread thread([&] {
                inBody.Pass();
                pause(); // until the process is gone, so that it needs the object no more
            });
            thread.Create("worker", TEST_STACK_SIZE);
            inBody.Wait();
        },
        "FlagCreate() == false");
}

TEST_F(ThreadDeathTest, DestroyOnTheThreadItselfAsserts)
{
    EXPECT_ASSERT_DEATH(
        {
            TestThread* running = nullptr;
            TestThread thread([&] { running->Destroy(); });
            running = &thread;
            thread.Create("worker", TEST_STACK_SIZE);
            thread.Destroy();
        },
        "TCThreadSelf::Id() != Id()");
}

TEST(ThreadLayoutTest, FieldsAreInOrder)
{
    static_assert(sizeof(TCThread) == 88);
    Gate looked;
    Gate inBody;
    int kernelId = 0;
    TestThread thread([&] {
        kernelId = KernelId();
        inBody.Pass();
        looked.Wait();
    });
    const auto isCreated = [&](std::size_t semaphore) {
        return FieldAt<void*>(thread, semaphore + STATE_IN_SEMAPHORE) != nullptr;
    };
    EXPECT_EQ(FieldAt<int>(thread, KERNEL_ID_OFFSET), -1);
    EXPECT_FALSE(isCreated(PID_SYNC_OFFSET));

    ASSERT_TRUE(thread.Create("abcdefghijklmnopqrst", TEST_STACK_SIZE));
    ASSERT_TRUE(inBody.Wait());
    EXPECT_EQ(FieldAt<pthread_t>(thread, HANDLE_OFFSET), thread.Id());
    EXPECT_EQ(FieldAt<int>(thread, KERNEL_ID_OFFSET), kernelId);
    EXPECT_TRUE(isCreated(PID_SYNC_OFFSET));
    EXPECT_TRUE(isCreated(START_GATE_OFFSET));
    EXPECT_TRUE(isCreated(EXIT_GATE_OFFSET));
    for (std::size_t i = 0; i < 15; ++i) {
        EXPECT_EQ(FieldAt<char>(thread, NAME_OFFSET + i), static_cast<char>('a' + i));
    }
    EXPECT_EQ(FieldAt<char>(thread, NAME_OFFSET + 15), '\0');
    looked.Pass();
    thread.Destroy();
    EXPECT_FALSE(isCreated(PID_SYNC_OFFSET));
}

TEST(ThreadLayoutTest, OperationsAreInOrder)
{
    static_assert(std::has_virtual_destructor_v<TCThread>);
    static_assert(std::is_abstract_v<TCThread>);
    EXPECT_EQ(SlotOf(&TCThread::t_Main), 0u);
    EXPECT_EQ(SlotOf(&TCThread::Destroy), 3u); // the destructor takes 1 and 2
}

} // namespace
