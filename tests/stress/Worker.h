#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "World.h"

class TCHandler;

namespace storm {

/// What a storm thread does. The order is that of the names and of the table of weights.
enum class Operation : std::uint8_t
{
    SEND,
    SEND_SYNC,
    POST,
    ASK,
    BURST,
    PAUSE,
    PING,
    CLEAR,
    DELETE,
    LOOK,
    TIMER,
    ALARM,
    REGISTRY,
    CREATE,
    DESTROY,
    COUNT, ///< how many there are; and what a thread does between two
};

constexpr std::size_t OPERATIONS = static_cast<std::size_t>(Operation::COUNT);

const char* NameOf(Operation operation);

/// One thread of the storm, and what the watchdog and the reports see of it.
class Worker
{
 public:
    /// @param number  its number as a sender
    Worker(World* world, unsigned number, std::uint64_t seed);

    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// Draws operations and does them until @p stop. On the thread that is this worker's.
    void Run(const std::atomic<bool>& stop);

    /// Makes the task of an empty slot, or ends that of a full one. Nothing happens while somebody
    /// else is at it.
    void TurnOver(unsigned slot);

    /// Ends the task of a slot, if there is one.
    void Empty(unsigned slot);

    /// What the watchdog sees.
    struct Doing
    {
        Operation operation;
        unsigned slot;
        std::uint64_t steps; ///< operations done; the same as long as one lasts
    };

    Doing Now() const;
    std::uint64_t Done(Operation operation) const;
    std::uint64_t Failed(Operation operation) const;

 private:
    void Step();
    void Begin(Operation operation, unsigned slot);
    void End(bool succeeded);
    Operation Draw();

    bool Do(Operation operation, Actor* actor);
    bool Send(Actor* actor, bool sync);
    bool SendTyped(Actor* actor, bool asks);
    bool Burst(Actor* actor);
    void Time(Actor* actor);
    bool Pause(Actor* actor);
    bool ActInPause(Actor* actor);
    bool Clear(Actor* actor);
    bool Delete(Actor* actor);
    bool Look(Actor* actor);
    bool Ping(Slot* slot);
    bool Registry();
    void Fill(Slot* slot, unsigned number);
    void Drain(Slot* slot);
    void EndActor(Slot* slot, unsigned number);

    World* const m_world;
    const unsigned m_number;
    Random m_random; ///< only its thread
    std::atomic<Operation> m_operation{Operation::COUNT};
    std::atomic<unsigned> m_slot{0};
    std::atomic<std::uint64_t> m_steps{0};
    std::array<std::atomic<std::uint64_t>, OPERATIONS> m_done{};
    std::array<std::atomic<std::uint64_t>, OPERATIONS> m_failed{};
};

} // namespace storm
