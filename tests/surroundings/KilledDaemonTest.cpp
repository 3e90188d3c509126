#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include "HtRecordFormat.h"
#include "PidFile.h"
#include "ProgramRun.h"
#include "Reader.h"
#include "Tool.h"

namespace {

using testing::AnyOf;
using testing::HasSubstr;
using zorrecord::Record;
using zorrecord::Recording;
using zortest::ProgramResult;
using zortest::ProgramRun;

/// Of the monitor: main, the notifier, four tasks with the parser's two threads for its queues, its
/// alarm, and the timers' scheduler. Each may have been in the middle of one record.
constexpr std::uint64_t THREADS = 10;

std::size_t LinesIn(const std::string& text)
{
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

/// A monitor that reads the sample stream, recording all of its calls, and is killed.
class KilledDaemonTest : public testing::Test
{
 protected:
    /// Lets the daemon run until its output has @p text, nothing for its very beginning, and for up
    /// to @p longest from there; then kills it.
    void RunAndKill(const std::string& text, std::chrono::microseconds longest)
    {
        const zortest::PidFileGuard guard;
        std::filesystem::remove(m_path);
        // The log is what tells how far it is; its lines come through standard output.
        ProgramRun daemon(
            "/bin/sh", {"-c", "exec \"$@\" 2>&1", "sh", TSMON_PROGRAM, TSMON_SAMPLE},
            {{"ZOR_RECORD", m_path}, {"ZOR_RECORD_SIZE", "4M"}, {"ZOR_DLOG", "stderr:I"}});
        if (!text.empty()) {
            std::string line;
            do {
                line = daemon.ReadLine();
                ASSERT_NE(line, "") << "it has ended without saying " << text;
            } while (line.find(text) == std::string::npos);
        }
        // Any moment is good: what is expected holds at each.
        const auto most = static_cast<int>(longest.count());
        std::this_thread::sleep_for(
            std::chrono::microseconds(std::uniform_int_distribution<int>(0, most)(m_random)));
        daemon.Kill(SIGKILL);
        // On a busy machine it may have come to its end before, which is a moment like any other.
        const ProgramResult result = daemon.Wait();
        EXPECT_TRUE(result.signal == SIGKILL || result.exitCode == 0) << result.out;
        m_kills += result.signal == SIGKILL ? 1 : 0;
    }

    ProgramResult Print() const { return zortest::RunProgram(RECORD_TOOL, {"print", m_path}); }

    /// Reads the record as it was left, and again with the tool.
    void ExpectWhole(Recording* recording) const
    {
        *recording = zorrecord::ReadFile(m_path);
        EXPECT_FALSE(recording->cut);
        EXPECT_LE(recording->gaps, THREADS);
        const ProgramResult printed = Print();
        EXPECT_EQ(printed.exitCode, 0);
        EXPECT_GE(LinesIn(printed.out), recording->records.size());
        if (recording->gaps == 0) {
            EXPECT_EQ(printed.err, "");
        } else {
            EXPECT_THAT(printed.err, HasSubstr("records that were under way when the process"));
        }
    }

    /// Cuts the record off somewhere and expects all that is in front of the cut to be read.
    void ExpectAllInFrontOfACut(const Recording& whole)
    {
        namespace format = zorhost::format;
        constexpr std::uint64_t RING = format::HEADER_SIZE + format::LOCATIONS_SIZE;
        ASSERT_EQ(whole.overwrittenBytes, 0U) << "the ring has not come round";
        ASSERT_FALSE(whole.records.empty());
        const std::uint64_t used = whole.records.back().offset + whole.records.back().size;
        const std::uint64_t size =
            RING + std::uniform_int_distribution<std::uint64_t>(0, used)(m_random);
        const auto inFront = std::count_if(
            whole.records.begin(), whole.records.end(),
            [&](const Record& record) { return RING + record.offset + record.size <= size; });
        std::filesystem::resize_file(m_path, size);
        const ProgramResult printed = Print();
        EXPECT_EQ(printed.exitCode, zorrecord::EXIT_CUT);
        EXPECT_EQ(printed.err, "zor-record: " + m_path + " ends after " + std::to_string(inFront) +
                                   (inFront == 1 ? " record" : " records") +
                                   "; the file is cut after " + std::to_string(size) + " of " +
                                   std::to_string(whole.wholeSize) + " bytes\n");
    }

    const unsigned int m_seed = std::random_device()();
    std::mt19937 m_random{m_seed};
    zortest::ScratchDirectory m_directory;
    const std::string m_path = m_directory.Path("calls.zor");
    int m_kills = 0;
};

TEST_F(KilledDaemonTest, RecordIsReadableWheneverItIsKilledAtWork)
{
    SCOPED_TRACE("seed " + std::to_string(m_seed));
    for (int round = 0; round < 60; ++round) {
        ASSERT_NO_FATAL_FAILURE(RunAndKill("PMT version 0", std::chrono::milliseconds(15)));
        Recording recording;
        ExpectWhole(&recording);
        EXPECT_FALSE(recording.locations.empty());
        ASSERT_NO_FATAL_FAILURE(ExpectAllInFrontOfACut(recording));
    }
    EXPECT_GT(m_kills, 0);
}

TEST_F(KilledDaemonTest, RecordIsReadableOrSaidNotToBeThereWheneverItIsKilledAtItsStart)
{
    SCOPED_TRACE("seed " + std::to_string(m_seed));
    for (int round = 0; round < 40; ++round) {
        ASSERT_NO_FATAL_FAILURE(RunAndKill("", std::chrono::milliseconds(30)));
        const ProgramResult printed = Print();
        if (printed.exitCode == 0) {
            Recording recording;
            ExpectWhole(&recording);
            continue;
        }
        // The kill came before the first record, or before the header was written.
        EXPECT_EQ(printed.out, "");
        if (printed.exitCode == 2) { // or in the middle of it
            EXPECT_THAT(printed.err, HasSubstr(m_path + " ends after 0 records; the file is cut"));
            continue;
        }
        EXPECT_EQ(printed.exitCode, 1);
        EXPECT_THAT(printed.err, AnyOf(HasSubstr(m_path + ": No such file or directory; "),
                                       HasSubstr(m_path + ": the file is empty\n"),
                                       HasSubstr(m_path + ": this is no record of calls\n"),
                                       HasSubstr(m_path + ": no call is recorded: "),
                                       HasSubstr(m_path + ": the header is damaged\n")));
    }
}

} // namespace
