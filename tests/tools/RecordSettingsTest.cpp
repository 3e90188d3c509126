#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "HtRecordFormat.h"
#include "ProgramRun.h"
#include "Reader.h"

namespace {

using testing::HasSubstr;

class RecordSettingsTest : public testing::Test
{
 protected:
    /// Runs the program, which makes a call and tells whether that was recorded.
    std::string Run(const zortest::ProgramRun::Environment& environment)
    {
        const zortest::ProgramResult result =
            zortest::RunProgram(RECORDED_PROGRAM, {"state"}, environment);
        EXPECT_EQ(result.exitCode, 0);
        messages = result.err;
        return result.out;
    }

    std::uint64_t RingSizeFor(const std::string& size)
    {
        EXPECT_EQ(Run({{"ZOR_RECORD", path}, {"ZOR_RECORD_SIZE", size}}), "on\n");
        return zorrecord::ReadFile(path).ringSize;
    }

    long Lines() const { return std::count(messages.begin(), messages.end(), '\n'); }

    zortest::ScratchDirectory directory;
    const std::string path = directory.Path("calls.zor");
    std::string messages;
};

TEST_F(RecordSettingsTest, NothingIsRecordedUnlessAskedFor)
{
    EXPECT_EQ(Run({}), "off\n");
    EXPECT_EQ(Run({{"ZOR_RECORD", ""}, {"ZOR_RECORD_SIZE", "nonsense"}}), "off\n");
    EXPECT_EQ(messages, "");
}

TEST_F(RecordSettingsTest, RingHasTheSizeAskedFor)
{
    EXPECT_EQ(RingSizeFor("4096"), 4096U);
    EXPECT_EQ(RingSizeFor("4K"), 4096U);
    EXPECT_EQ(RingSizeFor("12k"), 12288U);
    EXPECT_EQ(RingSizeFor("1m"), 1048576U);
    EXPECT_EQ(RingSizeFor("2M"), 2097152U);
    EXPECT_EQ(messages, "");
    EXPECT_EQ(std::filesystem::file_size(path),
              zorhost::format::HEADER_SIZE + zorhost::format::LOCATIONS_SIZE + 2097152);
}

TEST_F(RecordSettingsTest, SizeIsRoundedUpToWholePages)
{
    EXPECT_EQ(RingSizeFor("4097"), 8192U);
}

TEST_F(RecordSettingsTest, RingHas16MBytesByDefault)
{
    EXPECT_EQ(RingSizeFor(""), 16777216U);
    EXPECT_EQ(messages, "");
}

TEST_F(RecordSettingsTest, BadSizeIsSaidOnceAndTheDefaultTaken)
{
    for (const char* size : {"x", "-1", "4KB", "K", "4 K", "0x4000", "1.5M", "4095", "3K", "65G",
                             "18446744073709551616", "99999999999999999999G", "17179869185G"}) {
        EXPECT_EQ(RingSizeFor(size), 16777216U) << size;
        EXPECT_EQ(Lines(), 1) << messages;
        EXPECT_THAT(messages,
                    HasSubstr("ZOR_RECORD_SIZE: '" + std::string(size) +
                              "' is no size from 4K to 64G (a number, and K, M or G); the record "
                              "keeps the last 16M"));
    }
}

TEST_F(RecordSettingsTest, PathThatCannotBeHadIsSaidOnceAndNothingRecorded)
{
    const std::string missing = directory.Path("missing/calls.zor");
    EXPECT_EQ(Run({{"ZOR_RECORD", missing}}), "off\n");
    EXPECT_EQ(Lines(), 1) << messages;
    EXPECT_THAT(messages, HasSubstr("ZOR_RECORD: No such file or directory: '" + missing +
                                    "' cannot be recorded into; no calls are recorded"));
}

TEST_F(RecordSettingsTest, OnlyARegularFileIsRecordedInto)
{
    const std::string fifo = directory.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(Run({{"ZOR_RECORD", fifo}}), "off\n");
    EXPECT_THAT(messages, HasSubstr("it is no regular file"));
    EXPECT_EQ(Run({{"ZOR_RECORD", directory.Path("")}}), "off\n");
    EXPECT_EQ(Lines(), 1) << messages;
}

TEST_F(RecordSettingsTest, DiskWithoutRoomIsSaidAndNothingRecorded)
{
    const std::string memory = "/dev/shm";
    std::error_code error;
    const std::filesystem::space_info space = std::filesystem::space(memory, error);
    if (error || space.capacity == 0 || space.capacity >= UINT64_C(64) << 30) {
        GTEST_SKIP() << "there is no file system that is too small";
    }
    const std::string file = memory + "/zor-" + std::to_string(getpid());
    EXPECT_EQ(Run({{"ZOR_RECORD", file}, {"ZOR_RECORD_SIZE", "64G"}}), "off\n");
    EXPECT_EQ(Lines(), 1) << messages;
    EXPECT_THAT(messages, HasSubstr("No space left on device: '" + file +
                                    "' cannot be recorded into; no calls are recorded"));
    EXPECT_EQ(std::filesystem::file_size(file, error), 0U); // the room is given back
    std::filesystem::remove(file, error);
}

TEST_F(RecordSettingsTest, OnlyTheOwnerMayReadTheRecord)
{
    RingSizeFor("4K");
    struct stat info = {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0600U);
}

TEST_F(RecordSettingsTest, ProcessIdStandsInThePath)
{
    zortest::ProgramRun run(
        RECORDED_PROGRAM, {"state"},
        {{"ZOR_RECORD", directory.Path("%p-%p.zor")}, {"ZOR_RECORD_SIZE", "4K"}});
    const std::string pid = std::to_string(run.Pid());
    EXPECT_EQ(run.Wait().out, "on\n");
    EXPECT_EQ(std::to_string(zorrecord::ReadFile(directory.Path(pid + "-" + pid + ".zor")).session),
              pid);
}

TEST_F(RecordSettingsTest, SecondProcessDoesNotDisturbTheRecordOfTheFirst)
{
    zortest::ProgramRun first(RECORDED_PROGRAM, {"forever"},
                              {{"ZOR_RECORD", path}, {"ZOR_RECORD_SIZE", "64K"}});
    ASSERT_FALSE(first.ReadLine().empty());
    EXPECT_EQ(Run({{"ZOR_RECORD", path}}), "off\n");
    EXPECT_THAT(messages, HasSubstr("another process is recording into it"));
    const zorrecord::Recording recording = zorrecord::ReadFile(path);
    EXPECT_EQ(recording.session, static_cast<std::uint32_t>(first.Pid()));
    EXPECT_FALSE(recording.records.empty());
}

} // namespace
