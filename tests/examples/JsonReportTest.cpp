#include "JsonReport.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "Packet.h"

namespace {

using nlohmann::json;
using tsmon::Outcome;

constexpr double BITS = 8.0 * tsmon::PACKET_SIZE;

class JsonReportTest : public testing::Test
{
 protected:
    JsonReportTest()
    {
        m_outcome.counts.bytes = 1000;
        m_outcome.counts.packets = 200;
        m_outcome.counts.lostSync = 2;
        m_outcome.counts.transportErrors = 3;
        m_outcome.counts.truncated = 1;
        m_outcome.inputLosses = 4;
        m_outcome.packetlessInputs = 5;
        m_outcome.statistics.time = std::chrono::milliseconds(2500);
        m_outcome.statistics.pids[0x100] = {20, 10, 1};
        m_outcome.statistics.pids[0x101] = {180, 100, 2};
        m_outcome.table.OnPrograms({7, 0, {{1, 0x100}, {2, 0x200}}});
        m_outcome.table.OnProgramMap({1, 0, 0x101, {{0x101, 0x0F, "AAC audio", "deu"}}});
    }

    /// Throws where it is no JSON.
    json Document()
    {
        std::ostringstream out;
        PrintJson(m_path, m_outcome, out);
        EXPECT_EQ(out.str().back(), '\n');
        return json::parse(out.str());
    }

    void Name(const std::string& name)
    {
        m_outcome.table.OnDescriptions({7, 0, 0, {{1, name, "Maker"}}});
    }

    std::string m_path = "a.ts";
    Outcome m_outcome;
};

TEST_F(JsonReportTest, DocumentTellsOfTheFile)
{
    const json document = Document();
    EXPECT_EQ(document["file"], "a.ts");
    EXPECT_EQ(document["ok"], false);
    EXPECT_EQ(document["failure"],
              "is damaged: 6 damaged packets (2 lost or out of sync, 3 with the transport error "
              "indicator set, 1 cut off at the end), 200 packets read");
    EXPECT_EQ(document["stopped"], false);
    EXPECT_EQ(document["transportStreamId"], 7);
    EXPECT_EQ(document["bytes"], 1000);
    EXPECT_EQ(document["packets"], 200);
    EXPECT_EQ(document["seconds"], 2.5);
    EXPECT_DOUBLE_EQ(document["bitRate"], 110 * BITS / 2.5);
    EXPECT_EQ(document["continuityErrors"], 3);
    EXPECT_EQ(document["inputLosses"], 4);
    EXPECT_EQ(document["inputsWithoutPackets"], 5);
    const json damaged = {{"total", 6}, {"lostSync", 2}, {"transportErrors", 3}, {"truncated", 1}};
    EXPECT_EQ(document["damagedPackets"], damaged);
}

TEST_F(JsonReportTest, DocumentTellsOfServicesAndStreams)
{
    Name("Новости");
    const json service = Document()["services"][0];
    EXPECT_EQ(service["serviceId"], 1);
    EXPECT_EQ(service["id"], "0x2000010000801C00 (cT:dtv,sP:dvb,cN:0,mj:7,mn:0,pN:1)");
    EXPECT_EQ(service["name"], "Новости");
    EXPECT_EQ(service["provider"], "Maker");
    EXPECT_EQ(service["pmtPid"], 0x100);
    EXPECT_EQ(service["pcrPid"], 0x101);
    EXPECT_EQ(service["packets"], 200);
    EXPECT_DOUBLE_EQ(service["bitRate"], 110 * BITS / 2.5);
    EXPECT_EQ(service["continuityErrors"], 3);
    ASSERT_EQ(service["streams"].size(), 1U);
    const json stream = service["streams"][0];
    EXPECT_EQ(stream["pid"], 0x101);
    EXPECT_EQ(stream["streamType"], 0x0F);
    EXPECT_EQ(stream["description"], "AAC audio");
    EXPECT_EQ(stream["language"], "deu");
    EXPECT_EQ(stream["packets"], 180);
    EXPECT_DOUBLE_EQ(stream["bitRate"], 100 * BITS / 2.5);
    EXPECT_EQ(stream["continuityErrors"], 2);
}

TEST_F(JsonReportTest, WhatIsNotKnownIsNull)
{
    m_outcome.statistics.time = {};
    const json document = Document();
    EXPECT_EQ(document["seconds"], nullptr);
    EXPECT_EQ(document["bitRate"], nullptr);
    const json service = document["services"][1];
    EXPECT_EQ(service["name"], nullptr);
    EXPECT_EQ(service["provider"], nullptr);
    EXPECT_EQ(service["pcrPid"], nullptr);
    EXPECT_EQ(service["bitRate"], nullptr);
    EXPECT_EQ(service["streams"], json::array());
}

TEST_F(JsonReportTest, TextsThatAreNoUtf8AreMadeSo)
{
    m_path = "caf\xE9.ts";
    Name("bad \xFF\xC3 name");
    const json document = Document();
    EXPECT_EQ(document["file"], "caf\uFFFD.ts");
    EXPECT_EQ(document["services"][0]["name"], "bad \uFFFD\uFFFD name");
}

TEST_F(JsonReportTest, QuotesAndControlsAreEscaped)
{
    Name("a \"b\"\\\n\t\x01");
    EXPECT_EQ(Document()["services"][0]["name"], "a \"b\"\\\n\t\x01");
}

TEST_F(JsonReportTest, WhatIsSoundHasNoFailure)
{
    m_outcome.counts = {1000, 200};
    const json document = Document();
    EXPECT_EQ(document["ok"], true);
    EXPECT_EQ(document["failure"], nullptr);
}

TEST_F(JsonReportTest, EveryReasonOfAFailureIsTold)
{
    m_outcome.counts = {};
    EXPECT_EQ(Document()["failure"], "is empty");
    m_outcome.counts.bytes = 1000;
    EXPECT_EQ(Document()["failure"],
              "is not a transport stream: no 188-byte packets in 1000 bytes");
    m_outcome.counts.packets = 4;
    m_outcome.counts.truncated = 1;
    m_outcome.table = {};
    const json document = Document();
    EXPECT_EQ(document["ok"], false);
    EXPECT_EQ(document["failure"],
              "is damaged: 1 damaged packet (1 cut off at the end), 4 packets read; announces no "
              "services: neither its PAT nor its SDT has any");
}

TEST_F(JsonReportTest, SizeOfPacketsIsToldOnceItIsKnown)
{
    EXPECT_EQ(Document()["packetSize"], nullptr);
    m_outcome.counts.packetSize = 204;
    EXPECT_EQ(Document()["packetSize"], 204);
}

TEST_F(JsonReportTest, ScrambledPacketsAreCounted)
{
    m_outcome.statistics.pids[0x101].scrambledPackets = 30;
    const json service = Document()["services"][0];
    EXPECT_EQ(service["scrambledPackets"], 30);
    EXPECT_EQ(service["streams"][0]["scrambledPackets"], 30);
}

TEST_F(JsonReportTest, FailureAndStopAreTold)
{
    m_outcome = {};
    m_outcome.failure = "cannot be opened";
    m_outcome.stopped = true;
    const json document = Document();
    EXPECT_EQ(document["failure"], "cannot be opened");
    EXPECT_EQ(document["stopped"], true);
    EXPECT_EQ(document["transportStreamId"], nullptr);
    EXPECT_EQ(document["services"], json::array());
}

} // namespace
