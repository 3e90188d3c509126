#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace tsmon {

/// The programme clock reference in the packet at @p packet (PACKET_SIZE bytes), in ticks of 27 MHz
/// that begin anew every 26.5 hours; nothing if it carries none.
std::optional<std::uint64_t> PcrOf(const std::uint8_t* packet);

/// The time of a stream, from its clock references.
///
/// It follows the first PID that carries any, and another one only if that has fallen silent. It
/// never goes back: where the references jump (by announcement, backwards or by more than a few
/// seconds) it stands still and goes on from there.
///
/// Knows nothing of threads and of the wall clock; one thread at a time may use it.
class PcrClock
{
 public:
    /// Takes the next packet of the stream.
    ///
    /// @return whether the packet carries a reference that the clock follows
    bool Push(const std::uint8_t* packet);

    /// Whether there has been a reference at all.
    bool IsRunning() const { return m_pid.has_value(); }

    /// The stream's time since its first reference.
    std::chrono::microseconds Time() const;

 private:
    std::optional<std::uint16_t> m_pid; ///< whose references are followed
    std::uint64_t m_last = 0;           ///< the last of them
    std::uint64_t m_elapsed = 0;        ///< ticks since the first
    int m_others = 0;                   ///< references of other PIDs since m_last
};

/// Holds a stream to its own time.
///
/// What was missed by more than a second (the process was stopped, the input was late) is not
/// caught up on: the stream goes on from where it stands.
class Pacer
{
 public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Whether what stands at @p streamTime may be played at @p now. The first call sets the pace.
    bool IsDue(std::chrono::microseconds streamTime, TimePoint now);

    /// The next call of IsDue() sets the pace anew. For the end of a pause.
    void Restart() { m_start.reset(); }

 private:
    std::optional<TimePoint> m_start; ///< when stream time 0 was played
};

} // namespace tsmon
