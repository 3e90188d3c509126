#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// Transport streams made for tests.
namespace made {

using Bytes = std::vector<std::uint8_t>;

Bytes ReadFile(const std::string& path);

/// Packets that can be told apart by their contents and hold no sync byte but the first.
Bytes PlainPackets(std::size_t count);

/// @p count packets of @p pid that each begin a unit of an elementary stream.
Bytes ElementaryPackets(std::uint16_t pid, std::size_t count);

/// A packet without payload that carries a clock reference of @p ticks of 27 MHz.
///
/// @param jump  whether it announces a discontinuity
Bytes PcrPacket(std::uint16_t pid, std::uint64_t ticks, bool jump = false);

/// Bytes number @p begin to @p begin + @p count of @p bytes, in packets.
Bytes PacketsOf(const Bytes& bytes, std::size_t begin, std::size_t count);

/// The packets of @p stream, each in 188, 192 (behind a time stamp) or 204 bytes (before error
/// correction). What is added is arbitrary, sync bytes among it.
Bytes Repacked(const Bytes& stream, std::size_t size);

struct Stream
{
    std::uint16_t pid;
    std::uint8_t type;
    Bytes descriptor = {}; ///< tag and contents; none if empty
};

struct Program
{
    std::uint16_t number;
    std::uint16_t pid;
};

/// The name and the provider are given in the coding of the broadcast.
struct Service
{
    std::uint16_t id;
    std::string name;
    std::string provider;
};

/// Makes the packets of tables; its continuity counters go on from table to table.
class TableBuilder
{
 public:
    /// Takes effect for the tables that follow.
    void SetVersion(std::uint8_t version) { m_version = version; }
    void SetCurrent(bool current) { m_current = current; }

    /// @param perSection  programs in a section at most
    Bytes Pat(std::uint16_t streamId, const std::vector<Program>& programs, int perSection = 42);
    Bytes Pmt(std::uint16_t pid, std::uint16_t number, std::uint16_t pcrPid,
              const std::vector<Stream>& streams);

    /// @param tableId  0x42 for this stream's services, 0x46 for another stream's
    Bytes Sdt(std::uint16_t streamId, const std::vector<Service>& services,
              std::uint8_t tableId = 0x42);

    /// One section, cut into packets of @p pid.
    Bytes Packetise(std::uint16_t pid, const Bytes& section);

 private:
    std::uint8_t m_version = 0;
    bool m_current = true;
    std::map<std::uint16_t, std::uint8_t> m_counters;
};

/// Appends the bytes of @p more to @p bytes.
void operator+=(Bytes& bytes, const Bytes& more);
Bytes operator+(Bytes bytes, const Bytes& more);

} // namespace made
