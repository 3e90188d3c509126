// What a storm thread does to tasks while it is inside their slot.

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>

#include "Actor.h"
#include "DeprecatedPing.h"
#include "KitTask.h"
#include "KitTimers.h"
#include "Worker.h"

namespace storm {

/// A task whose thread ended at once would never release a synchronous sender.
bool Worker::Send(Actor* actor, bool sync)
{
    Shot shot = DrawShot(&m_random, actor->Queues());
    shot.sync = sync && actor->Runs();
    return ShootAt(actor, m_number, shot, Below(&m_random, 64));
}

/// Asks and posts need a task of the kit; a storm of few tasks has none.
bool Worker::SendTyped(Actor* actor, bool asks)
{
    if (actor->Kit() == nullptr) {
        return Send(actor, false);
    }
    return asks ? AskWithMessage(actor, m_number, &m_random)
                : PostMessage(actor, m_number, &m_random);
}

/// Does something to a timer.
void Worker::Time(Actor* actor)
{
    if (actor->Kit() != nullptr && OneIn(&m_random, 2)) {
        actor->TimersOfKit()->Control(&m_random);
    } else {
        actor->Timer(Below(&m_random, Actor::TIMERS))->Control(&m_random);
    }
}

/// As many as a queue can hold, and more, or until it is full.
bool Worker::Burst(Actor* actor)
{
    Shot shot = DrawShot(&m_random, actor->Queues());
    const unsigned handler = Below(&m_random, 64);
    for (unsigned shots = Below(&m_random, 400); shots > 0; --shots) {
        shot.attached = !shot.attached;
        shot.command = m_random();
        if (!ShootAt(actor, m_number, shot, handler)) {
            return false;
        }
    }
    return true;
}

/// Pauses and resumes.
///
/// A pause may wait for a task that waits in a synchronous send for another paused one. So whoever
/// has paused a task waits for nothing until it has resumed it: neither for another pause, nor for
/// an answer. Then the paused task with the highest number is always resumed, and so, one by one,
/// the others.
bool Worker::Pause(Actor* actor)
{
    if (!actor->Runs()) {
        return false; // nobody would resume it
    }
    const std::uint64_t resumes = actor->ResumesEnded();
    try {
        if (!actor->Task()->Pause()) {
            return false; // the queue is full
        }
    } catch (const std::future_error&) {
        // A clear-queue has deleted the request, which is known to do this. The exception is not
        // looked into: it is shared with the task's thread, by a counter in the standard library
        // that the thread sanitizer does not see.
        return false;
    }
    for (unsigned deeds = Below(&m_random, 5); deeds > 0; --deeds) {
        ActInPause(actor);
    }
    actor->CheckPaused(resumes);
    actor->Resume(); // others may have done it already
    return true;
}

/// Nothing that waits for a task.
bool Worker::ActInPause(Actor* actor)
{
    switch (Below(&m_random, 8)) {
        case 0:
            return Burst(actor);
        case 1:
            return Delete(actor);
        case 2:
            return Look(actor);
        case 3:
            Time(actor);
            return true;
        case 4:
            actor->Alarm(Below(&m_random, Actor::ALARMS))->Control(&m_random);
            return true;
        case 5:
            return TCTask::Ping(actor->Task(), 0);
        case 6:
            std::this_thread::sleep_for(std::chrono::microseconds(Below(&m_random, 3000)));
            return true;
        default:
            return Send(actor, false);
    }
}

/// The answer is waited for at most for a few milliseconds, so that some are still queued when
/// their requester has gone.
bool Worker::Clear(Actor* actor)
{
    const unsigned long wait = Below(&m_random, 6);
    if (actor->MultiQueue() != nullptr && !OneIn(&m_random, 8)) {
        const int queue = static_cast<int>(Below(&m_random, actor->Queues()));
        return TCMultiQTask::ClearQueue(actor->MultiQueue(), queue, wait);
    }
    return TCTask::ClearQueue(actor->Task(), wait);
}

/// Deletes from queue 0 what is for one of the handlers. Of the task's own only user events: among
/// the others are requests that somebody waits for.
bool Worker::Delete(Actor* actor)
{
    TCTask* const task = actor->Task();
    SubHandler* const handler = actor->Handler(Below(&m_random, Actor::HANDLERS + 1));
    const unsigned most = 1 + Below(&m_random, 8);
    const bool all = OneIn(&m_random, 2);
    unsigned int deleted = 0;
    bool any = false;
    if (handler == nullptr) {
        const Deletion deletion(actor->OwnReceiver().get(), 0);
        TCHandler* const own = task;
        any = all ? task->Delete(own, TCTask::EVENT_USER, &deleted)
                  : task->DeleteEx(own, TCTask::EVENT_USER, most, &deleted);
    } else {
        const Deletion deletion(handler->receiver.get(), 0);
        any = all ? task->Delete(handler, &deleted)
                  : task->DeleteEx(handler, TCTask::EVENT_USER, most, &deleted);
    }
    if (any != (deleted > 0) || (!all && deleted > most)) {
        m_world->ledger.Complain("a deletion answered " + std::to_string(static_cast<int>(any)) +
                                 " and deleted " + std::to_string(deleted));
    }
    return true;
}

/// Looks at queues and names.
bool Worker::Look(Actor* actor)
{
    constexpr std::size_t CAPACITY = 256;

    TCTask* const task = actor->Task();
    unsigned int found = 0;
    const bool any = task->Find(static_cast<TCHandler*>(task), &found);
    const unsigned queue = Below(&m_random, std::max(actor->Queues(), 1U));
    // A multi-queue task whose thread ended keeps its queues until it is destroyed.
    const std::size_t size = actor->MultiQueue() != nullptr
                                 ? actor->MultiQueue()->Size(static_cast<int>(queue))
                                 : task->Size();
    if (any != (found > 0) || found > CAPACITY || size > CAPACITY) {
        m_world->ledger.Complain("a queue holds " + std::to_string(size) + " events, of which " +
                                 std::to_string(found) + " were found");
    }
    if (std::string(task->Name()).find("storm-task-") != 0) {
        m_world->ledger.Complain(std::string("a task is called ") + task->Name());
    }
    return true;
}

/// Pings a task that may be on its way out, or gone: the registry decides.
bool Worker::Ping(Slot* slot)
{
    const unsigned long wait = Below(&m_random, 4);
    if (OneIn(&m_random, 8)) { // the one that does not ask the registry
        const Use use(&slot->use);
        return use && zortest::DeprecatedPing(slot->actor->Task(), wait);
    }
    return TCTask::Ping(slot->lastTask.load(), wait);
}

/// Walks the registry. While its lock is held no task can be destroyed.
bool Worker::Registry()
{
    const int steps = static_cast<int>(Below(&m_random, 24));
    const std::string name = "storm-task-" + std::to_string(Below(&m_random, 24));
    bool found = false;
    TCTaskList::m_mutex.Lock();
    if (TCTaskList::Seek(steps) && TCTaskList::Task() != nullptr) {
        TCTask* const task = TCTaskList::Task();
        found = TCTaskList::Find(task->Name());
        if (!found || !TCTaskList::Find(task)) {
            m_world->ledger.Complain("a task of the registry cannot be found");
        }
    }
    if (TCTaskList::Find(name.c_str()) && name != TCTaskList::Task()->Name()) {
        m_world->ledger.Complain("the registry found another task than " + name);
    }
    TCTaskList::m_mutex.Unlock();
    return found;
}

} // namespace storm
