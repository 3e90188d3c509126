#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Calls.h"
#include "EventFields.h"
#include "HtRecordFormat.h"
#include "ProgramRun.h"
#include "Reader.h"

namespace {

using zorrecord::Call;
using zorrecord::CallsOf;
using zorrecord::EventFields;
using zorrecord::Location;
using zorrecord::Record;
using zorrecord::Recording;
using zorrecord::Shape;

class RecordFileTest : public testing::Test
{
 protected:
    /// Runs the recorded program and reads what it recorded.
    Recording Run(const std::vector<std::string>& arguments, const std::string& size = "1M")
    {
        result = zortest::RunProgram(RECORDED_PROGRAM, arguments,
                                     {{"ZOR_RECORD", path}, {"ZOR_RECORD_SIZE", size}});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return zorrecord::ReadFile(path);
    }

    /// The address of a handler, as the program printed it.
    std::uint64_t AddressOf(const std::string& handler) const
    {
        std::istringstream lines(result.out);
        std::string name;
        std::string address;
        while (lines >> name >> address) {
            if (name == handler) {
                return std::stoull(address, nullptr, 16);
            }
        }
        ADD_FAILURE() << handler << " is not in " << result.out;
        return 0;
    }

    zortest::ScratchDirectory directory;
    const std::string path = directory.Path("calls.zor");
    zortest::ProgramResult result;
};

/// The calls of one shape whose event has this type.
std::vector<Call> Find(const std::vector<Call>& calls, Shape shape, std::uint64_t type)
{
    std::vector<Call> found;
    for (const Call& call : calls) {
        if (call.shape == shape && call.event && call.event->type == type) {
            found.push_back(call);
        }
    }
    return found;
}

const Location* FindLocation(const Recording& recording, int line)
{
    for (const auto& [id, location] : recording.locations) {
        if (location.line == line) {
            return &location;
        }
    }
    return nullptr;
}

std::vector<std::string> TypesOf(const Location& location)
{
    std::vector<std::string> types;
    for (const zorrecord::Argument& argument : location.arguments) {
        EXPECT_TRUE(argument.input);
        types.push_back(argument.type);
    }
    return types;
}

TEST_F(RecordFileTest, LocationsAreStoredOnceWithTheirTypes)
{
    const Recording recording = Run({"tasks"});
    EXPECT_EQ(recording.locations.size(), 2U);
    const Location* const send = FindLocation(recording, 168);
    ASSERT_NE(send, nullptr);
    EXPECT_EQ(send->function, "static bool TCTask::Send(TSEvent*, bool, bool)");
    EXPECT_EQ(send->file, "src/Task.cpp");
    EXPECT_EQ(send->resultType, "bool");
    EXPECT_EQ(TypesOf(*send), (std::vector<std::string>{"TSEvent", "bool", "bool"}));
    const Location* const handling = FindLocation(recording, 102);
    ASSERT_NE(handling, nullptr);
    EXPECT_EQ(handling->function, "bool TCHandler::OnEvent(const TSEvent*)");
    EXPECT_EQ(handling->file, "inc/Task.h");
    EXPECT_EQ(TypesOf(*handling), (std::vector<std::string>{"TSEvent"}));
}

TEST_F(RecordFileTest, SendHasTheCallersEvent)
{
    const Recording recording = Run({"tasks"});
    const std::vector<Call> sends = Find(CallsOf(recording), Shape::SEND, 100);
    ASSERT_EQ(sends.size(), 3U);
    for (std::uint32_t i = 0; i < 3; ++i) {
        const EventFields& event = *sends[i].event;
        EXPECT_EQ(event.receiver, AddressOf("first"));
        EXPECT_EQ(event.sync, 0U);
        EXPECT_EQ(event.sender, 0U);
        EXPECT_EQ(event.param1, i + 1);
        EXPECT_EQ(event.param2, 22U);
        EXPECT_EQ(event.param3, 33U);
        EXPECT_EQ(event.param4, 44U);
        EXPECT_EQ(event.param5, 55U);
        EXPECT_EQ(event.param6, 66U);
        EXPECT_TRUE(event.flag);
        EXPECT_EQ(event.appName, "");
        EXPECT_NE(event.wrappedData, 0U);
        EXPECT_FALSE(sends[i].sync);
        EXPECT_FALSE(sends[i].priority);
        EXPECT_EQ(sends[i].result, true);
        EXPECT_EQ(sends[i].record->items.size(), 3U);
    }
}

TEST_F(RecordFileTest, HandlingHasTheStampedEvent)
{
    const Recording recording = Run({"tasks"});
    const std::vector<Call> calls = CallsOf(recording);
    const std::vector<Call> handled = Find(calls, Shape::HANDLING, 100);
    const std::vector<Call> sent = Find(calls, Shape::SEND, 100);
    ASSERT_EQ(handled.size(), 3U);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(handled[i].event->param1, i + 1);
        EXPECT_EQ(handled[i].event->sender, sent[i].record->threadHandle);
        EXPECT_EQ(handled[i].event->appName, "tuner");
        EXPECT_EQ(handled[i].event->appFlag, 7);
        EXPECT_EQ(handled[i].event->wrappedData, sent[i].event->wrappedData);
        EXPECT_EQ(handled[i].result, true);
        EXPECT_EQ(handled[i].record->threadName, "alpha");
        EXPECT_GE(handled[i].beginNsec, sent[i].beginNsec);
    }
    const std::vector<Call> last = Find(calls, Shape::HANDLING, 201);
    ASSERT_EQ(last.size(), 1U);
    EXPECT_EQ(last[0].record->threadName, "beta");
    EXPECT_EQ(last[0].event->receiver, AddressOf("last"));
    EXPECT_EQ(last[0].result, false);
}

TEST_F(RecordFileTest, FlagsAreRecorded)
{
    const Recording recording = Run({"tasks"});
    const std::vector<Call> calls = CallsOf(recording);
    const std::vector<Call> synchronous = Find(calls, Shape::SEND, 200);
    ASSERT_EQ(synchronous.size(), 1U);
    EXPECT_TRUE(synchronous[0].sync);
    EXPECT_FALSE(synchronous[0].priority);
    const std::vector<Call> urgent = Find(calls, Shape::SEND, 400);
    ASSERT_EQ(urgent.size(), 2U);
    EXPECT_FALSE(urgent[0].sync);
    EXPECT_TRUE(urgent[0].priority);
}

TEST_F(RecordFileTest, SynchronousSendSpansItsHandling)
{
    const Recording recording = Run({"tasks"});
    const std::vector<Call> calls = CallsOf(recording);
    const Call outer = Find(calls, Shape::SEND, 200).at(0);
    const Call handling = Find(calls, Shape::HANDLING, 200).at(0);
    const Call inner = Find(calls, Shape::SEND, 201).at(0);
    EXPECT_LE(outer.beginNsec, handling.beginNsec);
    EXPECT_LE(handling.endNsec, outer.endNsec);
    EXPECT_EQ(inner.record->thread, handling.record->thread);
    ASSERT_LT(inner.caller, calls.size());
    EXPECT_EQ(calls[inner.caller].record, handling.record);
}

TEST_F(RecordFileTest, EveryRecordIsStamped)
{
    const Recording recording = Run({"tasks"});
    ASSERT_FALSE(recording.records.empty());
    std::uint64_t offset = 0;
    for (const Record& record : recording.records) {
        EXPECT_EQ(record.session, recording.session);
        EXPECT_GE(record.timeNsec, recording.startMonotonicNsec);
        EXPECT_NE(record.thread, 0U);
        EXPECT_FALSE(record.threadName.empty());
        EXPECT_FALSE(record.truncated);
        EXPECT_EQ(record.offset, offset);
        offset += record.size;
    }
    EXPECT_EQ(recording.process, "zor-recorded-pr"); // cut to what the kernel keeps
    EXPECT_EQ(recording.gaps, 0U);
    EXPECT_EQ(recording.overwrittenBytes, 0U);
    EXPECT_FALSE(recording.cut);
}

TEST_F(RecordFileTest, EveryCallHasResultAndCpuTime)
{
    const Recording recording = Run({"tasks"});
    const std::vector<Call> calls = CallsOf(recording);
    EXPECT_EQ(calls.size() * 2, recording.records.size());
    for (const Call& call : calls) {
        EXPECT_TRUE(call.finished);
        EXPECT_TRUE(call.result.has_value());
        ASSERT_TRUE(call.cpuNsec.has_value());
        EXPECT_LE(*call.cpuNsec, 10000000000U);
    }
}

TEST_F(RecordFileTest, RingKeepsTheLatestRecords)
{
    const Recording all = Run({"calls", "50"});
    ASSERT_EQ(all.records.size(), 100U);
    const Recording recording = Run({"calls", "50"}, "4K");
    EXPECT_EQ(recording.ringSize, 4096U);
    EXPECT_EQ(recording.gaps, 0U);
    const Record& last = recording.records.back();
    const std::uint64_t end = last.offset + last.size;
    EXPECT_EQ(end, all.records.back().offset + all.records.back().size);
    EXPECT_EQ(recording.overwrittenBytes, end - 4096);
    // Nothing but the rest of the record that was being overwritten is missing.
    const std::uint64_t kept = end - recording.records.front().offset;
    EXPECT_LE(kept, 4096U);
    EXPECT_GT(kept, 4096U - 256);
    EXPECT_EQ(recording.locations.size(), 1U);
    const std::vector<Call> calls = CallsOf(recording);
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].event->param1, 50 - calls.size() + i);
    }
    EXPECT_GE(calls.size(), 10U);
}

TEST_F(RecordFileTest, EverySizeOfTheRingIsKept)
{
    // A ring of a size that no record divides: records run over its end.
    for (int calls = 1; calls < 60; calls += 7) {
        const Recording recording = Run({"calls", std::to_string(calls)}, "4K");
        EXPECT_EQ(recording.gaps, 0U) << calls;
        EXPECT_EQ(CallsOf(recording).back().event->param1, static_cast<std::uint32_t>(calls - 1));
    }
}

TEST_F(RecordFileTest, ThreadsRecordAtTheSameTime)
{
    constexpr std::uint32_t CALLS = 2000;
    const Recording recording = Run({"threads", std::to_string(CALLS)}, "4M");
    EXPECT_EQ(recording.gaps, 0U);
    EXPECT_EQ(recording.locations.size(), 1U);
    ASSERT_EQ(recording.records.size(), 4U * CALLS * 2);
    std::map<std::uint32_t, std::uint32_t> next;
    for (const Call& call : CallsOf(recording)) {
        const EventFields& event = *call.event;
        EXPECT_EQ(call.record->threadName, "caller-" + std::to_string(event.param2));
        EXPECT_EQ(event.param1, next[event.param2]++);
        EXPECT_EQ(event.param6, ~std::uint64_t{event.param1});
        EXPECT_EQ(call.sync, event.param1 % 2 != 0);
        EXPECT_EQ(call.priority, event.param1 % 3 == 0);
        EXPECT_EQ(call.result, event.param1 % 5 == 0);
    }
    EXPECT_EQ(next.size(), 4U);
}

TEST_F(RecordFileTest, ThreadsMayOvertakeEachOtherInASmallRing)
{
    const Recording recording = Run({"threads", "5000"}, "4K");
    EXPECT_FALSE(recording.records.empty());
    for (const Call& call : CallsOf(recording)) {
        ASSERT_TRUE(call.event.has_value());
        EXPECT_EQ(call.event->param6, ~std::uint64_t{call.event->param1});
        EXPECT_EQ(call.sync, call.event->param1 % 2 != 0);
    }
}

TEST_F(RecordFileTest, ChildOfAForkGoesOnUnderItsOwnSession)
{
    const Recording recording = Run({"fork"});
    const auto child = static_cast<std::uint32_t>(std::stoul(result.out));
    EXPECT_EQ(recording.gaps, 0U);
    const std::vector<Call> calls = CallsOf(recording);
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_EQ(calls[0].record->session, recording.session);
    EXPECT_EQ(calls[0].record->thread, recording.session);
    EXPECT_EQ(calls[1].record->session, child);
    EXPECT_EQ(calls[1].record->thread, child);
    EXPECT_EQ(calls[1].event->param1, 2U);
    EXPECT_EQ(calls[2].record->session, recording.session);
}

TEST_F(RecordFileTest, CallThatThrowsIsNotFinished)
{
    const Recording recording = Run({"throw"});
    EXPECT_EQ(recording.records.size(), 3U);
    const std::vector<Call> calls = CallsOf(recording);
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_TRUE(calls[0].finished);
    EXPECT_EQ(calls[0].location->line, 2);
    EXPECT_FALSE(calls[1].finished);
    EXPECT_EQ(calls[1].location->line, 3);
    EXPECT_EQ(calls[1].endNsec, calls[0].endNsec);
    EXPECT_EQ(calls[1].caller, 0U);
    EXPECT_EQ(recording.records[0].items.at(0).kind, zorrecord::Item::Kind::NULL_POINTER);
    EXPECT_FALSE(calls[0].event.has_value());
}

} // namespace
