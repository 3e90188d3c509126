#include "ServiceFinder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "Packetiser.h"
#include "StreamBuilder.h"

namespace {

using made::Bytes;
using made::TableBuilder;
using testing::ElementsAre;
using testing::IsEmpty;
using made::operator+;

class RecordingSink : public tsmon::TableSink
{
 public:
    void OnPrograms(const tsmon::ProgramAssociation& programs) override
    {
        associations.push_back(programs);
    }
    void OnProgramMap(const tsmon::ProgramMap& map) override { maps.push_back(map); }
    void OnDescriptions(const tsmon::ServiceDescriptions& tables) override
    {
        descriptions.push_back(tables);
    }
    void OnComplaint(tsmon::Severity /*severity*/, const std::string& text) override
    {
        complaints.push_back(text);
    }

    std::vector<tsmon::ProgramAssociation> associations;
    std::vector<tsmon::ProgramMap> maps;
    std::vector<tsmon::ServiceDescriptions> descriptions;
    std::vector<std::string> complaints;
};

/// A finder whose sink remembers everything.
class ServiceFinderTest : public testing::Test
{
 protected:
    void Push(const Bytes& packets)
    {
        for (std::size_t begin = 0; begin < packets.size(); begin += tsmon::PACKET_SIZE) {
            m_finder.Push(packets.data() + begin);
        }
    }

    std::vector<std::uint16_t> IdsOfMaps() const
    {
        std::vector<std::uint16_t> ids;
        for (const tsmon::ProgramMap& map : m_sink.maps) {
            ids.push_back(map.serviceId);
        }
        return ids;
    }

    TableBuilder m_builder;
    RecordingSink m_sink;
    tsmon::ServiceFinder m_finder{m_sink};
};

/// What a stream of the association is expected to say of it.
struct Expected
{
    std::uint16_t pid;
    std::string description;
};

void ExpectStreams(const tsmon::ProgramMap& map, const std::vector<Expected>& expected)
{
    ASSERT_EQ(map.streams.size(), expected.size()) << map.serviceId;
    for (std::size_t index = 0; index < expected.size(); ++index) {
        EXPECT_EQ(map.streams[index].pid, expected[index].pid) << map.serviceId;
        EXPECT_EQ(map.streams[index].description, expected[index].description) << map.serviceId;
    }
}

TEST_F(ServiceFinderTest, ScrambledPacketsArePassedOver)
{
    Bytes scrambled = TableBuilder().Pat(7, {{1, 0x100}});
    scrambled[3] |= 0x80;
    Push(scrambled);
    EXPECT_THAT(m_sink.associations, IsEmpty());
    EXPECT_THAT(m_sink.complaints, IsEmpty());
}

TEST_F(ServiceFinderTest, SampleHasItsThreeServices)
{
    Push(made::ReadFile(TSMON_SAMPLE));

    ASSERT_EQ(m_sink.associations.size(), 1U);
    EXPECT_EQ(m_sink.associations[0].transportStreamId, 2049);
    ASSERT_EQ(m_sink.associations[0].programs.size(), 3U);
    EXPECT_EQ(m_sink.associations[0].programs[2].serviceId, 103);
    EXPECT_EQ(m_sink.associations[0].programs[2].pmtPid, 0x1002);

    ASSERT_EQ(m_sink.descriptions.size(), 1U);
    const auto& services = m_sink.descriptions[0].services;
    ASSERT_EQ(services.size(), 3U);
    EXPECT_EQ(services[0].serviceId, 101);
    EXPECT_EQ(services[0].name, "North News");
    EXPECT_EQ(services[1].serviceId, 102);
    EXPECT_EQ(services[1].name, "Kids Two");
    EXPECT_EQ(services[2].serviceId, 103);
    EXPECT_EQ(services[2].name, "Test Card");
    EXPECT_EQ(services[2].provider, "FFmpeg");

    ASSERT_THAT(IdsOfMaps(), ElementsAre(101, 102, 103));
    ExpectStreams(m_sink.maps[0], {{0x100, "MPEG-2 video"}, {0x101, "MPEG-1 audio"}});
    ExpectStreams(m_sink.maps[1], {{0x102, "MPEG-2 video"}, {0x103, "MPEG-1 audio"}});
    ExpectStreams(m_sink.maps[2], {{0x104, "MPEG-2 video"}});
    EXPECT_THAT(m_sink.complaints, IsEmpty());
}

TEST_F(ServiceFinderTest, TablesOfOneStreamAreFound)
{
    Push(m_builder.Pat(7, {{0, 0x10}, {1, 0x100}, {2, 0x200}}));
    Push(m_builder.Pmt(0x100, 1, 0x101, {{0x101, 0x1B}, {0x102, 0x0F, {0x0A, 'd', 'e', 'u', 0}}}));
    Push(m_builder.Sdt(7, {{1, "One", "Maker"}}));

    ASSERT_EQ(m_sink.associations.size(), 1U);
    EXPECT_EQ(m_sink.associations[0].transportStreamId, 7);
    ASSERT_EQ(m_sink.associations[0].programs.size(), 2U) << "the network's entry is no service";
    EXPECT_EQ(m_sink.associations[0].programs[0].serviceId, 1);
    ASSERT_EQ(m_sink.maps.size(), 1U);
    EXPECT_EQ(m_sink.maps[0].pcrPid, 0x101);
    ExpectStreams(m_sink.maps[0], {{0x101, "H.264 video"}, {0x102, "AAC audio"}});
    EXPECT_EQ(m_sink.maps[0].streams[1].language, "deu");
    EXPECT_EQ(m_sink.maps[0].streams[1].type, 0x0F);
    ASSERT_EQ(m_sink.descriptions.size(), 1U);
    EXPECT_EQ(m_sink.descriptions[0].transportStreamId, 7);
    EXPECT_EQ(m_sink.descriptions[0].networkId, 0x2000);
}

TEST_F(ServiceFinderTest, NamesAreDecodedFromTheirTables)
{
    Push(m_builder.Sdt(
        7, {{1, "\x01\xBD\xDE\xD2\xDE\xE1\xE2\xD8", "\x15新聞"}, {2, "Caf\xC2\x65", ""}}));
    ASSERT_EQ(m_sink.descriptions.size(), 1U);
    const auto& services = m_sink.descriptions[0].services;
    ASSERT_EQ(services.size(), 2U);
    EXPECT_EQ(services[0].name, "Новости");
    EXPECT_EQ(services[0].provider, "新聞");
    EXPECT_EQ(services[1].name, "Café");
    EXPECT_EQ(services[1].provider, "");
}

TEST_F(ServiceFinderTest, TableOfManySectionsArrivesOnceAndWhole)
{
    std::vector<made::Program> programs;
    for (std::uint16_t number = 1; number <= 100; ++number) {
        programs.push_back({number, static_cast<std::uint16_t>(0x100 + number)});
    }
    const Bytes packets = m_builder.Pat(7, programs, 10);
    Push(Bytes(packets.begin(), packets.end() - tsmon::PACKET_SIZE));
    EXPECT_THAT(m_sink.associations, IsEmpty());
    Push(Bytes(packets.end() - tsmon::PACKET_SIZE, packets.end()));
    ASSERT_EQ(m_sink.associations.size(), 1U);
    EXPECT_EQ(m_sink.associations[0].programs.size(), 100U);
}

TEST_F(ServiceFinderTest, SectionOfManyPacketsIsPutTogether)
{
    std::vector<made::Service> services;
    for (std::uint16_t id = 1; id <= 20; ++id) {
        services.push_back({id, "Service number " + std::to_string(id), "Maker"});
    }
    const Bytes packets = m_builder.Sdt(7, services);
    ASSERT_GT(packets.size(), 2 * tsmon::PACKET_SIZE);
    Push(packets);
    ASSERT_EQ(m_sink.descriptions.size(), 1U);
    ASSERT_EQ(m_sink.descriptions[0].services.size(), 20U);
    EXPECT_EQ(m_sink.descriptions[0].services[19].name, "Service number 20");
}

TEST_F(ServiceFinderTest, RepeatedTablesArriveOnce)
{
    for (int turn = 0; turn < 5; ++turn) {
        Push(m_builder.Pat(7, {{1, 0x100}}));
        Push(m_builder.Pmt(0x100, 1, 0x101, {{0x101, 0x02}}));
        Push(m_builder.Sdt(7, {{1, "One", "Maker"}}));
    }
    EXPECT_EQ(m_sink.associations.size(), 1U);
    EXPECT_EQ(m_sink.maps.size(), 1U);
    EXPECT_EQ(m_sink.descriptions.size(), 1U);
}

TEST_F(ServiceFinderTest, NewVersionsOfTablesArrive)
{
    for (std::uint8_t version : {0, 1}) {
        m_builder.SetVersion(version);
        Push(m_builder.Pat(7, {{1, 0x100}}));
        Push(m_builder.Pmt(0x100, 1, 0x101, {{0x101, static_cast<std::uint8_t>(version + 1)}}));
        Push(m_builder.Sdt(7, {{1, version == 0 ? "Old" : "New", "Maker"}}));
    }
    ASSERT_EQ(m_sink.associations.size(), 2U);
    EXPECT_EQ(m_sink.associations[1].version, 1);
    ASSERT_EQ(m_sink.maps.size(), 2U);
    EXPECT_EQ(m_sink.maps[1].version, 1);
    ExpectStreams(m_sink.maps[1], {{0x101, "MPEG-2 video"}});
    ASSERT_EQ(m_sink.descriptions.size(), 2U);
    EXPECT_EQ(m_sink.descriptions[1].services.at(0).name, "New");
}

TEST_F(ServiceFinderTest, MapsFollowTheNewAssociation)
{
    Push(m_builder.Pat(7, {{1, 0x100}, {2, 0x200}}));
    Push(m_builder.Pmt(0x100, 1, 0x101, {}));
    Push(m_builder.Pmt(0x200, 2, 0x201, {}));
    m_builder.SetVersion(1);
    Push(m_builder.Pat(7, {{1, 0x100}, {3, 0x300}}));
    Push(m_builder.Pmt(0x100, 1, 0x101, {}));
    Push(m_builder.Pmt(0x200, 2, 0x201, {}));
    Push(m_builder.Pmt(0x300, 3, 0x301, {}));
    EXPECT_THAT(IdsOfMaps(), ElementsAre(1, 2, 1, 3)) << "service 2 is gone";
}

TEST_F(ServiceFinderTest, MovedMapArrivesAgainThoughItsVersionStays)
{
    Push(m_builder.Pat(7, {{1, 0x100}}));
    Push(m_builder.Pmt(0x100, 1, 0x101, {}));
    m_builder.SetVersion(1);
    Push(m_builder.Pat(7, {{1, 0x200}}));
    m_builder.SetVersion(0);
    Push(m_builder.Pmt(0x200, 1, 0x101, {}));
    EXPECT_THAT(IdsOfMaps(), ElementsAre(1, 1));
}

TEST_F(ServiceFinderTest, ServicesMayHaveTheirMapsOnOnePid)
{
    Push(m_builder.Pat(7, {{1, 0x100}, {2, 0x100}}));
    for (int turn = 0; turn < 2; ++turn) {
        Push(m_builder.Pmt(0x100, 1, 0x101, {{0x101, 0x02}}));
        Push(m_builder.Pmt(0x100, 2, 0x201, {{0x201, 0x1B}}));
    }
    ASSERT_THAT(IdsOfMaps(), ElementsAre(1, 2));
    ExpectStreams(m_sink.maps[1], {{0x201, "H.264 video"}});
}

TEST_F(ServiceFinderTest, TablesAnnouncedForLaterWaitUntilTheyAreCurrent)
{
    for (const bool current : {false, true}) {
        m_builder.SetCurrent(current);
        Push(m_builder.Pat(7, {{1, 0x100}}));
        Push(m_builder.Sdt(7, {{1, "One", "Maker"}}));
        EXPECT_EQ(m_sink.associations.size(), current ? 1U : 0U);
        EXPECT_EQ(m_sink.descriptions.size(), current ? 1U : 0U);
    }
}

TEST_F(ServiceFinderTest, DescriptionsOfOtherStreamsAreNotOurs)
{
    Push(m_builder.Sdt(8, {{900, "Elsewhere", "Maker"}}, 0x46));
    EXPECT_THAT(m_sink.descriptions, IsEmpty());
}

TEST_F(ServiceFinderTest, SectionWithABrokenChecksumIsComplainedOfOnOneLine)
{
    Bytes packets = m_builder.Pat(7, {{1, 0x100}});
    packets[15] ^= 0x01;
    Push(packets);
    EXPECT_THAT(m_sink.associations, IsEmpty());
    ASSERT_FALSE(m_sink.complaints.empty());
    EXPECT_FALSE(m_sink.complaints[0].empty());
    EXPECT_EQ(m_sink.complaints[0].find('\n'), std::string::npos);
}

TEST_F(ServiceFinderTest, SoundTableIsFoundAfterABrokenOne)
{
    Bytes packets = m_builder.Pat(7, {{1, 0x100}});
    packets[15] ^= 0x01;
    Push(packets + m_builder.Pat(7, {{2, 0x200}}));
    ASSERT_EQ(m_sink.associations.size(), 1U);
    EXPECT_EQ(m_sink.associations[0].programs.at(0).serviceId, 2);
}

// Each packet ends where its memory ends, so that an access behind it is one behind the memory.
TEST_F(ServiceFinderTest, ArbitraryPacketsDoNoHarm)
{
    Push(m_builder.Pat(7, {{1, 0x100}, {2, 0x0011}, {3, 0x0000}}));
    std::mt19937 random(1);
    for (int turn = 0; turn < 20000; ++turn) {
        Bytes packet(tsmon::PACKET_SIZE);
        std::generate(packet.begin(), packet.end(),
                      [&] { return static_cast<std::uint8_t>(random() & 0xFF); });
        constexpr std::uint16_t PIDS[] = {0x0000, 0x0011, 0x0100};
        const std::uint16_t pid = PIDS[random() % 3];
        packet[0] = tsmon::SYNC_BYTE;
        packet[1] = static_cast<std::uint8_t>((packet[1] & 0x40) | pid >> 8);
        packet[2] = static_cast<std::uint8_t>(pid & 0xFF);
        m_finder.Push(packet.data());
    }
    EXPECT_EQ(m_sink.associations.size(), 1U) << "no random section has a right checksum";
    EXPECT_THAT(m_sink.maps, IsEmpty());
}

} // namespace
