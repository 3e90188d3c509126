#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ConsoleSeam.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The registry, whose lock this thread holds while a test looks into it.
class TaskListTest : public ::testing::Test
{
 protected:
    std::vector<const TCTask*> Entries() const
    {
        const RegistryLock lock;
        return {TCTaskList::m_taskList.begin(), TCTaskList::m_taskList.end()};
    }

    const TaskRuntime m_runtime;
};

TEST_F(TaskListTest, IsInitializedWhileItsLockIsCreated)
{
    EXPECT_TRUE(TCTaskList::FlagInitialize());
    TCTaskList::Finalize();
    EXPECT_FALSE(TCTaskList::FlagInitialize());
    ASSERT_TRUE(TCTaskList::m_mutex.Create());
    EXPECT_TRUE(TCTaskList::FlagInitialize());
}

TEST_F(TaskListTest, EmptyRegistryFindsNothing)
{
    const RegistryLock lock;
    EXPECT_EQ(TCTaskList::Task(), nullptr);
    const TCTask task;
    EXPECT_FALSE(TCTaskList::Find(&task));
    EXPECT_FALSE(TCTaskList::Find(static_cast<const TCTask*>(nullptr)));
    EXPECT_FALSE(TCTaskList::Find("task"));
    EXPECT_FALSE(TCTaskList::Find(""));
    EXPECT_EQ(TCTaskList::Task(), nullptr);
}

TEST_F(TaskListTest, EmptyRegistryIsSoughtToItsEndOnly)
{
    const RegistryLock lock;
    EXPECT_TRUE(TCTaskList::Seek(0));
    EXPECT_EQ(TCTaskList::Task(), nullptr);
    EXPECT_FALSE(TCTaskList::Seek(1));
    EXPECT_FALSE(TCTaskList::Seek(-1));
    EXPECT_EQ(TCTaskList::Task(), nullptr);
}

/// Three registered tasks: "one", "two" and "three".
class TaskListOfThreeTest : public TaskListTest
{
 protected:
    TaskListOfThreeTest()
    {
        EXPECT_TRUE(m_one.Start("one"));
        EXPECT_TRUE(m_two.Start("two"));
        EXPECT_TRUE(m_three.Start("three"));
    }

    TestTask m_one;
    TestTask m_two;
    TestTask m_three;
};

TEST_F(TaskListOfThreeTest, TasksStandInOrderOfTheirCreation)
{
    EXPECT_THAT(Entries(), ElementsAre(&m_one, &m_two, &m_three));
}

TEST_F(TaskListOfThreeTest, FindByPointerPutsTheCursorOnTheTask)
{
    const RegistryLock lock;
    for (TestTask* task : {&m_two, &m_one, &m_three}) {
        EXPECT_TRUE(TCTaskList::Find(task));
        EXPECT_EQ(TCTaskList::Task(), task);
    }
}

TEST_F(TaskListOfThreeTest, FindOfAnUnknownTaskPutsTheCursorAtTheEnd)
{
    const RegistryLock lock;
    EXPECT_TRUE(TCTaskList::Find(&m_one));
    EXPECT_FALSE(TCTaskList::Find(reinterpret_cast<const TCTask*>(0x10))); // only compared
    EXPECT_EQ(TCTaskList::Task(), nullptr);
    EXPECT_TRUE(TCTaskList::Find(&m_one));
    EXPECT_FALSE(TCTaskList::Find("four"));
    EXPECT_EQ(TCTaskList::Task(), nullptr);
}

TEST_F(TaskListOfThreeTest, FindByNameComparesExactly)
{
    const RegistryLock lock;
    EXPECT_TRUE(TCTaskList::Find("two"));
    EXPECT_EQ(TCTaskList::Task(), &m_two);
    for (const char* name : {"Two", "TWO", "tw", "two ", " two", "twoo", ""}) {
        EXPECT_FALSE(TCTaskList::Find(name)) << name;
    }
}

TEST_F(TaskListOfThreeTest, FindByNameKnowsFifteenCharacters)
{
    TestTask task;
    ASSERT_TRUE(task.Start("abcdefghijklmnopq"));
    const RegistryLock lock;
    EXPECT_FALSE(TCTaskList::Find("abcdefghijklmnopq"));
    EXPECT_TRUE(TCTaskList::Find("abcdefghijklmno"));
    EXPECT_EQ(TCTaskList::Task(), &task);
}

TEST_F(TaskListOfThreeTest, FindByNameFindsTheOlderOfTwo)
{
    std::optional<TestTask> older;
    TestTask younger;
    older.emplace();
    ASSERT_TRUE(older->Start("same"));
    ASSERT_TRUE(younger.Start("same"));
    {
        const RegistryLock lock;
        EXPECT_TRUE(TCTaskList::Find("same"));
        EXPECT_EQ(TCTaskList::Task(), &*older);
    }
    older.reset();
    const RegistryLock lock;
    EXPECT_TRUE(TCTaskList::Find("same"));
    EXPECT_EQ(TCTaskList::Task(), &younger);
}

TEST_F(TaskListOfThreeTest, FindByNameAssertsThatTasksPassedOverAreCreated)
{
    TCTask notCreated;
    const RegistryLock lock;
    TCTaskList::m_taskList.push_front(&notCreated);
    EXPECT_THAT(AssertionsOf([] { EXPECT_TRUE(TCTaskList::Find("two")); }),
                ElementsAre("FlagCreate() == true"));
    TCTaskList::m_taskList.pop_front();
    EXPECT_THAT(AssertionsOf([] { EXPECT_TRUE(TCTaskList::Find("two")); }), IsEmpty());
}

TEST_F(TaskListOfThreeTest, FindByPointerDoesNotLookAtTheTasks)
{
    TCTask notCreated;
    const RegistryLock lock;
    TCTaskList::m_taskList.push_front(&notCreated);
    EXPECT_THAT(AssertionsOf([this] { EXPECT_TRUE(TCTaskList::Find(&m_two)); }), IsEmpty());
    TCTaskList::m_taskList.pop_front();
}

TEST_F(TaskListOfThreeTest, SeekStepsForwardFromTheFirst)
{
    const RegistryLock lock;
    EXPECT_TRUE(TCTaskList::Seek(0));
    EXPECT_EQ(TCTaskList::Task(), &m_one);
    EXPECT_TRUE(TCTaskList::Seek(2));
    EXPECT_EQ(TCTaskList::Task(), &m_three);
    EXPECT_TRUE(TCTaskList::Seek(1)); // not from where the cursor was
    EXPECT_EQ(TCTaskList::Task(), &m_two);
}

TEST_F(TaskListOfThreeTest, SeekReachesTheEndButDoesNotPassIt)
{
    const RegistryLock lock;
    EXPECT_TRUE(TCTaskList::Seek(3));
    EXPECT_EQ(TCTaskList::Task(), nullptr);
    for (const int n : {4, 5, 1000, INT_MAX, -1, -2, INT_MIN}) {
        EXPECT_TRUE(TCTaskList::Seek(0));
        EXPECT_FALSE(TCTaskList::Seek(n)) << n;
        EXPECT_EQ(TCTaskList::Task(), nullptr) << n;
    }
}

TEST_F(TaskListOfThreeTest, RemovalLeavesTheCursorOnTheFollowingTask)
{
    m_two.End();
    EXPECT_THAT(Entries(), ElementsAre(&m_one, &m_three));
    const RegistryLock lock;
    EXPECT_EQ(TCTaskList::Task(), &m_three);
}

TEST_F(TaskListOfThreeTest, RemovalOfTheLastTaskLeavesTheCursorAtTheEnd)
{
    m_three.End();
    const RegistryLock lock;
    EXPECT_EQ(TCTaskList::Task(), nullptr);
    EXPECT_EQ(TCTaskList::m_taskList.size(), 2u);
}

TEST_F(TaskListOfThreeTest, DestroyedTaskIsFoundNoMore)
{
    m_one.End();
    const RegistryLock lock;
    EXPECT_FALSE(TCTaskList::Find(&m_one));
    EXPECT_FALSE(TCTaskList::Find("one"));
    EXPECT_TRUE(TCTaskList::Find("two"));
    EXPECT_TRUE(TCTaskList::Seek(2));
    EXPECT_FALSE(TCTaskList::Seek(3));
}

TEST_F(TaskListOfThreeTest, TaskCreatedAgainStandsLast)
{
    m_one.End();
    ASSERT_TRUE(m_one.Start("one"));
    EXPECT_THAT(Entries(), ElementsAre(&m_two, &m_three, &m_one));
}

TEST_F(TaskListOfThreeTest, DestroyOfATaskThatIsNotInTheListSaysNothing)
{
    {
        const RegistryLock lock;
        TCTaskList::m_taskList.remove(&m_two);
        TCTaskList::Seek(0);
    }
    EXPECT_THAT(AssertionsOf([this] { m_two.End(); }), IsEmpty());
    EXPECT_THAT(Entries(), ElementsAre(&m_one, &m_three));
}

TEST_F(TaskListOfThreeTest, FinalizeDropsTheEntriesAndLeavesTheTasks)
{
    {
        const RegistryLock lock;
        EXPECT_TRUE(TCTaskList::Seek(1));
    }
    TCTaskList::Finalize();
    EXPECT_TRUE(TCTaskList::m_taskList.empty());
    EXPECT_EQ(TCTaskList::Task(), nullptr);
    EXPECT_FALSE(TCTaskList::FlagInitialize());
    for (TestTask* task : {&m_one, &m_two, &m_three}) {
        EXPECT_TRUE(task->FlagCreate());
        EXPECT_TRUE(Flush(task)); // they go on
    }
    ASSERT_TRUE(TCTaskList::m_mutex.Create());
    EXPECT_THAT(Entries(), IsEmpty());
    m_one.End(); // passed over silently
}

TEST_F(TaskListOfThreeTest, TasksThatStillRunFindNoRegistryAfterFinalize)
{
    TCTaskList::Finalize();
    EXPECT_THAT(AssertionsOf([this] {
                    EXPECT_FALSE(TCTask::Ping(&m_one, LONG_WAIT_MSEC));
                    EXPECT_FALSE(TCTask::ClearQueue(&m_one, LONG_WAIT_MSEC));
                    m_one.End();
                }),
                IsEmpty());
    EXPECT_FALSE(m_one.FlagCreate());
    ASSERT_TRUE(TCTaskList::m_mutex.Create());
}

TEST_F(TaskListOfThreeTest, FinalizeWaitsForTasksThatUseTheRegistry)
{
    for (int round = 0; round < 20; ++round) {
        std::atomic<bool> stop{false};
        std::atomic<int> calls{0};
        EXPECT_THAT(AssertionsOf([&] {
                        std::vector<std::unique_ptr<Caller>> users;
                        for (TestTask* task : {&m_one, &m_two, &m_three}) {
                            users.push_back(std::make_unique<Caller>([&, task] {
                                while (!stop) {
                                    TCTask::Ping(task, 0);
                                    TCTask::ClearQueue(task, 0);
                                    ++calls;
                                    std::this_thread::yield(); // a refusal waits for nothing
                                }
                            }));
                        }
                        EXPECT_TRUE(Eventually([&] { return calls >= 10; }));
                        TCTaskList::Finalize();
                        const int before = calls;
                        EXPECT_TRUE(Eventually([&] { return calls >= before + 10; }));
                        stop = true;
                    }),
                    IsEmpty());
        ASSERT_TRUE(TCTaskList::m_mutex.Create());
    }
}

TEST_F(TaskListOfThreeTest, FinalizeWaitsForTheLock)
{
    std::optional<Caller> owner;
    {
        const RegistryLock lock;
        owner.emplace([] { TCTaskList::Finalize(); });
        EXPECT_TRUE(owner->Blocks());
        EXPECT_TRUE(TCTaskList::FlagInitialize());
        EXPECT_EQ(TCTaskList::m_taskList.size(), 3u);
    }
    owner->Join();
    EXPECT_FALSE(TCTaskList::FlagInitialize());
    ASSERT_TRUE(TCTaskList::m_mutex.Create());
}

TEST_F(TaskListOfThreeTest, LockIsRecursive)
{
    const RegistryLock lock;
    {
        const RegistryLock again;
        EXPECT_TRUE(TCTaskList::Find(&m_two));
    }
    EXPECT_EQ(TCTaskList::Task(), &m_two);
    m_three.End(); // removes itself under the lock
    EXPECT_FALSE(TCTaskList::Find(&m_three));
}

TEST_F(TaskListTest, TaskIsRegisteredAfterItsThreadHasStarted)
{
    TestTask task;
    Gate running;
    task.onCreate = [&] {
        running.Pass();
        return true;
    };
    std::optional<Caller> creator;
    {
        const RegistryLock lock;
        creator.emplace([&] { EXPECT_TRUE(task.Start()); });
        EXPECT_TRUE(running.Wait());
        EXPECT_TRUE(creator->Blocks()); // at the registry's lock
        EXPECT_FALSE(TCTaskList::Find(&task));
    }
    creator->Join();
    EXPECT_TRUE(IsRegistered(&task));
}

TEST_F(TaskListTest, DestroyWaitsForTheLock)
{
    TestTask task;
    ASSERT_TRUE(task.Start());
    EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    std::optional<Caller> owner;
    {
        const RegistryLock lock;
        owner.emplace([&] { task.Destroy(); });
        EXPECT_TRUE(owner->Blocks());
        EXPECT_TRUE(TCTaskList::Find(&task));
        EXPECT_TRUE(task.FlagCreate());
    }
    owner->Join();
    EXPECT_FALSE(IsRegistered(&task));
}

TEST_F(TaskListTest, TaskIsRemovedBeforeItsThreadEnds)
{
    TestTask task;
    ASSERT_TRUE(task.Start());
    Hold hold(&task);
    EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    Caller owner([&] { task.Destroy(); });
    EXPECT_TRUE(Eventually([&] { return !IsRegistered(&task); }));
    EXPECT_TRUE(owner.Blocks());
    EXPECT_TRUE(task.FlagCreate());
    hold.Release();
}

TEST_F(TaskListTest, PausedTaskIsResumedBeforeItIsRemoved)
{
    Gate resumed;
    TestTask task;
    task.onResume = [&](const TSEvent*) { resumed.Pass(); };
    ASSERT_TRUE(task.Start());
    ASSERT_TRUE(task.Pause());
    EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    std::optional<Caller> owner;
    {
        const RegistryLock lock; // which the removal waits for
        owner.emplace([&] { task.Destroy(); });
        EXPECT_TRUE(resumed.Wait());
        EXPECT_TRUE(TCTaskList::Find(&task));
    }
    owner->Join();
    EXPECT_FALSE(IsRegistered(&task));
}

TEST_F(TaskListTest, LookUpsAreSafeWhileTasksComeAndGo)
{
    constexpr int ROUNDS = 100;
    TestTask steady; // there is always one to walk past
    ASSERT_TRUE(steady.Start("task 9"));
    std::atomic<int> working{2};
    std::vector<std::thread> owners;
    for (int i = 0; i < 2; ++i) {
        owners.emplace_back([&, name = "task " + std::to_string(i)] {
            for (int round = 0; round < ROUNDS; ++round) {
                TestTask task;
                EXPECT_TRUE(task.Start(name.c_str()));
                EXPECT_TRUE(IsRegistered(&task));
                task.End();
                EXPECT_FALSE(IsRegistered(&task));
            }
            --working;
        });
    }
    do {
        const RegistryLock lock;
        const int count = static_cast<int>(TCTaskList::m_taskList.size());
        for (int i = 0; i < count; ++i) {
            EXPECT_TRUE(TCTaskList::Seek(i));
            ASSERT_NE(TCTaskList::Task(), nullptr);
            EXPECT_EQ(std::string(TCTaskList::Task()->Name(), 5), "task ");
        }
        TCTaskList::Find("task 1");
        EXPECT_GE(count, 1);
        EXPECT_LE(count, 3);
    } while (working > 0);
    for (std::thread& owner : owners) {
        owner.join();
    }
    EXPECT_THAT(Entries(), ElementsAre(&steady));
}

using TaskListDeathTest = TaskListTest;

TEST_F(TaskListDeathTest, FinalizeWithoutTheLockAsserts)
{
    TCTaskList::Finalize();
    EXPECT_ASSERT_DEATH(TCTaskList::Finalize(), "FlagCreate() == true");
    ASSERT_TRUE(TCTaskList::m_mutex.Create());
}

TEST_F(TaskListDeathTest, TaskCannotBeCreatedWithoutTheRegistrysLock)
{
    TCTaskList::Finalize();
    TCTask task;
    EXPECT_ASSERT_DEATH(task.Create("task", 0, TEST_STACK_SIZE, 0), "FlagCreate() == true");
    ASSERT_TRUE(TCTaskList::m_mutex.Create());
}

} // namespace
