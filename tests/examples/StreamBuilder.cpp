#include "StreamBuilder.h"

// The library's headers include nothing, refuse to be included twice, and come in this order.
// clang-format off
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/pat.h>
#include <dvbpsi/pmt.h>
#include <dvbpsi/sdt.h>
// clang-format on

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>

#include "Packet.h"

namespace made {

namespace {

using tsmon::PACKET_SIZE;

constexpr std::uint16_t NETWORK_ID = 0x2000;

using Handle = std::unique_ptr<dvbpsi_t, decltype(&dvbpsi_delete)>;
using Sections = std::unique_ptr<dvbpsi_psi_section_t, decltype(&dvbpsi_DeletePSISections)>;

Handle NewHandle()
{
    return {dvbpsi_new(nullptr, DVBPSI_MSG_NONE), &dvbpsi_delete};
}

Bytes PacketiseAll(TableBuilder& builder, std::uint16_t pid, dvbpsi_psi_section_t* first)
{
    const Sections sections(first, &dvbpsi_DeletePSISections);
    Bytes packets;
    for (const auto* each = first; each != nullptr; each = each->p_next) {
        packets += builder.Packetise(pid, Bytes(each->p_data, each->p_data + each->i_length + 3));
    }
    return packets;
}

Bytes ServiceDescriptor(const Service& service)
{
    Bytes data = {0x01};
    for (const std::string& text : {service.provider, service.name}) {
        data.push_back(static_cast<std::uint8_t>(text.size()));
        data.insert(data.end(), text.begin(), text.end());
    }
    return data;
}

} // namespace

void operator+=(Bytes& bytes, const Bytes& more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

Bytes operator+(Bytes bytes, const Bytes& more)
{
    bytes += more;
    return bytes;
}

Bytes ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

Bytes PlainPackets(std::size_t count)
{
    Bytes packets;
    for (std::size_t index = 0; index < count; ++index) {
        packets += {tsmon::SYNC_BYTE, 0x01, 0x00, static_cast<std::uint8_t>(0x10 | (index & 0x0F))};
        for (std::size_t offset = 4; offset < PACKET_SIZE; ++offset) {
            packets.push_back(static_cast<std::uint8_t>((index * 3 + offset) & 0x3F));
        }
    }
    return packets;
}

Bytes ElementaryPackets(std::uint16_t pid, std::size_t count)
{
    Bytes packets;
    for (std::size_t index = 0; index < count; ++index) {
        packets += {tsmon::SYNC_BYTE,
                    static_cast<std::uint8_t>(0x40 | pid >> 8),
                    static_cast<std::uint8_t>(pid & 0xFF),
                    static_cast<std::uint8_t>(0x10 | (index & 0x0F)),
                    0,
                    0,
                    1};
        for (std::size_t offset = 7; offset < PACKET_SIZE; ++offset) {
            packets.push_back(static_cast<std::uint8_t>((index * 3 + offset) & 0x3F));
        }
    }
    return packets;
}

Bytes PcrPacket(std::uint16_t pid, std::uint64_t ticks, bool jump)
{
    const std::uint64_t bits = (ticks / 300) << 15 | UINT64_C(0x3F) << 9 | ticks % 300;
    Bytes packet = {tsmon::SYNC_BYTE,
                    static_cast<std::uint8_t>(pid >> 8),
                    static_cast<std::uint8_t>(pid & 0xFF),
                    0x20,
                    PACKET_SIZE - 5,
                    static_cast<std::uint8_t>(jump ? 0x90 : 0x10)};
    for (int shift = 40; shift >= 0; shift -= 8) {
        packet.push_back(static_cast<std::uint8_t>(bits >> shift & 0xFF));
    }
    packet.resize(PACKET_SIZE, 0xFF);
    return packet;
}

Bytes PacketsOf(const Bytes& bytes, std::size_t begin, std::size_t count)
{
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(begin * PACKET_SIZE);
    return Bytes(first, first + static_cast<std::ptrdiff_t>(count * PACKET_SIZE));
}

Bytes Repacked(const Bytes& stream, std::size_t size)
{
    const std::size_t lead = size == 192 ? 4 : 0;
    std::mt19937 random(static_cast<unsigned int>(size));
    const auto arbitrary = [&random](std::size_t count) {
        Bytes bytes(count);
        std::generate(bytes.begin(), bytes.end(),
                      [&random] { return static_cast<std::uint8_t>(random() & 0xFF); });
        return bytes;
    };
    Bytes result;
    for (std::size_t index = 0; index < stream.size() / PACKET_SIZE; ++index) {
        result += arbitrary(lead);
        result += PacketsOf(stream, index, 1);
        result += arbitrary(size - PACKET_SIZE - lead);
    }
    return result;
}

Bytes TableBuilder::Packetise(std::uint16_t pid, const Bytes& section)
{
    Bytes rest = {0};
    rest += section;
    Bytes packets;
    for (bool first = true; !rest.empty(); first = false) {
        const auto counter = static_cast<std::uint8_t>(m_counters[pid]++ & 0x0F);
        packets +=
            {tsmon::SYNC_BYTE, static_cast<std::uint8_t>((first ? 0x40 : 0) | pid >> 8),
             static_cast<std::uint8_t>(pid & 0xFF), static_cast<std::uint8_t>(0x10 | counter)};
        rest.resize(std::max(rest.size(), PACKET_SIZE - 4), 0xFF);
        packets.insert(packets.end(), rest.begin(), rest.begin() + PACKET_SIZE - 4);
        rest.erase(rest.begin(), rest.begin() + PACKET_SIZE - 4);
    }
    return packets;
}

Bytes TableBuilder::Pat(std::uint16_t streamId, const std::vector<Program>& programs,
                        int perSection)
{
    const Handle handle = NewHandle();
    dvbpsi_pat_t pat;
    dvbpsi_pat_init(&pat, streamId, m_version, m_current);
    for (const Program& program : programs) {
        dvbpsi_pat_program_add(&pat, program.number, program.pid);
    }
    const Bytes packets = PacketiseAll(
        *this, tsmon::PAT_PID, dvbpsi_pat_sections_generate(handle.get(), &pat, perSection));
    dvbpsi_pat_empty(&pat);
    return packets;
}

Bytes TableBuilder::Pmt(std::uint16_t pid, std::uint16_t number, std::uint16_t pcrPid,
                        const std::vector<Stream>& streams)
{
    const Handle handle = NewHandle();
    dvbpsi_pmt_t pmt;
    dvbpsi_pmt_init(&pmt, number, m_version, m_current, pcrPid);
    for (const Stream& stream : streams) {
        dvbpsi_pmt_es_t* added = dvbpsi_pmt_es_add(&pmt, stream.type, stream.pid);
        if (!stream.descriptor.empty()) {
            Bytes data(stream.descriptor.begin() + 1, stream.descriptor.end());
            dvbpsi_pmt_es_descriptor_add(added, stream.descriptor[0],
                                         static_cast<std::uint8_t>(data.size()), data.data());
        }
    }
    const Bytes packets =
        PacketiseAll(*this, pid, dvbpsi_pmt_sections_generate(handle.get(), &pmt));
    dvbpsi_pmt_empty(&pmt);
    return packets;
}

Bytes TableBuilder::Sdt(std::uint16_t streamId, const std::vector<Service>& services,
                        std::uint8_t tableId)
{
    const Handle handle = NewHandle();
    dvbpsi_sdt_t sdt;
    dvbpsi_sdt_init(&sdt, tableId, streamId, m_version, m_current, NETWORK_ID);
    for (const Service& service : services) {
        dvbpsi_sdt_service_t* added =
            dvbpsi_sdt_service_add(&sdt, service.id, false, false, 4, false);
        Bytes data = ServiceDescriptor(service);
        dvbpsi_sdt_service_descriptor_add(added, 0x48, static_cast<std::uint8_t>(data.size()),
                                          data.data());
    }
    dvbpsi_psi_section_t* sections = dvbpsi_sdt_sections_generate(handle.get(), &sdt);
    for (dvbpsi_psi_section_t* each = sections; each != nullptr; each = each->p_next) {
        // The generator knows this stream's own table only.
        each->i_table_id = tableId;
        dvbpsi_BuildPSISection(handle.get(), each);
    }
    const Bytes packets = PacketiseAll(*this, tsmon::SDT_PID, sections);
    dvbpsi_sdt_empty(&sdt);
    return packets;
}

} // namespace made
