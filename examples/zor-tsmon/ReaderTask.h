#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "Messages.h"
#include "Options.h"
#include "Stepper.h"

namespace tsmon {

/// To the reader, from itself: go on.
struct GoOn
{};

/// To the reader: read no more.
struct NoMore
{};

/// Reads a file into the queues of a parser, a step for each message that it sends itself, so that
/// stop, pause and ping come in between any two. Where it has to wait (for room in a queue, for the
/// stream's clock or for input) it sends itself nothing, and goes on when it is idle.
///
/// A timer runs while it waits for input. When it fires it reports a loss of input, or that there
/// is data but no packets are in it; each once, until packets have come again. A pause halts the
/// timer too. Much data without a packet is reported however fast it comes, and a regular file that
/// begins with it is given up.
class ReaderTask : public zor::Task<ReaderTask, GoOn, NoMore>
{
 public:
    /// @param realtime  whether to read at the stream's own clock
    /// @param parser    gets MESSAGE_PACKETS, each in the queue of its kind, and behind all of them
    ///                  one MESSAGE_END in QUEUE_STREAMS; must outlive the task
    /// @param inputTimeout  how long input that is waited for may bring no packet
    ReaderTask(std::string path, bool realtime, TCMultiQTask& parser,
               std::chrono::milliseconds inputTimeout = DEFAULT_INPUT_TIMEOUT);

    /// Creates the task and has it begin. EndTask() ends it.
    bool Start();

    /// Has it read no more. What it has read is still handed over, without regard to the clock. Any
    /// thread but the task's own may call while the task is created.
    void StopReading();

    void t_Idle() override;
    void t_OnPause(const TSEvent* event) override;
    void t_OnResume(const TSEvent* event) override;

    /// How often a queue had no room for a block, or for the end. Any thread may call.
    std::uint64_t Refusals() const { return m_refusals; }

    /// How many bytes have been read. Any thread may call.
    std::uint64_t BytesRead() const { return m_bytesRead; }

    /// How often input was lost, and whether it is now. Any thread may call.
    std::uint64_t InputLosses() const { return m_inputLosses; }
    bool IsInputLost() const { return m_isInputLost; }

    /// How often there was data but no packet in it, and whether it is so now. Any thread may call.
    std::uint64_t PacketlessInputs() const { return m_packetlessInputs; }
    bool IsPacketless() const { return m_isPacketless; }

    // What follows may be read while the task is paused, and once it has ended.

    const std::string& Failure() const { return m_failure; }
    StreamCounts Counts() const { return m_stepper ? m_stepper->Counts() : StreamCounts(); }

    /// Whether StopReading() came before the end of the file.
    bool IsStopped() const { return m_stepper && m_stepper->IsStopped(); }

    /// Whether there was no clock to read at.
    bool LacksClock() const { return m_realtime && m_stepper && !m_stepper->HasClock(); }

 private:
    friend zor::Access;

    void On(const GoOn& /*step*/) { Step(); }
    void On(const NoMore& stop);

    void Step();
    bool DoStep();
    bool SendUnsent();
    TSEvent ToParser(EMessage type, EParserQueue queue);
    void LogDamage();
    void LogPacketSize();

    void OnRead();
    void OnPackets();
    void OnBytesWithoutPackets();
    void ReportPacketless();
    std::uint64_t BytesSincePacket() const { return m_bytesRead - m_bytesAtPacket; }
    void AwaitInput();
    void EndWaitForInput();
    void OnInputTimeout();

    const std::string m_path;
    const bool m_realtime;
    TCMultiQTask& m_parser;
    const std::chrono::milliseconds m_inputTimeout;
    std::atomic<std::uint64_t> m_refusals{0};
    std::atomic<std::uint64_t> m_bytesRead{0}; ///< written by the task's thread, as are the next
    std::atomic<std::uint64_t> m_inputLosses{0};
    std::atomic<bool> m_isInputLost{false};
    std::atomic<std::uint64_t> m_packetlessInputs{0};
    std::atomic<bool> m_isPacketless{false};

    // The task's thread's only while it runs.
    zor::Timer m_inputTimer; ///< of nothing unless input is waited for
    std::chrono::steady_clock::time_point m_waitingSince;
    std::uint64_t m_packetsRead = 0;   ///< sound or not
    std::uint64_t m_bytesAtPacket = 0; ///< how many had been read with the last packet
    bool m_isFile = false;             ///< a regular one, which has an end
    std::optional<Stepper> m_stepper;  ///< from the first step on, if the file could be opened
    std::optional<TSEvent> m_unsent;   ///< made for the parser, not yet in its queue
    bool m_hasEnded = false;           ///< the end is with the parser
    std::uint64_t m_loggedDamage = 0;
    std::size_t m_loggedPacketSize = PACKET_SIZE;
    std::string m_failure;
};

} // namespace tsmon
