#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Calls.h"
#include "Flows.h"
#include "HtRecordFormat.h"
#include "Page.h"
#include "PageData.h"
#include "Path.h"
#include "ProgramRun.h"
#include "Reader.h"
#include "Summary.h"
#include "TaskNames.h"
#include "TextPrint.h"
#include "Tool.h"
#include "Top.h"
#include "TraceExport.h"

namespace {

namespace format = zorhost::format;
using zorrecord::FormatError;
using zorrecord::Record;
using zorrecord::Recording;

Recording ReadBytes(const std::string& bytes, std::size_t size)
{
    // A copy of its own, so that a sanitizer sees a read behind the end.
    const std::unique_ptr<unsigned char[]> copy(new unsigned char[size]);
    memcpy(copy.get(), bytes.data(), size);
    return zorrecord::Read(copy.get(), size);
}

class RecordCutTest : public testing::Test
{
 protected:
    /// A recording of so many calls in a ring of 4 KiB.
    std::string Record(int calls)
    {
        const std::string path = directory.Path("calls.zor");
        const auto result = zortest::RunProgram(RECORDED_PROGRAM, {"calls", std::to_string(calls)},
                                                {{"ZOR_RECORD", path}, {"ZOR_RECORD_SIZE", "4K"}});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        std::string bytes = zortest::ReadText(path);
        EXPECT_EQ(bytes.size(), format::HEADER_SIZE + format::LOCATIONS_SIZE + 4096);
        return bytes;
    }

    /// Cuts @p bytes everywhere and checks that what remains is found, and nothing else.
    void CutEverywhere(const std::string& bytes)
    {
        const Recording whole = ReadBytes(bytes, bytes.size());
        std::set<std::uint64_t> offsets;
        for (const zorrecord::Record& record : whole.records) {
            offsets.insert(record.offset);
        }
        std::size_t before = 0;
        for (std::size_t size = 1; size < bytes.size(); ++size) {
            const Recording cut = ReadBytes(bytes, size);
            ASSERT_TRUE(cut.cut) << size;
            ASSERT_EQ(cut.fileSize, size);
            ASSERT_GE(cut.records.size(), before) << size;
            ASSERT_EQ(cut.records.size(), RecordsBelow(whole, size)) << size;
            for (const zorrecord::Record& record : cut.records) {
                ASSERT_EQ(offsets.count(record.offset), 1U) << size;
            }
            before = cut.records.size();
        }
    }

    /// How many records of @p whole lie within the first @p size bytes.
    static std::size_t RecordsBelow(const Recording& whole, std::size_t size)
    {
        const std::uint64_t ring = format::HEADER_SIZE + format::LOCATIONS_SIZE;
        std::size_t count = 0;
        for (const zorrecord::Record& record : whole.records) {
            const std::uint64_t begin = record.offset % whole.ringSize;
            const std::uint64_t end = std::min(begin + record.size, whole.ringSize);
            count += ring + end <= size ? 1 : 0;
        }
        return count;
    }

    zortest::ScratchDirectory directory;
};

TEST_F(RecordCutTest, FileCutAtAnyByteIsReadUpToTheCut)
{
    CutEverywhere(Record(8));
}

TEST_F(RecordCutTest, FileWithATurnedRingCutAtAnyByteIsReadUpToTheCut)
{
    CutEverywhere(Record(31));
}

TEST_F(RecordCutTest, EmptyFileIsRefused)
{
    EXPECT_THROW(zorrecord::Read(nullptr, 0), FormatError);
}

TEST_F(RecordCutTest, OtherFilesAreRefused)
{
    const std::string text = "#!/bin/sh\necho no record of calls\n";
    for (std::size_t size = 1; size <= text.size(); ++size) {
        EXPECT_THROW(ReadBytes(text, size), FormatError);
    }
}

TEST_F(RecordCutTest, OtherVersionIsRefused)
{
    std::string bytes = Record(1);
    bytes[offsetof(format::TSFileHeader, version)] = 2;
    try {
        ReadBytes(bytes, bytes.size());
        FAIL();
    } catch (const FormatError& error) {
        EXPECT_STREQ(error.what(),
                     "the record has version 2 of the format; this program reads version 1");
    }
}

TEST_F(RecordCutTest, FileThatWasOnlyBegunIsSaidToHaveNothing)
{
    std::string bytes = Record(1);
    for (std::size_t i = sizeof(format::FILE_MAGIC); i < bytes.size(); ++i) {
        bytes[i] = 0;
    }
    try {
        ReadBytes(bytes, bytes.size());
        FAIL();
    } catch (const FormatError& error) {
        EXPECT_STREQ(error.what(), "no call is recorded: the process ended while it made the file");
    }
}

TEST_F(RecordCutTest, DamagedHeaderIsRefused)
{
    std::string bytes = Record(1);
    bytes[offsetof(format::TSFileHeader, ringSize)] ^= 1;
    EXPECT_THROW(ReadBytes(bytes, bytes.size()), FormatError);
}

TEST_F(RecordCutTest, DamagedNumbersOfTheWriterDoNotMatter)
{
    std::string bytes = Record(8);
    memset(&bytes[offsetof(format::TSFileHeader, locationCount)], 0xFF, 24);
    const Recording recording = ReadBytes(bytes, bytes.size());
    EXPECT_EQ(recording.records.size(), 16U);
    EXPECT_EQ(recording.locations.size(), 1U);
    EXPECT_EQ(recording.gaps, 0U);
}

TEST_F(RecordCutTest, DamagedRecordIsAGap)
{
    std::string bytes = Record(8);
    const Recording whole = ReadBytes(bytes, bytes.size());
    ASSERT_EQ(whole.records.size(), 16U);
    const zorrecord::Record& victim = whole.records[5];
    bytes[format::HEADER_SIZE + format::LOCATIONS_SIZE + victim.offset + victim.size / 2] ^= 1;
    const Recording recording = ReadBytes(bytes, bytes.size());
    EXPECT_EQ(recording.records.size(), 15U);
    EXPECT_EQ(recording.gaps, 1U);
    EXPECT_EQ(recording.gapBytes, victim.size);
}

TEST_F(RecordCutTest, RecordCountsOnlyWhereItBelongs)
{
    std::string bytes = Record(4);
    const Recording whole = ReadBytes(bytes, bytes.size());
    ASSERT_EQ(whole.records.size(), 8U);
    const std::size_t ring = format::HEADER_SIZE + format::LOCATIONS_SIZE;
    const std::size_t unused = whole.records.back().offset + whole.records.back().size;
    bytes.replace(ring + unused, whole.records[0].size, bytes, ring, whole.records[0].size);
    EXPECT_EQ(ReadBytes(bytes, bytes.size()).records.size(), 8U);
}

TEST_F(RecordCutTest, RecordThatAWholeTurnShouldHaveOverwrittenIsDropped)
{
    const std::string former = Record(8);
    const Recording first = ReadBytes(former, former.size());
    std::string bytes = Record(31);
    const Recording whole = ReadBytes(bytes, bytes.size());
    const zorrecord::Record& old = first.records[2];
    ASSERT_LT(old.offset, whole.overwrittenBytes);
    const std::size_t at = format::HEADER_SIZE + format::LOCATIONS_SIZE + old.offset;
    bytes.replace(at, old.size, former, at, old.size);
    const Recording recording = ReadBytes(bytes, bytes.size());
    EXPECT_LT(recording.records.size(), whole.records.size());
    EXPECT_EQ(recording.gaps, 1U);
    for (const zorrecord::Record& record : recording.records) {
        EXPECT_GE(record.offset, whole.overwrittenBytes);
    }
}

TEST_F(RecordCutTest, ReservedSpaceThatWasNeverWrittenIsAGap)
{
    std::string bytes = Record(3);
    std::uint64_t used = 0;
    const std::size_t at = offsetof(format::TSFileHeader, ringUsed);
    memcpy(&used, &bytes[at], sizeof(used));
    used += 200;
    memcpy(&bytes[at], &used, sizeof(used));
    const Recording recording = ReadBytes(bytes, bytes.size());
    EXPECT_EQ(recording.records.size(), 6U);
    EXPECT_EQ(recording.gaps, 1U);
    EXPECT_EQ(recording.gapBytes, 200U);
}

TEST_F(RecordCutTest, RecordsOfALostLocationAreStillRead)
{
    std::string bytes = Record(4);
    bytes[format::HEADER_SIZE + sizeof(format::TSLocationHeader)] ^= 1;
    const Recording recording = ReadBytes(bytes, bytes.size());
    EXPECT_TRUE(recording.locations.empty());
    EXPECT_EQ(recording.records.size(), 8U);
    EXPECT_EQ(recording.LocationOf(recording.records[0]), nullptr);
    std::ostringstream text;
    zorrecord::PrintRecords(recording, zorrecord::TaskNames({}), {}, false, text);
    EXPECT_NE(text.str().find("location 1 "), std::string::npos);
}

TEST_F(RecordCutTest, NoDamageIsTooMuch)
{
    const std::string whole = Record(31);
    const Recording original = ReadBytes(whole, whole.size());
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 300; ++round) {
        std::string bytes = whole;
        const int flips = std::uniform_int_distribution<int>(1, 100)(random);
        for (int i = 0; i < flips; ++i) {
            // Behind the fixed part of the header, of which any change is told at once.
            const std::size_t at = std::uniform_int_distribution<std::size_t>(
                offsetof(format::TSFileHeader, locationCount), bytes.size() - 1)(random);
            bytes[at] = static_cast<char>(random());
        }
        const Recording recording = ReadBytes(bytes, bytes.size());
        EXPECT_LE(recording.records.size(), original.records.size());
        std::ostringstream out;
        const zorrecord::TaskNames names(zorrecord::CallsOf(recording));
        zorrecord::PrintRecords(recording, names, {}, true, out);
        zorrecord::ExportTrace(recording, names, {}, out);
        zorrecord::PrintTop(recording, {}, true, out);
        if (zorrecord::LongestCall(recording, zorrecord::CallsOf(recording), {}) !=
            zorrecord::Call::NONE) {
            zorrecord::PrintPath(recording, {}, {}, true, out);
        }
        zorrecord::PrintPage(zorrecord::PageData(recording, {}, {}), out);
        zorrecord::PrintSummary(recording, out);
        EXPECT_FALSE(out.str().empty());
    }
}

TEST_F(RecordCutTest, ToolTellsOfTheCut)
{
    const std::string bytes = Record(8);
    const std::size_t size = format::HEADER_SIZE + format::LOCATIONS_SIZE + 1000;
    const std::string path = directory.Path("cut.zor");
    zortest::WriteText(path, bytes.substr(0, size));
    const std::size_t records = ReadBytes(bytes, size).records.size();
    EXPECT_GT(records, 3U);
    for (const char* command : {"print", "info", "export"}) {
        const char* const argv[] = {"zor-record", command, path.c_str()};
        std::ostringstream out;
        std::ostringstream err;
        EXPECT_EQ(zorrecord::RunTool(3, argv, out, err), zorrecord::EXIT_CUT);
        EXPECT_EQ(err.str(), "zor-record: " + path + " ends after " + std::to_string(records) +
                                 " records; the file is cut after " + std::to_string(size) +
                                 " of " + std::to_string(bytes.size()) + " bytes\n");
        EXPECT_FALSE(out.str().empty());
    }
}

} // namespace
