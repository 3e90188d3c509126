#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>

#include "Calls.h"
#include "ProgramRun.h"
#include "Reader.h"

namespace {

namespace fs = std::filesystem;

using testing::EndsWith;
using testing::HasSubstr;

/// Where a recording goes, and what becomes of what is there.
class RecordPlaceTest : public testing::Test
{
 protected:
    /// Records @p calls calls, two records each.
    void Record(int calls, const zortest::ProgramRun::Environment& more = {})
    {
        Run({"calls", std::to_string(calls)}, more);
    }

    std::string Run(const std::vector<std::string>& arguments,
                    const zortest::ProgramRun::Environment& more = {})
    {
        zortest::ProgramRun::Environment environment = {{"ZOR_RECORD", path},
                                                        {"ZOR_RECORD_SIZE", "64K"}};
        environment.insert(more.begin(), more.end());
        const zortest::ProgramResult result =
            zortest::RunProgram(RECORDED_PROGRAM, arguments, environment);
        EXPECT_EQ(result.exitCode, 0);
        messages = result.err;
        return result.out;
    }

    static std::size_t RecordsIn(const std::string& file)
    {
        return zorrecord::ReadFile(file).records.size();
    }

    void ExpectRefused(const std::string& why) const
    {
        EXPECT_THAT(messages, EndsWith("ZOR_RECORD: " + why + ": '" + path +
                                       "' cannot be recorded into; no calls are recorded\n"));
        EXPECT_EQ(std::count(messages.begin(), messages.end(), '\n'), 1) << messages;
    }

    zortest::ScratchDirectory directory;
    const std::string path = directory.Path("calls.zor");
    const std::string old = path + ".old";
    std::string messages;
};

TEST_F(RecordPlaceTest, FileIsMadeWithTheFirstRecord)
{
    Record(0);
    EXPECT_EQ(messages, "");
    EXPECT_FALSE(fs::exists(path));
    Record(1);
    EXPECT_EQ(RecordsIn(path), 2U);
    EXPECT_FALSE(fs::exists(old));
}

TEST_F(RecordPlaceTest, ProcessThatRecordsNothingLeavesTheFormerRecording)
{
    Record(3);
    Record(0);
    EXPECT_EQ(messages, "");
    EXPECT_EQ(RecordsIn(path), 6U);
    EXPECT_FALSE(fs::exists(old));
}

TEST_F(RecordPlaceTest, FormerRecordingIsMovedAwayInPlaceOfAnOlderOne)
{
    for (int calls = 1; calls <= 3; ++calls) {
        Record(calls);
        EXPECT_EQ(messages, "");
    }
    EXPECT_EQ(RecordsIn(path), 6U);
    EXPECT_EQ(RecordsIn(old), 4U);
}

TEST_F(RecordPlaceTest, FileThatIsNoRecordingIsLeftAlone)
{
    zortest::WriteText(path, "the only copy of something");
    EXPECT_EQ(Run({"state"}), "off\n");
    ExpectRefused("there is a file that is no recording and would be lost");
    EXPECT_EQ(zortest::ReadText(path), "the only copy of something");
    EXPECT_FALSE(fs::exists(old));
}

TEST_F(RecordPlaceTest, OldFileThatIsNoRecordingIsLeftAlone)
{
    Record(3);
    const std::string why = "a recording is there, and '" + old +
                            "', where it would be moved to, is none and would be lost";
    zortest::WriteText(old, "the only copy of something");
    Record(1);
    ExpectRefused(why);
    EXPECT_EQ(zortest::ReadText(old), "the only copy of something");
    fs::remove(old);
    fs::create_directory(old);
    Record(1);
    ExpectRefused(why);
    fs::remove(old);
    fs::create_symlink(path, old);
    Record(1);
    ExpectRefused(why);
    EXPECT_EQ(RecordsIn(path), 6U);
}

TEST_F(RecordPlaceTest, RelativePathIsFromWhereTheProcessBegan)
{
    const zortest::ProgramResult result = zortest::RunProgram(
        "/bin/sh",
        {"-c", "cd \"$1\" && exec \"$2\" elsewhere", "sh", directory.Path(""), RECORDED_PROGRAM},
        {{"ZOR_RECORD", "calls.zor"}});
    EXPECT_EQ(result.out, "called\n");
    EXPECT_EQ(RecordsIn(path), 2U);
}

TEST_F(RecordPlaceTest, EmptyFilesAreTaken)
{
    zortest::WriteText(path, "");
    Record(1);
    EXPECT_EQ(messages, "");
    EXPECT_FALSE(fs::exists(old));
    zortest::WriteText(old, "");
    Record(2);
    EXPECT_EQ(messages, "");
    EXPECT_EQ(RecordsIn(path), 4U);
    EXPECT_EQ(RecordsIn(old), 2U);
}

TEST_F(RecordPlaceTest, LinkStaysAndWhatItLeadsToIsMoved)
{
    const std::string target = directory.Path("elsewhere");
    fs::create_symlink(target, path);
    Record(1);
    Record(2);
    EXPECT_EQ(messages, "");
    EXPECT_TRUE(fs::is_symlink(path));
    EXPECT_EQ(RecordsIn(target), 4U);
    EXPECT_EQ(RecordsIn(target + ".old"), 2U);
    EXPECT_FALSE(fs::exists(old));
}

TEST_F(RecordPlaceTest, RecordingThatCannotBeMovedStays)
{
    Record(3);
    Record(1, {{"ZOR_TEST_FAULT", "rename"}});
    ExpectRefused("Permission denied: the recording that is there cannot be moved to '" + old +
                  "'");
    EXPECT_EQ(RecordsIn(path), 6U);
    EXPECT_FALSE(fs::exists(old));
}

TEST_F(RecordPlaceTest, FullDiskLeavesTheFormerRecordingUnderItsOldName)
{
    Record(3);
    for (int start = 0; start < 2; ++start) { // however often
        Record(1, {{"ZOR_TEST_FAULT", "fallocate"}});
        ExpectRefused("No space left on device");
        EXPECT_EQ(RecordsIn(old), 6U);
        EXPECT_EQ(fs::file_size(path), 0U);
    }
    Record(1);
    EXPECT_EQ(RecordsIn(path), 2U);
    EXPECT_EQ(RecordsIn(old), 6U);
}

TEST_F(RecordPlaceTest, LockThatCannotBeHadIsSaid)
{
    Record(3);
    Record(1, {{"ZOR_TEST_FAULT", "flock"}});
    ExpectRefused("No locks available");
    EXPECT_EQ(RecordsIn(path), 6U);
}

TEST_F(RecordPlaceTest, NameThatNeverLeadsToTheFileIsGivenUp)
{
    Record(3);
    Record(1, {{"ZOR_TEST_FAULT", "realpath"}});
    ExpectRefused("others keep moving it");
    EXPECT_EQ(RecordsIn(path), 6U);
}

TEST_F(RecordPlaceTest, NameThatCannotBeFollowedIsSaid)
{
    Record(3);
    Record(1, {{"ZOR_TEST_FAULT", "realpath-memory"}});
    ExpectRefused("Cannot allocate memory");
    EXPECT_EQ(RecordsIn(path), 6U);
}

TEST_F(RecordPlaceTest, ForkDoesNotWaitForTheFile)
{
    EXPECT_EQ(Run({"fork-while-making"}, {{"ZOR_TEST_FAULT", "fallocate-hang"}}), "forked\n");
    EXPECT_GE(RecordsIn(path), 4U) << "the parent's";
}

TEST_F(RecordPlaceTest, RefusalIsSaidOnStandardErrorWhereverTheLogGoes)
{
    zortest::WriteText(path, "no recording");
    const std::string log = directory.Path("log");
    for (const std::string& target :
         {"file:" + log, std::string("none"), std::string("stderr:F")}) {
        Record(2, {{"ZOR_DLOG", target}});
        ExpectRefused("there is a file that is no recording and would be lost");
    }
    EXPECT_THAT(zortest::ReadText(log), HasSubstr("ZOR_RECORD: there is a file"));
}

TEST_F(RecordPlaceTest, OfAForkTheOneRecordsThatIsFirst)
{
    const std::string out = Run({"fork-first"});
    EXPECT_EQ(out.substr(0, 4), "off\n");
    ExpectRefused("another process is recording into it");
    const zorrecord::Recording recording = zorrecord::ReadFile(path);
    EXPECT_EQ(recording.session, static_cast<std::uint32_t>(std::stoul(out.substr(4))));
    EXPECT_EQ(recording.records.size(), 2U);
}

TEST_F(RecordPlaceTest, ThreadsThatRecordFirstAtTheSameTimeMakeOneFile)
{
    for (int round = 0; round < 20; ++round) {
        Run({"threads", "1"});
        EXPECT_EQ(messages, "");
        EXPECT_EQ(RecordsIn(path), 8U);
    }
}

} // namespace
