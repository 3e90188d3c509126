#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "Debug.h"
#include "ZorServiceDebugOverlay.h"
#include "dlog.h"
#include "zor/testing/Testing.h"

/// A test program that fails in every way there is. What it prints is compared.

namespace {

using zor::testing::Eventually;
using zor::testing::RecordingTask;

TEST(Failing, Assertion)
{
    TCASSERT(1 + 1 == 3);
}

TEST(Failing, AssertionOnAnotherThread)
{
    std::thread([] {
        pthread_setname_np(pthread_self(), "Meter");
        TCASSERT(2 + 2 == 5);
    }).join();
}

TEST(Failing, AssertionInATask)
{
    RecordingTask task;
    task.answer = [](const TSEvent* event) {
        TCASSERT(event->param1 == 1);
        return true;
    };
    ASSERT_TRUE(task.Start("Asserter"));
    TSEvent event;
    event.receiver = &task;
    event.type = TCTask::EVENT_USER;
    event.param1 = 2;
    TCTask::Send(&event, true, false);
}

TEST(Failing, ExpectedAssertion)
{
    EXPECT_ZOR_ASSERT(static_cast<void>(0), "3 + 3 == 7");
}

TEST(Failing, Waiting)
{
    int looks = 0;
    EXPECT_TRUE(
        Eventually([&] { return ::testing::AssertionResult(++looks < 0) << "a box with 3 events"; },
                   std::chrono::milliseconds(10)));
}

TEST(Failing, LogIsShown)
{
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, "METER", "strength %d", 61);
    FAIL();
}

TEST(Passing, LogIsNotShown)
{
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, "METER", "strength %d", 62);
}

TEST(Leaving, TaskBehind)
{
    auto* const task = new RecordingTask;
    ASSERT_TRUE(task->Start("Left"));
}

TEST(Skipped, ThisOne)
{
    GTEST_SKIP();
}

/// Asserts when all tests are over.
class LateAssertion : public ::testing::Environment
{
    void TearDown() override { TCASSERT(getenv("ASSERT_LATE") == nullptr); }
};

const ::testing::Environment* const g_late = ::testing::AddGlobalTestEnvironment(new LateAssertion);

} // namespace
