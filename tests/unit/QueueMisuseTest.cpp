#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "ConsoleSeam.h"
#include "QueueFixture.h"

namespace {

using namespace zortest;

/// One operation of a queue that is called as it must not be.
struct Misuse
{
    std::string name;
    std::function<void(TCQueue&)> call;
};

/// Whether the statement ends with an assertion of either source of the queue.
#define EXPECT_QUEUE_ASSERT_DEATH(statement, expression)                    \
    EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGABRT),              \
                ::testing::AllOf(::zortest::HasAssertionReport(expression), \
                                 ::testing::HasSubstr("failed: src/Queue")))

std::string NameOf(const ::testing::TestParamInfo<Misuse>& info)
{
    return info.param.name;
}

TSEvent gEvent;
const TCHandler* const NOBODY = nullptr;
unsigned int* const NOWHERE = nullptr;

/// Operations of a queue that is not created.
class QueueNotCreatedDeathTest : public ::testing::TestWithParam<Misuse>
{};

TEST_P(QueueNotCreatedDeathTest, Asserts)
{
    TCQueue queue;
    EXPECT_QUEUE_ASSERT_DEATH(GetParam().call(queue), "FlagCreate() == true");
}

TEST_P(QueueNotCreatedDeathTest, AssertsAfterDestroyToo)
{
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    queue.Destroy();
    EXPECT_QUEUE_ASSERT_DEATH(GetParam().call(queue), "FlagCreate() == true");
}

INSTANTIATE_TEST_SUITE_P(
    Operations, QueueNotCreatedDeathTest,
    ::testing::Values(
        Misuse{"Destroy", [](TCQueue& queue) { queue.Destroy(); }},
        Misuse{"Put", [](TCQueue& queue) { queue.Put(&gEvent, false); }},
        Misuse{"PutSync", [](TCQueue& queue) { queue.PutSync(&gEvent, true, false); }},
        Misuse{"GetSync", [](TCQueue& queue) { queue.GetSync(&gEvent, 0, false); }},
        Misuse{"Get", [](TCQueue& queue) { queue.Get(&gEvent, 0UL); }},
        Misuse{"GetSyncQData", [](TCQueue& queue) { queue.GetSyncQData(&gEvent, false); }},
        Misuse{"GetQData", [](TCQueue& queue) { queue.GetQData(&gEvent); }},
        Misuse{"GetByReceiver", [](TCQueue& queue) { queue.Get(&gEvent, NOBODY); }},
        Misuse{"GetByReceiverAndType", [](TCQueue& queue) { queue.Get(&gEvent, NOBODY, 0); }},
        Misuse{"Find", [](TCQueue& queue) { queue.Find(NOBODY, NOWHERE); }},
        Misuse{"FindByType", [](TCQueue& queue) { queue.Find(NOBODY, 0, NOWHERE); }},
        Misuse{"Delete", [](TCQueue& queue) { queue.Delete(NOBODY, NOWHERE); }},
        Misuse{"DeleteByType", [](TCQueue& queue) { queue.Delete(NOBODY, 0, NOWHERE); }},
        Misuse{"DeleteEx", [](TCQueue& queue) { queue.DeleteEx(NOBODY, 0, 1, NOWHERE); }},
        Misuse{"Give", [](TCQueue& queue) { queue.Give(); }},
        Misuse{"Try", [](TCQueue& queue) { queue.Try(0); }},
        Misuse{"Size", [](TCQueue& queue) { static_cast<void>(queue.Size()); }}),
    NameOf);

/// Operations that are not given an event.
class QueueNullEventDeathTest : public ::testing::TestWithParam<Misuse>
{};

TEST_P(QueueNullEventDeathTest, Asserts)
{
    TCQueue queue;
    ASSERT_TRUE(queue.Create());
    EXPECT_ASSERT_DEATH(GetParam().call(queue), "event != NULL");
    queue.Destroy();
}

TEST_P(QueueNullEventDeathTest, IsAskedWhetherItIsCreatedFirst)
{
    TCQueue queue;
    EXPECT_ASSERT_DEATH(GetParam().call(queue), "FlagCreate() == true");
}

INSTANTIATE_TEST_SUITE_P(
    Operations, QueueNullEventDeathTest,
    ::testing::Values(
        Misuse{"Put", [](TCQueue& queue) { queue.Put(nullptr, false); }},
        Misuse{"PutSync", [](TCQueue& queue) { queue.PutSync(nullptr, true, true); }},
        Misuse{"GetSync", [](TCQueue& queue) { queue.GetSync(nullptr, 0, false); }},
        Misuse{"Get", [](TCQueue& queue) { queue.Get(nullptr, 0UL); }},
        Misuse{"GetSyncQData", [](TCQueue& queue) { queue.GetSyncQData(nullptr, false); }},
        Misuse{"GetQData", [](TCQueue& queue) { queue.GetQData(nullptr); }},
        Misuse{"GetByReceiver", [](TCQueue& queue) { queue.Get(nullptr, NOBODY); }},
        Misuse{"GetByReceiverAndType", [](TCQueue& queue) { queue.Get(nullptr, NOBODY, 0); }}),
    NameOf);

using QueueMisuseDeathTest = QueueTest;

TEST_F(QueueMisuseDeathTest, SecondCreateAsserts)
{
    EXPECT_ASSERT_DEATH_IN("Queue.cpp", m_queue.Create(), "FlagCreate() == false");
}

TEST_F(QueueMisuseDeathTest, DestructionWithoutDestroyAsserts)
{
    EXPECT_ASSERT_DEATH_IN(
        "Queue.cpp",
        {
            auto queue = std::make_unique<TCQueue>();
            queue->Create();
            queue.reset();
        },
        "FlagCreate() == false");
}

TEST_F(QueueMisuseDeathTest, SecondDestroyAsserts)
{
    m_queue.Destroy();
    EXPECT_ASSERT_DEATH_IN("Queue.cpp", m_queue.Destroy(), "FlagCreate() == true");
}

} // namespace
