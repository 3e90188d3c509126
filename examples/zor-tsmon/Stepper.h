#pragma once

#include <bitset>
#include <chrono>
#include <deque>
#include <optional>
#include <string>

#include "Batch.h"
#include "Packet.h"
#include "PacketFile.h"
#include "PcrClock.h"
#include "StreamMeter.h"

namespace tsmon {

/// Tells packets of elementary streams from those that may carry tables.
///
/// A PID is an elementary stream's from a packet on that begins an elementary stream's unit until
/// one begins anything else. No section begins like such a unit, so no table is ever taken for a
/// stream; what cannot be told (scrambled streams, data in sections) counts as tables.
class StreamSorter
{
 public:
    /// Whether the next packet of the stream belongs to an elementary stream.
    bool IsElementary(const std::uint8_t* packet);

 private:
    std::bitset<0x2000> m_elementary; ///< by PID
};

/// Reads a file in small steps that never wait, so that whoever takes them can be interrupted
/// between any two.
///
/// Knows nothing of threads; one thread at a time may use it.
class Stepper
{
 public:
    enum class Step
    {
        READ,  ///< a block has been read; there may be batches
        BATCH, ///< Take() gives the next batch
        WAIT,  ///< neither can be done yet: ask again later
        END,   ///< everything has been read and taken
    };

    /// Opens the file at @p path. Throws InputError if it cannot be read.
    ///
    /// @param realtime  whether batches are held back until their time, by the stream's clock
    Stepper(const std::string& path, bool realtime);

    /// Does the next step. Throws InputError if reading fails.
    Step Advance(Pacer::TimePoint now);

    /// Whether it was for input that the last step had to wait, and not for the clock.
    bool AwaitsInput() const { return m_awaitsInput; }

    /// Hands over the batch that Advance() has just announced.
    Batch Take();

    /// Reads no more. What has been read is still to be taken, and none of it is held back.
    void Stop();

    /// The next batch is due when it is asked for, and sets the pace of those that follow.
    void RestartPace() { m_pacer.Restart(); }

    /// What has been read so far.
    const StreamCounts& Counts() const { return m_file.Counts(); }

    /// Whether Stop() came before the end of the file.
    bool IsStopped() const { return m_stopped; }

    /// Whether there is a clock to play at. Always false without `realtime`.
    bool HasClock() const { return m_clock.IsRunning(); }

 private:
    void Sort(const PacketBlock& block);
    void Append(PacketBlock& tables, PacketBlock& streams);

    PacketFile m_file;
    const bool m_realtime;
    bool m_ended = false;
    bool m_stopped = false;
    bool m_awaitsInput = false;
    StreamMeter m_meter;
    StreamSorter m_sorter;
    PcrClock m_clock;
    Pacer m_pacer;
    std::deque<Batch> m_batches; ///< read and not taken
};

} // namespace tsmon
