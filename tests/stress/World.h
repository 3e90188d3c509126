#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "Ledger.h"
#include "UseCount.h"

class TCTask;

namespace storm {

class Actor;

using Random = std::mt19937_64;

/// A number below @p bound.
inline unsigned Below(Random* random, unsigned bound)
{
    return static_cast<unsigned>((*random)() % bound);
}

/// True once in @p times.
inline bool OneIn(Random* random, unsigned times)
{
    return Below(random, times) == 0;
}

/// A place for a task. There are as many as there may be tasks, from the start to the end.
struct Slot
{
    Slot();
    ~Slot();

    /// Shut while there is no task, or it is on its way out. Who is inside may use the actor.
    UseCount use;

    std::mutex owner;              ///< tried by who wants to fill or to empty the slot
    std::unique_ptr<Actor> actor;  ///< changed by the owner while the slot is shut and unused
    std::unique_ptr<TCTask> spare; ///< guarded by owner: a destroyed task that can be made again

    /// The task that is or was here, for requests that look it up in the registry: they may be made
    /// of a task that is just being destroyed, or is gone.
    std::atomic<TCTask*> lastTask{nullptr};
};

/// What else is counted. All of it must be in balance at the end.
struct Counts
{
    std::atomic<std::uint64_t> tasksMade{0};
    std::atomic<std::uint64_t> tasksEnded{0};
    std::atomic<std::uint64_t> alarmsMade{0};
    std::atomic<std::uint64_t> alarmsEnded{0};
    std::atomic<std::uint64_t> timersMade{0};
    std::atomic<std::uint64_t> timersReleased{0};
    std::atomic<std::uint64_t> pausesBegun{0};
    std::atomic<std::uint64_t> pausesEnded{0};
    std::atomic<std::uint64_t> handled{0}; ///< tracked events, counted by the handlers
    std::atomic<std::uint64_t> alarmFirings{0};
    std::atomic<std::uint64_t> timerFirings{0};
    std::atomic<std::uint64_t> stateEvents{0};
    std::atomic<std::uint64_t> idleTurns{0};
    std::atomic<std::uint64_t> asksAnswered{0};
    std::atomic<std::uint64_t> asksFailed{0};
    std::atomic<std::uint64_t> probesSent{0};
    std::atomic<std::uint64_t> probesCalled{0};  ///< callbacks
    std::atomic<std::uint64_t> probesDropped{0}; ///< callbacks destroyed with their task
    std::atomic<std::uint64_t> lambdasMade{0};   ///< of timers and alarms of the kit
    std::atomic<std::uint64_t> lambdasFreed{0};
    std::atomic<std::uint64_t> lambdaCalls{0};
};

/// All that a storm works on.
struct World
{
    /// @param threads  storm threads. A thread's number as a sender is its index; behind them come
    ///                 the main thread and the tasks by their slots.
    World(unsigned threads, unsigned tasks);
    ~World();

    unsigned MainSender() const { return threads; }
    unsigned TaskSender(unsigned slot) const { return threads + 1 + slot; }

    /// Whether a slot's task is one of the kit. The odd ones are those of several queues.
    static bool IsForKit(unsigned slot) { return slot % 4 == 2; }

    /// One that is, in the same group of four slots; @p slot itself if the storm has none there.
    static unsigned KitSlotNear(unsigned slot, unsigned slots)
    {
        const unsigned near = slot / 4 * 4 + 2;
        return near < slots ? near : slot;
    }

    const unsigned threads;
    Ledger ledger;
    Counts counts;
    std::vector<std::unique_ptr<Slot>> slots;
};

/// The application name that a storm thread works under. Every other one is too long for a string
/// without memory of its own.
std::string AppNameOf(unsigned thread);

} // namespace storm
