#include "Monitor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <iostream>
#include <sstream>
#include <thread>

#include "Debug.h"
#include "Pipe.h"
#include "TaskFixture.h"
#include "ThreadSeams.h"

namespace {

using made::Bytes;
using tsmon::Outcome;
using zortest::Eventually;

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
        return Monitor(options);
    }

    Outcome Monitor(const tsmon::Options& options)
    {
        return tsmon::MonitorFile(options, m_signals, m_tables, m_noProgress);
    }

    made::TaskRuntime m_runtime;
    made::TempDirectory m_directory;
    tsmon::Signals m_signals;
    std::ostringstream m_tables;
    tsmon::ProgressLine m_noProgress{-1};
};

TEST_F(MonitorTest, SampleGivesItsServices)
{
    const Outcome outcome = MonitorSample();
    EXPECT_EQ(outcome.failure, "");
    EXPECT_EQ(outcome.counts.packets, 6610U);
    EXPECT_EQ(outcome.table.Services().size(), 3U);
    EXPECT_FALSE(outcome.stopped);
    EXPECT_FALSE(outcome.lacksClock);
    EXPECT_EQ(m_tables.str(), "") << "nobody has asked for tables on the way";
}

TEST_F(MonitorTest, SampleGivesItsRatesAndNoContinuityErrors)
{
    const Outcome outcome = MonitorSample();
    EXPECT_EQ(outcome.statistics.time, std::chrono::milliseconds(9920));
    const tsmon::Figures all = FiguresOfAll(outcome.statistics);
    EXPECT_EQ(all.packets, 6610U);
    EXPECT_EQ(all.continuityErrors, 0U);
    ASSERT_TRUE(all.bitRate.has_value());
    EXPECT_NEAR(*all.bitRate, 1242680 * 8 / 9.96, 10000) << "all of it in about ten seconds";
    EXPECT_EQ(outcome.inputLosses, 0U);
}

TEST_F(MonitorTest, PacketLostFromTheSampleIsAContinuityErrorOfItsPid)
{
    Bytes stream = made::ReadFile(TSMON_SAMPLE);
    std::size_t packet = 3000;
    while (tsmon::PidOf(&stream[packet * tsmon::PACKET_SIZE]) != 0x102) {
        ++packet;
    }
    const auto first = stream.begin() + static_cast<std::ptrdiff_t>(packet * tsmon::PACKET_SIZE);
    stream.erase(first, first + tsmon::PACKET_SIZE);
    tsmon::Options options;
    options.file = m_directory.Write("gap.ts", stream);
    const Outcome outcome = Monitor(options);
    EXPECT_EQ(FiguresOfAll(outcome.statistics).continuityErrors, 1U);
    EXPECT_EQ(FiguresOf(outcome.statistics, std::uint16_t{0x102}).continuityErrors, 1U);
}

/// Collects what is written, and counts the tables in it, for any thread.
class TableCounter : public std::streambuf
{
 public:
    int Tables() const { return m_tables; }

 protected:
    int_type overflow(int_type character) override
    {
        m_line.push_back(static_cast<char>(character));
        if (character == '\n') {
            m_tables += m_line.rfind("SERVICE ", 0) == 0 ? 1 : 0;
            m_line.clear();
        }
        return character;
    }

 private:
    std::string m_line; ///< the writing thread's only
    std::atomic<int> m_tables{0};
};

TEST_F(MonitorTest, EveryRepeatsTheTableUntilTheEnd)
{
    const std::string path = m_directory.Path("pipe");
    made::Pipe pipe(path);
    tsmon::Options options;
    options.file = path;
    options.every = std::chrono::seconds(1);
    TableCounter counter;
    std::ostream tables(&counter);
    std::thread writer([&] {
        EXPECT_TRUE(Eventually([&] { return counter.Tables() >= 2; }));
        pipe.Close(); // and with it the pipe has an end
    });
    tsmon::MonitorFile(options, m_signals, tables, m_noProgress);
    writer.join();
    EXPECT_GE(counter.Tables(), 2);
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
