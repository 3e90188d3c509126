#include "Flows.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Calls.h"
#include "ProgramRun.h"
#include "Reader.h"

namespace {

using zorrecord::Call;
using zorrecord::EventFields;
using zorrecord::Flow;
using zorrecord::FlowsOf;
using zorrecord::Record;
using zorrecord::Shape;

constexpr std::uint32_t SENDER = 11; ///< handle of the sending thread
constexpr std::uint32_t OTHER_SENDER = 12;

/// Calls made by hand; times are given by their order.
class FlowsTest : public testing::Test
{
 protected:
    FlowsTest() { m_calls.reserve(16), m_records.reserve(16); }

    std::size_t Send(std::uint32_t param1 = 0, bool priority = false, unsigned int queue = 0)
    {
        Call& call = Add(Shape::SEND, param1);
        call.priority = priority;
        call.queue = queue;
        call.result = true;
        return m_calls.size() - 1;
    }

    std::size_t Handle(std::uint32_t param1 = 0)
    {
        Call& call = Add(Shape::HANDLING, param1);
        call.event->sender = SENDER;
        return m_calls.size() - 1;
    }

    Call& operator[](std::size_t index) { return m_calls[index]; }
    Record& RecordOf(std::size_t index) { return m_records[index]; }

    /// The flows as pairs of send and handling.
    std::vector<std::pair<std::size_t, std::size_t>> Flows() const
    {
        std::vector<std::pair<std::size_t, std::size_t>> pairs;
        for (const Flow& flow : FlowsOf(m_calls)) {
            pairs.emplace_back(flow.send, flow.handling);
        }
        return pairs;
    }

    using Pairs = std::vector<std::pair<std::size_t, std::size_t>>;

 private:
    Call& Add(Shape shape, std::uint32_t param1)
    {
        m_records.emplace_back();
        m_records.back().threadHandle = SENDER;
        m_calls.emplace_back();
        Call& call = m_calls.back();
        call.record = &m_records.back();
        call.shape = shape;
        call.event.emplace();
        call.event->receiver = 0x1000;
        call.event->type = 1;
        call.event->param1 = param1;
        call.event->address = 0x2000 + m_calls.size();
        call.beginNsec = m_calls.size() * 100;
        call.endNsec = call.beginNsec + 50;
        call.finished = true;
        return call;
    }

    std::vector<Record> m_records;
    std::vector<Call> m_calls;
};

TEST_F(FlowsTest, SendLeadsToTheHandlingOfItsEvent)
{
    const std::size_t one = Send(1);
    const std::size_t two = Send(2);
    const std::size_t handledTwo = Handle(2);
    const std::size_t handledOne = Handle(1);
    EXPECT_EQ(Flows(), (Pairs{{two, handledTwo}, {one, handledOne}}));
}

TEST_F(FlowsTest, AlikeEventsAreHandledInTheOrderOfTheirSending)
{
    const std::size_t first = Send();
    const std::size_t second = Send();
    const std::size_t handledFirst = Handle();
    const std::size_t handledSecond = Handle();
    EXPECT_EQ(Flows(), (Pairs{{first, handledFirst}, {second, handledSecond}}));
}

TEST_F(FlowsTest, AlikePriorityEventsOvertake)
{
    const std::size_t normal = Send();
    const std::size_t urgent = Send(0, true);
    const std::size_t moreUrgent = Send(0, true);
    const std::size_t a = Handle();
    const std::size_t b = Handle();
    const std::size_t c = Handle();
    EXPECT_EQ(Flows(), (Pairs{{moreUrgent, a}, {urgent, b}, {normal, c}}));
}

TEST_F(FlowsTest, AlikeEventsOfLowerQueuesComeFirst)
{
    const std::size_t low = Send(0, false, 2);
    const std::size_t high = Send(0, false, 0);
    const std::size_t a = Handle();
    const std::size_t b = Handle();
    EXPECT_EQ(Flows(), (Pairs{{high, a}, {low, b}}));
}

TEST_F(FlowsTest, EveryFieldTellsEventsApart)
{
    const auto differs = [this](auto change) {
        const std::size_t send = Send(77);
        const std::size_t handled = Handle(77);
        change((*this)[send], RecordOf(send));
        const bool isFound = !Flows().empty();
        (*this)[send].shape = (*this)[handled].shape = Shape::OTHER;
        return !isFound;
    };
    EXPECT_FALSE(differs([](Call& /*send*/, Record& /*record*/) {}));
    EXPECT_TRUE(differs([](Call& send, Record&) { send.event->receiver = 1; }));
    EXPECT_TRUE(differs([](Call& send, Record&) { send.event->type = 2; }));
    EXPECT_TRUE(differs([](Call& send, Record&) { send.event->param6 = 2; }));
    EXPECT_TRUE(differs([](Call& send, Record&) { send.event->wrappedData = 2; }));
    EXPECT_TRUE(differs([](Call&, Record& record) { record.threadHandle = OTHER_SENDER; }));
    EXPECT_TRUE(differs([](Call&, Record& record) { record.session = 5; }));
}

TEST_F(FlowsTest, RefusedSendLeadsNowhere)
{
    const std::size_t refused = Send();
    const std::size_t accepted = Send();
    (*this)[refused].result = false;
    const std::size_t handled = Handle();
    EXPECT_EQ(Flows(), (Pairs{{accepted, handled}}));
}

TEST_F(FlowsTest, HandlingBeforeAnySendComesFromNowhere)
{
    Handle();
    Send();
    EXPECT_EQ(Flows(), Pairs{});
}

TEST_F(FlowsTest, SynchronousSendThatHasReturnedLeadsNowhere)
{
    const std::size_t deleted = Send();
    (*this)[deleted].sync = true;
    const std::size_t later = Send();
    const std::size_t handled = Handle();
    EXPECT_EQ(Flows(), (Pairs{{later, handled}}));
}

TEST_F(FlowsTest, DirectHandlingHasTheVeryEventOfItsSend)
{
    const std::size_t send = Send();
    const std::size_t handled = Handle();
    (*this)[handled].caller = send;
    (*this)[handled].event->sender = 0; // it never was in a queue
    (*this)[handled].event->address = (*this)[send].event->address;
    EXPECT_EQ(Flows(), (Pairs{{send, handled}}));
}

TEST_F(FlowsTest, UnfinishedSendsAndHandlingsCount)
{
    const std::size_t send = Send();
    (*this)[send].finished = false;
    (*this)[send].result.reset();
    (*this)[send].sync = true;
    const std::size_t handled = Handle();
    EXPECT_EQ(Flows(), (Pairs{{send, handled}}));
}

TEST(RecordedFlowsTest, EverySendOfAProgramLeadsToItsHandling)
{
    const zortest::ScratchDirectory directory;
    const std::string path = directory.Path("calls.zor");
    const auto result = zortest::RunProgram(RECORDED_PROGRAM, {"tasks"}, {{"ZOR_RECORD", path}});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const zorrecord::Recording recording = zorrecord::ReadFile(path);
    const std::vector<Call> calls = zorrecord::CallsOf(recording);
    std::vector<std::uint64_t> types;
    for (const Flow& flow : FlowsOf(calls)) {
        const Call& send = calls[flow.send];
        const Call& handling = calls[flow.handling];
        EXPECT_EQ(send.shape, Shape::SEND);
        EXPECT_EQ(handling.shape, Shape::HANDLING);
        EXPECT_EQ(send.event->type, handling.event->type);
        EXPECT_EQ(send.event->param1, handling.event->param1);
        EXPECT_LE(send.beginNsec, handling.beginNsec);
        types.push_back(send.event->type);
    }
    std::sort(types.begin(), types.end());
    EXPECT_EQ(types,
              (std::vector<std::uint64_t>{100, 100, 100, 200, 201, 300, 301, 400, 400, 500}));
}

TEST(RecordedFlowsTest, QueuesOfATaskAreTold)
{
    const zortest::ScratchDirectory directory;
    const std::string path = directory.Path("calls.zor");
    const auto result = zortest::RunProgram(RECORDED_PROGRAM, {"queues"}, {{"ZOR_RECORD", path}});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const zorrecord::Recording recording = zorrecord::ReadFile(path);
    const std::vector<Call> calls = zorrecord::CallsOf(recording);
    std::vector<std::pair<std::uint64_t, unsigned int>> handled; // types and queues, in order
    for (const Flow& flow : FlowsOf(calls)) {
        const Call& send = calls[flow.send];
        EXPECT_EQ(send.location->line, 1435);
        EXPECT_EQ(send.location->arguments.back().type, "unsigned int");
        EXPECT_EQ(send.result, true);
        handled.emplace_back(send.event->type, send.queue);
    }
    EXPECT_EQ(handled, (std::vector<std::pair<std::uint64_t, unsigned int>>{
                           {600, 2}, {601, 1}, {601, 2}, {602, 2}}));
}

} // namespace
