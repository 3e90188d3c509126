#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Order.h"
#include "Parts.h"
#include "Shot.h"
#include "Task.h"
#include "World.h"

namespace storm {

class KitTask;
class KitTimers;

/// One life of a task: from its Create() to its Destroy(), with all that hangs on it. The owner of
/// its slot makes and ends it; what else may be called is said at each operation.
class Actor
{
 public:
    static constexpr unsigned short STATE_EVENT = 100;
    static constexpr unsigned short END_EVENT = 101;
    static constexpr unsigned HANDLERS = 3;
    static constexpr unsigned ALARMS = 2;
    static constexpr unsigned TIMERS = 2;

    Actor(World* world, unsigned slot, Random* random);
    ~Actor();

    Actor(const Actor&) = delete;
    Actor& operator=(const Actor&) = delete;

    /// Makes the task and what hangs on it.
    /// @param spare  a destroyed task of the slot to be made again, if there is one
    bool Start(std::unique_ptr<TCTask> spare, Random* random);

    /// Ends it all. Nobody uses the slot any more.
    /// @param sender  number of the calling thread
    /// @return the task, destroyed
    std::unique_ptr<TCTask> End(unsigned sender, Random* random);

    // For everybody inside the slot.

    World* GetWorld() const { return m_world; }
    TCTask* Task() const { return m_task.get(); }

    /// Null if the task is no multi-queue task.
    TCMultiQTask* MultiQueue() const { return m_multi; }
    unsigned Queues() const { return m_queues; }

    /// Null if the task is none of the kit.
    KitTask* Kit() const { return m_kit; }

    /// Whether events are handled: the threads of some tasks end at once.
    bool Runs() const { return !m_refuses; }

    Target Self() const;
    const std::shared_ptr<Receiver>& OwnReceiver() const { return m_receiver; }

    /// Null if there is none of that number.
    SubHandler* Handler(unsigned i) const { return i < HANDLERS ? m_handlers[i].get() : nullptr; }
    AlarmBox* Alarm(unsigned i) const { return m_alarms[i % ALARMS].get(); }
    TimerBox* Timer(unsigned i) const { return m_timers[i % TIMERS].get(); }

    /// Of a task of the kit.
    KitTimers* TimersOfKit() const { return m_kitTimers.get(); }

    /// Resumes the task, if it is paused.
    void Resume();

    /// How many resumes have returned; for CheckPaused().
    std::uint64_t ResumesEnded() const { return m_resumesEnded; }

    /// The task has been paused and must still be, unless somebody has resumed it.
    /// @param resumes  ResumesEnded(), from before the pause: if no resume has begun beyond these,
    ///                 none can have come after the pause
    void CheckPaused(std::uint64_t resumes);

    // For the task's thread.

    void Handle(const TSEvent& event, Receiver* receiver);
    void HandleMessage(std::uint64_t id, std::uint64_t command);
    void NoteFiring(const char* whose, Firings* firings, const TSEvent& event);

    bool OnStart();
    void OnUser(const TSEvent& event);
    void OnEnd();
    void OnExit();
    void OnLoopEnd();
    void OnPause();
    void OnResume();

    /// The user data of a timer are released: on the task's thread, or when its loop has ended.
    void NoteRelease();

    /// The callback of a probe was called or, after the loop, destroyed.
    /// @param wrong  what it was called with, if it should not have been
    void NoteProbe(bool called, const std::string& wrong);

    /// The lambda of a timer or alarm of the kit was called, or freed as the data of timers are.
    void NoteLambda(bool called);

 private:
    bool CreateTask(std::unique_ptr<TCTask> spare, Random* random);
    std::unique_ptr<TCTask> MakeTask() const;
    void SetCallbacks();
    static bool Before(const TSEvent* event, const void* actor);
    static bool After(const TSEvent* event, const void* actor);

    void Flush(unsigned sender);
    void PauseForEnd(unsigned sender, Random* random);
    void SendExit();
    bool TrySendExit(bool priority);
    void HaveExitSent();
    void CheckEnd();
    void EndReceivers();
    void Complain(const std::string& what);

    Facts Note(std::uint64_t id, Receiver* receiver);
    void Work(const Facts& facts, std::uint64_t command);
    bool IsElsewhere() const;

    void Act(std::uint64_t command);
    void SendOn(Random* random, bool sync);
    void SendToItself(Random* random);
    void AskOthers(Random* random);

    World* const m_world;
    const unsigned m_slot;
    const bool m_refuses;
    const bool m_hasCallbacks;
    const unsigned m_queues; ///< 0: not a multi-queue task
    const bool m_isKit;
    std::unique_ptr<TCTask> m_task;
    TCMultiQTask* m_multi = nullptr; ///< the same
    KitTask* m_kit = nullptr;        ///< the same
    const std::shared_ptr<Receiver> m_receiver = std::make_shared<Receiver>();
    std::array<std::unique_ptr<SubHandler>, HANDLERS> m_handlers;
    std::array<std::unique_ptr<AlarmBox>, ALARMS> m_alarms;
    std::array<std::unique_ptr<TimerBox>, TIMERS> m_timers;
    const std::unique_ptr<KitTimers> m_kitTimers;
    std::atomic<pthread_t> m_thread{0};   ///< set by itself
    std::atomic<bool> m_loopEnded{false}; ///< set by the task's thread
    std::atomic<bool> m_exitSent{false};  ///< by OnEnd()
    std::atomic<bool> m_inPause{false};   ///< set by the task's thread
    std::atomic<std::uint64_t> m_resumesBegun{0};
    std::atomic<std::uint64_t> m_resumesEnded{0};

    // Only the task's thread, and who has waited for its end.
    Order m_order;
    Stamp m_lastEnd = 0;         ///< of the handling before
    std::uint64_t m_users = 0;   ///< user events of the task's own handler
    std::uint64_t m_befores = 0; ///< of which the callback before has handled
    std::uint64_t m_hooks = 0;   ///< and the hook
    std::uint64_t m_afters = 0;  ///< calls of the callback after
};

/// A shot at the actor itself or at one of its handlers that lives. Whoever calls is inside the
/// actor's slot.
bool ShootAt(Actor* actor, unsigned sender, const Shot& shot, unsigned handler);

/// What a task of the storm shares with its actor.
class Hooks
{
 public:
    virtual ~Hooks();

    Actor* actor = nullptr; ///< set while the task is not created
};

/// A task whose hooks are its actor's.
template <typename Base>
class StormTask : public Base, public Hooks
{
 public:
    bool t_Create() override { return Base::t_Create() && actor->OnStart(); }
    void t_Idle() override { ++actor->GetWorld()->counts.idleTurns; }
    void t_Destroy() override { actor->OnLoopEnd(); }

    bool t_OnEvent(const TSEvent* event) override
    {
        if (event->type == Actor::STATE_EVENT) {
            ++actor->GetWorld()->counts.stateEvents;
            return true;
        }
        if (event->type == Actor::END_EVENT) {
            actor->OnEnd();
            return true;
        }
        return Base::t_OnEvent(event);
    }

    bool t_OnUser(const TSEvent* event) override
    {
        actor->OnUser(*event);
        return false;
    }

    bool t_OnExit(const TSEvent* /*event*/) override
    {
        actor->OnExit();
        return false; // the loop ends all the same
    }

    bool t_OnClearQueue(const TSEvent* event) override
    {
        const Deletion deletion(actor->OwnReceiver().get(),
                                actor->MultiQueue() != nullptr ? event->param2 : 0);
        return Base::t_OnClearQueue(event);
    }

    void t_OnPause(const TSEvent* /*event*/) override { actor->OnPause(); }
    void t_OnResume(const TSEvent* /*event*/) override { actor->OnResume(); }
};

} // namespace storm
