// A transport stream of any bytes is cut into packets and searched for services; every byte is
// accounted for.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Packet.h"
#include "Packetiser.h"
#include "ServiceFinder.h"
#include "Tables.h"

namespace {

class Sink : public tsmon::TableSink
{
 public:
    void OnPrograms(const tsmon::ProgramAssociation& programs) override
    {
        for (const tsmon::Program& program : programs.programs) {
            Require(program.pmtPid <= 0x1FFF);
        }
    }
    void OnProgramMap(const tsmon::ProgramMap& map) override { Require(map.pcrPid <= 0x1FFF); }
    void OnDescriptions(const tsmon::ServiceDescriptions&) override {}
    void OnComplaint(tsmon::Severity, const std::string& text) override { Require(!text.empty()); }

 private:
    static void Require(bool condition)
    {
        if (!condition) {
            abort();
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Sink sink;
    tsmon::ServiceFinder finder(sink);
    tsmon::Packetiser packetiser;
    tsmon::PacketBlock packets;
    // In pieces that do not end where packets do.
    constexpr std::size_t PIECE = 777;
    for (std::size_t at = 0; at < size; at += PIECE) {
        packetiser.Push(data + at, std::min(PIECE, size - at), packets);
    }
    packetiser.Finish(packets);
    if (packetiser.Counts().bytes != size || packetiser.Counts().packets != packets.Count()) {
        abort();
    }
    for (std::size_t i = 0; i < packets.Count(); ++i) {
        finder.Push(packets.Packet(i));
    }
    return 0;
}

/// The library's entry refers to it.
int Main()
{
    return 0;
}
