#include "ParserTask.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Batch.h"
#include "ReaderTask.h"
#include "ServicesTask.h"
#include "StreamMeter.h"
#include "TaskFixture.h"

namespace {

using made::Bytes;
using made::ElementaryPackets;
using made::PlainPackets;
using tsmon::Batch;
using tsmon::ParserTask;
using tsmon::ServicesTask;
using zortest::Eventually;
using made::operator+;
using made::operator+=;

constexpr std::uint16_t PID = 0x101;
constexpr std::size_t MANY_PACKETS = 300 * 64;
constexpr std::size_t ROOM = 240; ///< of a queue

Batch BatchOf(const Bytes& packets)
{
    Batch batch;
    tsmon::StreamMeter meter;
    for (std::size_t begin = 0; begin < packets.size(); begin += tsmon::PACKET_SIZE) {
        batch.packets.Append(packets.data() + begin);
        meter.Push(packets.data() + begin);
    }
    batch.statistics = meter.Take();
    return batch;
}

/// @p count associations, each with a new version; the stream's id is the association's number.
Bytes Associations(int count)
{
    made::TableBuilder builder;
    Bytes packets;
    for (int index = 1; index <= count; ++index) {
        builder.SetVersion(static_cast<std::uint8_t>(index % 32));
        const auto id = static_cast<std::uint16_t>(index);
        packets += builder.Pat(id, {{id, 0x100}});
    }
    return packets;
}

/// A parser and the services, each behind a gate that is open unless a test closes it.
class ParserTaskTest : public testing::Test
{
 protected:
    ParserTaskTest()
    {
        m_parser.GateAt(NO_GATE);
        m_services.GateAt(NO_GATE);
    }

    ~ParserTaskTest() override
    {
        m_parser.OpenGate();
        m_services.OpenGate();
        for (TCTask* task : {static_cast<TCTask*>(&m_parser), static_cast<TCTask*>(&m_services)}) {
            if (task->FlagCreate()) {
                tsmon::EndTask(*task);
            }
        }
    }

    void Start()
    {
        ASSERT_TRUE(m_services.Start());
        ASSERT_TRUE(m_parser.Start());
    }

    bool TrySend(tsmon::EMessage type, const Bytes& packets, unsigned int queue)
    {
        TSEvent event;
        event.receiver = &m_parser;
        event.type = type;
        event.param1 = queue;
        event.setWrappedData(BatchOf(packets));
        return TCMultiQTask::Send(&event, false, false, queue);
    }

    void SendPackets(const Bytes& packets, unsigned int queue)
    {
        EXPECT_TRUE(TrySend(tsmon::MESSAGE_PACKETS, packets, queue));
    }

    void SendEnd() { EXPECT_TRUE(TrySend(tsmon::MESSAGE_END, {}, tsmon::QUEUE_STREAMS)); }

    bool AwaitEnd()
    {
        pollfd file = {m_done.Descriptor(), POLLIN, 0};
        return poll(&file, 1, 60 * 1000) == 1;
    }

    static constexpr unsigned long NO_GATE = ~0UL;

    made::TaskRuntime m_runtime;
    tsmon::Completion m_done;
    made::Gated<ServicesTask> m_services{m_done};
    made::Gated<ParserTask> m_parser{m_services};
};

TEST_F(ParserTaskTest, TablesOfTheFirstQueueReachTheServices)
{
    Start();
    made::TableBuilder builder;
    SendPackets(builder.Pat(7, {{1, 0x100}}) + builder.Pmt(0x100, 1, PID, {{PID, 0x1B}}) +
                    builder.Sdt(7, {{1, "One", "Maker"}}),
                tsmon::QUEUE_TABLES);
    SendPackets(ElementaryPackets(PID, 5), tsmon::QUEUE_STREAMS);
    SendEnd();
    ASSERT_TRUE(AwaitEnd());
    const std::optional<tsmon::ServiceTable> table = m_services.Ask();
    tsmon::EndTask(m_parser);
    ASSERT_TRUE(table.has_value());
    ASSERT_EQ(table->Services().size(), 1U);
    EXPECT_EQ(table->TransportStreamId(), 7);
    EXPECT_EQ(table->Services()[0].map->streams.size(), 1U);
    EXPECT_EQ(table->Services()[0].description->name, "One");
    EXPECT_EQ(m_parser.Counts().tablePackets, 3U);
    EXPECT_EQ(m_parser.Counts().streamPackets, 5U);
    EXPECT_EQ(m_parser.Counts().perPid.at(PID), 5U);
    EXPECT_EQ(m_parser.Counts().perPid.at(tsmon::PAT_PID), 1U);
}

/// Keeps the kinds of packets in the order in which they are handled.
class OrderedParser : public ParserTask
{
 public:
    using ParserTask::ParserTask;

    bool t_OnEvent(const TSEvent* event) override
    {
        if (event->type == tsmon::MESSAGE_PACKETS) {
            m_order.push_back(event->param1);
        }
        return ParserTask::t_OnEvent(event);
    }

    /// May be read once the task has ended.
    const std::vector<unsigned int>& Order() const { return m_order; }

 private:
    std::vector<unsigned int> m_order;
};

TEST_F(ParserTaskTest, TablesAreHandledBeforeStreamsThatCameFirst)
{
    OrderedParser parser(m_services);
    ASSERT_TRUE(m_services.Start());
    ASSERT_TRUE(parser.Start());
    EXPECT_TRUE(parser.Pause());
    for (const unsigned int queue : {1U, 1U, 0U, 1U, 0U}) {
        TSEvent event;
        event.receiver = &parser;
        event.type = tsmon::MESSAGE_PACKETS;
        event.param1 = queue;
        event.setWrappedData(BatchOf(PlainPackets(1)));
        EXPECT_TRUE(TCMultiQTask::Send(&event, false, false, queue));
    }
    TSEvent end;
    end.receiver = &parser;
    end.type = tsmon::MESSAGE_END;
    end.param1 = tsmon::QUEUE_STREAMS;
    EXPECT_TRUE(TCMultiQTask::Send(&end, false, false, tsmon::QUEUE_STREAMS));
    EXPECT_TRUE(parser.ResumeAsync());
    EXPECT_TRUE(AwaitEnd());
    tsmon::EndTask(parser);
    EXPECT_EQ(parser.Order(), (std::vector<unsigned int>{0, 0, 1, 1, 1}));
}

TEST_F(ParserTaskTest, EndThatOvertakesTablesWaitsForThem)
{
    m_parser.GateAt(tsmon::MESSAGE_END);
    Start();
    SendEnd();
    ASSERT_TRUE(m_parser.AwaitArrival());
    SendPackets(Associations(3), tsmon::QUEUE_TABLES);
    m_parser.OpenGate();
    ASSERT_TRUE(AwaitEnd());
    const std::optional<tsmon::ServiceTable> table = m_services.Ask();
    tsmon::EndTask(m_parser);
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->TransportStreamId(), 3);
    EXPECT_EQ(m_parser.Counts().tablePackets, 3U);
}

TEST_F(ParserTaskTest, EndThatOvertakesAFullQueueWaitsForAllOfIt)
{
    m_parser.GateAt(tsmon::MESSAGE_END);
    Start();
    SendEnd();
    ASSERT_TRUE(m_parser.AwaitArrival());
    std::size_t sent = 0;
    while (TrySend(tsmon::MESSAGE_PACKETS, PlainPackets(1), tsmon::QUEUE_TABLES)) {
        ++sent;
    }
    m_parser.OpenGate();
    ASSERT_TRUE(AwaitEnd());
    tsmon::EndTask(m_parser);
    EXPECT_GE(sent, ROOM);
    EXPECT_EQ(m_parser.Counts().tablePackets, sent);
}

TEST_F(ParserTaskTest, FullQueueOfTheServicesIsWaitedOutAndNoTableIsLost)
{
    constexpr int TABLES = 300;
    m_services.GateAt(ServicesTask::EventType<tsmon::ProgramAssociation>());
    Start();
    SendPackets(Associations(TABLES), tsmon::QUEUE_TABLES);
    SendEnd();
    EXPECT_TRUE(Eventually([this] { return m_parser.Refusals() > 0; }));
    m_services.OpenGate();
    ASSERT_TRUE(AwaitEnd());
    const std::optional<tsmon::ServiceTable> table = m_services.Ask();
    ASSERT_TRUE(table.has_value());
    EXPECT_EQ(table->TransportStreamId(), TABLES);
}

TEST_F(ParserTaskTest, SlowParserHandlesEveryPacketThatWasRead)
{
    m_parser.GateAt(tsmon::MESSAGE_PACKETS);
    Start();
    const made::TempDirectory directory;
    Bytes stream;
    for (std::size_t turn = 0; turn < 10; ++turn) {
        stream += PlainPackets(MANY_PACKETS / 10) + ElementaryPackets(PID, MANY_PACKETS / 10);
    }
    tsmon::ReaderTask reader(directory.Write("a.ts", stream), false, m_parser);
    ASSERT_TRUE(reader.Start());
    EXPECT_TRUE(Eventually([&] { return reader.Refusals() > 0; }));
    m_parser.OpenGate();
    EXPECT_TRUE(AwaitEnd());
    tsmon::EndTask(reader);
    tsmon::EndTask(m_parser);
    EXPECT_EQ(reader.Counts().packets, 2 * MANY_PACKETS);
    EXPECT_EQ(m_parser.Counts().tablePackets, MANY_PACKETS);
    EXPECT_EQ(m_parser.Counts().streamPackets, MANY_PACKETS);
    EXPECT_EQ(m_parser.Counts().perPid.at(0x100), MANY_PACKETS);
    EXPECT_EQ(m_parser.Counts().perPid.at(PID), MANY_PACKETS);
}

TEST_F(ParserTaskTest, StatisticsAreThoseOfAllPacketsThatWereHandled)
{
    Start();
    const Bytes first = ElementaryPackets(PID, 3);
    Bytes second = ElementaryPackets(PID, 5);
    second.erase(second.begin() + tsmon::PACKET_SIZE, second.begin() + 2 * tsmon::PACKET_SIZE);
    SendPackets(first, tsmon::QUEUE_STREAMS);
    SendPackets(second, tsmon::QUEUE_STREAMS);
    SendPackets(PlainPackets(2), tsmon::QUEUE_TABLES);
    SendEnd();
    ASSERT_TRUE(AwaitEnd());
    const std::optional<tsmon::TickStatistics> statistics = m_parser.AskStatistics();
    ASSERT_TRUE(statistics.has_value());
    EXPECT_EQ(statistics->total.pids.at(PID).packets, 7U);
    EXPECT_EQ(statistics->total.pids.at(PID).continuityErrors, 1U);
    EXPECT_EQ(statistics->total.pids.at(0x100).packets, 2U);
    tsmon::EndTask(m_parser);
    EXPECT_EQ(m_parser.Statistics().pids.at(PID).packets, 7U);
}

TEST_F(ParserTaskTest, AlarmTicksTheStatisticsOncePerSecond)
{
    Start();
    SendPackets(ElementaryPackets(PID, 7), tsmon::QUEUE_STREAMS);
    const auto packetsOfLastSecond = [this] {
        const std::optional<tsmon::TickStatistics> statistics = m_parser.AskStatistics();
        EXPECT_TRUE(statistics.has_value());
        return FiguresOfAll(statistics->lastSecond).packets;
    };
    EXPECT_TRUE(Eventually([&] { return packetsOfLastSecond() == 7; }));
    EXPECT_TRUE(Eventually([&] { return packetsOfLastSecond() == 0; })) << "nothing came since";
    EXPECT_EQ(m_parser.AskStatistics()->total.pids.at(PID).packets, 7U);
}

TEST_F(ParserTaskTest, SecondsReachTheServices)
{
    m_services.GateAt(ServicesTask::EventType<tsmon::StreamStatistics>());
    Start();
    EXPECT_TRUE(m_services.AwaitArrival());
}

TEST_F(ParserTaskTest, AskersGetTheTableWhileItGrows)
{
    constexpr int ASKERS = 4;
    constexpr int TABLES = 500;
    Start();
    std::atomic<bool> grows{true};
    std::vector<std::thread> askers;
    for (int asker = 0; asker < ASKERS; ++asker) {
        askers.emplace_back([&] {
            int last = 0;
            do {
                const std::optional<tsmon::ServiceTable> table = m_services.Ask();
                const int id = table ? table->TransportStreamId().value_or(0) : last;
                EXPECT_GE(id, last) << "an answer is older than the one before";
                last = id;
            } while (grows && last < TABLES);
        });
    }
    SendPackets(Associations(TABLES), tsmon::QUEUE_TABLES);
    SendEnd();
    EXPECT_TRUE(AwaitEnd());
    grows = false;
    for (std::thread& asker : askers) {
        asker.join();
    }
    EXPECT_EQ(m_services.Ask()->TransportStreamId(), TABLES);
}

} // namespace
