#include "Monitor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <thread>

#include "Debug.h"
#include "TaskFixture.h"
#include "ThreadSeams.h"

namespace {

using tsmon::Outcome;

class MonitorTest : public testing::Test
{
 protected:
    // A task that could not be created is a failed assertion, which a release build survives.
    MonitorTest()
    {
        test::TSCustomAssert::callback = [](const char*, unsigned long) {};
    }
    ~MonitorTest() override { test::TSCustomAssert::callback = nullptr; }

    /// Monitors the sample while the system refuses the thread number @p refused that this thread
    /// asks for.
    Outcome MonitorWithoutThread(int refused)
    {
        int calls = 0;
        const auto self = std::this_thread::get_id();
        const zortest::Takeover takeover(
            zortest::pthreadCreateSeam, [&](pthread_t* handle, const pthread_attr_t* attributes,
                                            zortest::ThreadEntry entry, void* argument) {
                if (std::this_thread::get_id() == self && ++calls == refused) {
                    return EAGAIN;
                }
                return zortest::pthreadCreateSeam.Real(handle, attributes, entry, argument);
            });
        return MonitorSample();
    }

    Outcome MonitorSample()
    {
        tsmon::Options options;
        options.file = TSMON_SAMPLE;
        return tsmon::MonitorFile(options, m_signals);
    }

    made::TaskRuntime m_runtime;
    tsmon::Signals m_signals;
};

TEST_F(MonitorTest, SampleGivesItsServices)
{
    const Outcome outcome = MonitorSample();
    EXPECT_EQ(outcome.failure, "");
    EXPECT_EQ(outcome.counts.packets, 6610U);
    EXPECT_EQ(outcome.table.Services().size(), 3U);
    EXPECT_FALSE(outcome.stopped);
    EXPECT_FALSE(outcome.lacksClock);
}

/// Ends the process, without the checks for what is left: a task that could not be created leaves
/// some of itself behind, by contract.
[[noreturn]] void EndWith(const std::string& text)
{
    std::cerr << text << std::endl;
    _exit(0);
}

TEST_F(MonitorTest, TaskThatCannotBeCreatedIsAFailure)
{
    const testing::ExitedWithCode ended(0);
    EXPECT_EXIT(EndWith(MonitorWithoutThread(1).failure), ended, "no task to keep its services");
    EXPECT_EXIT(EndWith(MonitorWithoutThread(2).failure), ended, "no task to parse it");
    // The parser has three threads: its own and one for each of its queues.
    EXPECT_EXIT(EndWith(MonitorWithoutThread(5).failure), ended, "no task to read it");
}

} // namespace
