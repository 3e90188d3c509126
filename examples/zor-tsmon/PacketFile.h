#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Packet.h"
#include "Packetiser.h"

namespace tsmon {

/// A file could not be opened or read; the text says why, without the file's name.
class InputError : public std::runtime_error
{
 public:
    using std::runtime_error::runtime_error;
};

/// The path that stands for standard input.
constexpr const char* STANDARD_INPUT = "-";

/// The size of the file at @p path in bytes; nothing if it is no regular file.
std::optional<std::uint64_t> SizeOf(const std::string& path);

/// Reads the packets of a transport stream file, a block at a time.
///
/// One thread at a time may use it; it holds the file open as long as it lives.
class PacketFile
{
 public:
    /// Opens the file, or standard input anew. Throws InputError if that fails or @p path is a
    /// directory.
    explicit PacketFile(const std::string& path);
    ~PacketFile();

    PacketFile(const PacketFile&) = delete;
    PacketFile& operator=(const PacketFile&) = delete;

    /// Whether Read() would not have to wait. Only a pipe or a device can make it.
    bool HasInput() const;

    /// Replaces the contents of @p block by the next packets, which may be none where the stream is
    /// damaged. Throws InputError if reading fails.
    ///
    /// @return false at the end of the file; @p block then holds the last packets
    bool Read(PacketBlock& block);

    /// Reads no more: replaces the contents of @p block by what was held back. A packet that has
    /// not been read to its end is left out, and is no damage. Read() may not be called afterwards.
    void Stop(PacketBlock& block);

    /// What has been read so far.
    const StreamCounts& Counts() const { return m_packetiser.Counts(); }

 private:
    int m_file = -1;
    std::vector<std::uint8_t> m_chunk;
    Packetiser m_packetiser;
};

} // namespace tsmon
