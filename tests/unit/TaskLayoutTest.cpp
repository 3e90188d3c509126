#include <gtest/gtest.h>

#include <array>
#include <mutex>
#include <type_traits>

#include "Layout.h"
#include "TaskSeams.h"
#include "TaskSupport.h"
#include "WatchdogNotifier.h"

namespace {

using namespace zortest;

/// The two slots of a destructor are those that are left between the operations before and after.
static_assert(std::has_virtual_destructor_v<TCHandler>);
static_assert(std::has_virtual_destructor_v<TCTask>);
static_assert(std::has_virtual_destructor_v<TCWatchdogNotifier>);
static_assert(std::is_abstract_v<TCHandler>);
static_assert(!std::is_abstract_v<TCTask>);

TEST(HandlerLayoutTest, OperationsAreInOrder)
{
    EXPECT_EQ(SlotOf(&TCHandler::t_OnEvent), 2u);
    EXPECT_EQ(SlotOf(&TCHandler::Destroy), 3u);
}

TEST(TaskLayoutTest, OperationsAreInOrder)
{
    EXPECT_EQ(SlotOf(&TCTask::t_Main), 0u);
    EXPECT_EQ(SlotOf(&TCTask::Destroy), 3u);
    EXPECT_EQ(SlotOf(&TCTask::t_Create), 4u);
    EXPECT_EQ(SlotOf(&TCTask::t_Idle), 5u);
    EXPECT_EQ(SlotOf(&TCTask::t_Destroy), 6u);
    EXPECT_EQ(SlotOf(&TCTask::t_OnEvent), 7u);
    EXPECT_EQ(SlotOf(&TCTask::t_OnExit), 8u);
    EXPECT_EQ(SlotOf(&TCTask::t_OnUser), 9u);
    EXPECT_EQ(SlotOf(&TCTask::t_OnClearQueue), 10u);
    EXPECT_EQ(SlotOf(&TCTask::t_OnPause), 11u);
    EXPECT_EQ(SlotOf(&TCTask::t_OnResume), 12u);
    EXPECT_EQ(SlotOf(&TCTask::Pause), 13u);
    EXPECT_EQ(SlotOf(&TCTask::ResumeAsync), 14u);
    EXPECT_EQ(SlotOf(&TCTask::ExecuteEvent), 15u);
}

TEST(WatchdogNotifierLayoutTest, OperationsAreInOrder)
{
    EXPECT_EQ(SlotOf(&TCWatchdogNotifier::t_Main), 0u);
    EXPECT_EQ(SlotOf(&TCWatchdogNotifier::Destroy), 3u);
}

TEST(WatchdogNotifierLayoutTest, MembersFollowTheThread)
{
    static_assert(std::is_base_of_v<TCThread, TCWatchdogNotifier>);
    static_assert(sizeof(TCWatchdogNotifier) ==
                  (sizeof(TCThread) + sizeof(bool) + 7) / 8 * 8 + sizeof(std::size_t));
}

template <typename Base>
std::size_t OffsetOfBase(const TCTask& task)
{
    return static_cast<std::size_t>(reinterpret_cast<const char*>(static_cast<const Base*>(&task)) -
                                    reinterpret_cast<const char*>(&task));
}

TEST(TaskLayoutTest, BasesAreInOrder)
{
    const TCTask task;
    EXPECT_EQ(OffsetOfBase<TCThread>(task), 0u);
    EXPECT_EQ(OffsetOfBase<TCQueue>(task), sizeof(TCThread));
    EXPECT_EQ(OffsetOfBase<TCHandler>(task), sizeof(TCThread) + sizeof(TCQueue));
}

TEST(TaskLayoutTest, HandlerIsFlagAndTask)
{
    const TaskRuntime runtime;
    TestTask task;
    ASSERT_TRUE(task.Start());
    const TCHandler& handler = task;
    static_assert(sizeof(TCHandler) == 24);
    EXPECT_EQ(FieldAt<std::uint32_t>(handler, 8), 0x12C272Bu);
    EXPECT_EQ(FieldAt<TCTask*>(handler, 16), &task);
}

/// Offsets of a task's own members from the first of them.
constexpr std::size_t WAIT_TIME = 0;
constexpr std::size_t EXIT_FLAG = 8;
constexpr std::size_t RUNNING_FLAG = 9;
constexpr std::size_t WATCHDOG_TIME = 16;
constexpr std::size_t PAUSED_FLAG = 24 + sizeof(std::mutex); // behind the pause-request mutex
constexpr std::size_t RESUME_PROMISE = PAUSED_FLAG + 8;
constexpr std::size_t BEFORE_CALLBACKS = // behind the pause-wait mutex
    RESUME_PROMISE + sizeof(void*) + sizeof(std::mutex);
constexpr std::size_t AFTER_CALLBACKS = BEFORE_CALLBACKS + 4 * sizeof(void*);
constexpr std::size_t CONTEXTS = AFTER_CALLBACKS + 4 * sizeof(void*);
constexpr std::size_t NAME = CONTEXTS + 4 * sizeof(void*);
constexpr std::size_t SPARE_EVENT = NAME + 16;

bool Before(const TSEvent* /*event*/, const void* /*context*/)
{
    return false;
}

bool After(const TSEvent* /*event*/, const void* /*context*/)
{
    return false;
}

/// Reads a task's own members where they are to be.
class TaskMembersTest : public ::testing::Test
{
 protected:
    template <typename Field>
    Field Member(std::size_t offset) const
    {
        return FieldAt<Field>(static_cast<const TCTask&>(m_task),
                              OffsetOfBase<TCHandler>(m_task) + sizeof(TCHandler) + offset);
    }

    const TaskRuntime m_runtime;
    FakeWatchdog m_watchdog;
    TestTask m_task;
};

TEST_F(TaskMembersTest, WaitTimeIsZeroExtended)
{
    ASSERT_TRUE(m_task.Start("task", 0xFFFFFFFFu));
    EXPECT_EQ(Member<std::uint64_t>(WAIT_TIME), 0xFFFFFFFFu);
}

TEST_F(TaskMembersTest, FlagsFollowTheLoop)
{
    ASSERT_TRUE(m_task.Start());
    FunctionHandler reader( // on the task's thread, which writes the flags
        [this](const TSEvent*) {
            EXPECT_FALSE(Member<bool>(EXIT_FLAG));
            EXPECT_TRUE(Member<bool>(RUNNING_FLAG));
            return true;
        },
        &m_task);
    TSEvent event = EventTo(&reader);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    reader.Destroy();

    m_task.End();
    EXPECT_TRUE(Member<bool>(EXIT_FLAG));
    EXPECT_FALSE(Member<bool>(RUNNING_FLAG));
}

TEST_F(TaskMembersTest, WatchdogTimeFollowsTheFlags)
{
    ASSERT_TRUE(m_task.Start("task", LONG_WAIT_MSEC, 1234567));
    EXPECT_EQ(Member<unsigned long>(WATCHDOG_TIME), 1234567u);
}

TEST_F(TaskMembersTest, PauseKeepsFlagAndPromiseBetweenTheMutexes)
{
    ASSERT_TRUE(m_task.Start());
    EXPECT_FALSE(Member<bool>(PAUSED_FLAG));
    EXPECT_EQ(Member<void*>(RESUME_PROMISE), nullptr);
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(Member<bool>(PAUSED_FLAG));
    EXPECT_NE(Member<void*>(RESUME_PROMISE), nullptr);
    ASSERT_TRUE(m_task.ResumeAsync());
    EXPECT_FALSE(Member<bool>(PAUSED_FLAG));
    EXPECT_NE(Member<void*>(RESUME_PROMISE), nullptr); // kept until the next pause
}

TEST_F(TaskMembersTest, CallbacksAreThreeTablesOfFour)
{
    ASSERT_TRUE(m_task.Start());
    for (const int type : {0, 1, 3}) {
        const int context = 0;
        EXPECT_TRUE(m_task.SetEventCallback(type, Before, After, &context));
        const std::size_t slot = static_cast<std::size_t>(type) * sizeof(void*);
        EXPECT_EQ(Member<TCTask::EventCallback>(BEFORE_CALLBACKS + slot), &Before);
        EXPECT_EQ(Member<TCTask::EventCallback>(AFTER_CALLBACKS + slot), &After);
        EXPECT_EQ(Member<const void*>(CONTEXTS + slot), &context);
        EXPECT_TRUE(m_task.SetEventCallback(type, nullptr, nullptr, nullptr));
    }
}

TEST_F(TaskMembersTest, NameAndSpareEventComeLast)
{
    ASSERT_TRUE(m_task.Start("spare"));
    const auto name = Member<std::array<char, 16>>(NAME);
    EXPECT_STREQ(name.data(), "spare");
    EXPECT_EQ(Member<std::uint32_t>(SPARE_EVENT + offsetof(TSEvent, param3)), 0xFFFFu);
    EXPECT_EQ(Member<std::uint16_t>(SPARE_EVENT + offsetof(TSEvent, param4)), 0xFFFFu);
    EXPECT_EQ(Member<std::uint64_t>(SPARE_EVENT + offsetof(TSEvent, param5)), ~UINT64_C(0));
    EXPECT_GE(sizeof(TCTask), sizeof(TCThread) + sizeof(TCQueue) + sizeof(TCHandler) + SPARE_EVENT +
                                  sizeof(TSEvent));
}

/// Ends a created task through one of its bases.
template <typename Base>
void EndThroughBase()
{
    const TaskRuntime runtime;
    TestTask task;
    ASSERT_TRUE(task.Start());
    ASSERT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    static_cast<Base&>(task).Destroy();
    EXPECT_FALSE(task.FlagCreate());
    EXPECT_FALSE(task.IsQueueCreated());
    EXPECT_FALSE(task.IsThreadCreated());
    EXPECT_FALSE(IsRegistered(&task));
}

TEST(TaskLayoutTest, DestroyOfEveryBaseIsTheTasks)
{
    EndThroughBase<TCThread>();
    EndThroughBase<TCQueue>();
    EndThroughBase<TCMutex>();
    EndThroughBase<TCHandler>();
}

TEST(TaskLayoutTest, EventHookIsTheHandlers)
{
    const TaskRuntime runtime;
    TestTask task;
    int handled = 0;
    task.onUser = [&](const TSEvent*) {
        ++handled;
        return true;
    };
    ASSERT_TRUE(task.Start());
    TCHandler& handler = task;
    const TSEvent event = EventTo(&handler);
    EXPECT_TRUE(handler.t_OnEvent(&event));
    EXPECT_EQ(handled, 1);
}

} // namespace
