#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "Calls.h"
#include "ProgramRun.h"
#include "Reader.h"
#include "Wait.h"

namespace {

using zorrecord::Call;
using zorrecord::Recording;

class RecordCrashTest : public testing::Test
{
 protected:
    /// Lets the program call until it has told of @p lines lots of calls, and kills it there.
    /// @return the number of the last call that it told of
    std::uint32_t KillAfter(int lines, const std::string& size)
    {
        zortest::ProgramRun run(RECORDED_PROGRAM, {"forever"},
                                {{"ZOR_RECORD", path}, {"ZOR_RECORD_SIZE", size}});
        std::string last;
        for (int i = 0; i < lines; ++i) {
            last = run.ReadLine();
        }
        run.Kill(SIGKILL);
        EXPECT_EQ(run.Wait().signal, SIGKILL);
        EXPECT_FALSE(last.empty());
        return static_cast<std::uint32_t>(std::stoul(last));
    }

    zortest::ScratchDirectory directory;
    const std::string path = directory.Path("calls.zor");
};

TEST_F(RecordCrashTest, RecordsOfAKilledProcessAreThere)
{
    const std::uint32_t told = KillAfter(3, "1M");
    const Recording recording = zorrecord::ReadFile(path);
    EXPECT_FALSE(recording.cut);
    EXPECT_LE(recording.gaps, 1U); // what was being written
    EXPECT_EQ(recording.locations.size(), 1U);
    const std::vector<Call> calls = zorrecord::CallsOf(recording);
    ASSERT_FALSE(calls.empty());
    EXPECT_GE(calls.back().event->param1, told);
    const std::uint32_t first = calls.front().event->param1;
    EXPECT_EQ(first == 0, recording.overwrittenBytes == 0);
    for (std::uint32_t i = 0; i < calls.size(); ++i) {
        ASSERT_EQ(calls[i].event->param1, first + i);
        ASSERT_EQ(calls[i].event->param6, ~std::uint64_t{first + i});
    }
}

TEST_F(RecordCrashTest, LatestRecordsOfAKilledProcessAreThereInASmallRing)
{
    for (int round = 1; round <= 5; ++round) {
        const std::uint32_t told = KillAfter(round * 10, "8K");
        const Recording recording = zorrecord::ReadFile(path);
        EXPECT_LE(recording.gaps, 1U);
        EXPECT_EQ(recording.locations.size(), 1U);
        const std::vector<Call> calls = zorrecord::CallsOf(recording);
        ASSERT_GE(calls.size(), 15U);
        EXPECT_GE(calls.back().event->param1, told);
        for (std::size_t i = 1; i < calls.size(); ++i) {
            EXPECT_EQ(calls[i].event->param1, calls[i - 1].event->param1 + 1);
        }
    }
}

TEST_F(RecordCrashTest, FileCanBeReadWhileItIsWritten)
{
    zortest::ProgramRun run(RECORDED_PROGRAM, {"forever"},
                            {{"ZOR_RECORD", path}, {"ZOR_RECORD_SIZE", "64K"}});
    for (int i = 0; i < 20; ++i) {
        const auto told = static_cast<std::uint32_t>(std::stoul(run.ReadLine()));
        // A reader that is held up in the middle of the file may find next to nothing.
        EXPECT_TRUE(zortest::Eventually([&] {
            const Recording recording = zorrecord::ReadFile(path);
            const std::vector<Call> calls = zorrecord::CallsOf(recording);
            return !calls.empty() && calls.back().event->param1 >= told;
        }));
    }
}

} // namespace
