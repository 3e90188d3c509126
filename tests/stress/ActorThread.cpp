// What an actor does on its task's thread.

#include <chrono>
#include <thread>

#include "Actor.h"
#include "KitTask.h"
#include "KitTimers.h"

namespace storm {

bool Actor::OnStart()
{
    m_thread = pthread_self();
    return !m_refuses;
}

bool Actor::IsElsewhere() const
{
    return pthread_equal(m_thread, pthread_self()) == 0;
}

/// Enters the handling of an event of that id into the ledger.
Facts Actor::Note(std::uint64_t id, Receiver* receiver)
{
    if (IsElsewhere()) {
        Complain("an event is handled on a foreign thread");
    }
    const Facts facts = m_world->ledger.Handle(id, receiver);
    m_world->counts.handled += facts.id != 0 ? 1 : 0;
    return facts;
}

void Actor::Handle(const TSEvent& event, Receiver* receiver)
{
    const Facts facts = Note(event.param5, receiver);
    if (facts.id == 0) {
        return;
    }
    m_users += receiver == m_receiver.get() ? 1 : 0;
    CheckContents(m_world, event, facts);
    if (!facts.direct) { // it has gone through a queue
        Work(facts, event.param6);
    }
}

void Actor::HandleMessage(std::uint64_t id, std::uint64_t command)
{
    const Facts facts = Note(id, m_receiver.get());
    if (facts.id != 0) {
        Work(facts, command);
    }
}

/// The turn of an event that was queued.
void Actor::Work(const Facts& facts, std::uint64_t command)
{
    if (m_inPause) {
        Complain("event " + std::to_string(facts.id) + " is handled in a pause");
    }
    const std::string wrong = m_order.Check(facts, m_lastEnd);
    if (!wrong.empty()) {
        Complain("event " + std::to_string(facts.id) + " of sender " +
                 std::to_string(facts.sender) + " is out of order: " + wrong);
    }
    Act(command);
    m_lastEnd = NextStamp();
}

void Actor::OnUser(const TSEvent& event)
{
    ++m_hooks;
    Handle(event, m_receiver.get());
}

void Actor::NoteFiring(const char* whose, Firings* firings, const TSEvent& event)
{
    if (IsElsewhere() || m_inPause) {
        Complain(std::string("a firing of a ") + whose +
                 " is handled on a foreign thread or in a "
                 "pause");
    }
    const std::string wrong = firings->Check(event.param2);
    if (!wrong.empty()) {
        Complain(std::string("a ") + whose + " is out of order: " + wrong);
    }
}

/// The exit event is wanted. It is taken next: it overtakes all that is queued.
void Actor::OnEnd()
{
    m_exitSent = m_exitSent || TrySendExit(true);
}

/// From here on nothing is handled. What is left in further queues goes when this event has been
/// handled, the rest with the task.
void Actor::OnExit()
{
    EndReceivers();
}

void Actor::EndReceivers()
{
    m_receiver->Ends();
    for (const auto& handler : m_handlers) {
        handler->receiver->Ends();
    }
}

/// Handlers and alarms end here: on any other thread one of their events might be on its way.
void Actor::OnLoopEnd()
{
    for (const auto& alarm : m_alarms) {
        alarm->End();
    }
    for (const auto& handler : m_handlers) {
        handler->TryEnd();
        if (handler->FlagCreate()) {
            Complain("somebody still sends to it");
        }
    }
    m_loopEnded = true;
}

void Actor::OnPause()
{
    if (m_inPause) {
        Complain("a pause begins in a pause");
    }
    m_inPause = true;
    ++m_world->counts.pausesBegun;
}

void Actor::OnResume()
{
    m_inPause = false;
    ++m_world->counts.pausesEnded;
}

void Actor::NoteRelease()
{
    ++m_world->counts.timersReleased;
    if (!m_loopEnded && IsElsewhere()) {
        Complain("a timer's data are released on a foreign thread");
    }
}

void Actor::NoteProbe(bool called, const std::string& wrong)
{
    ++(called ? m_world->counts.probesCalled : m_world->counts.probesDropped);
    if (!wrong.empty()) {
        Complain("the callback of a probe was called with " + wrong);
    }
    if (IsElsewhere() || m_inPause || called == m_loopEnded) {
        Complain(std::string("the callback of a probe was ") +
                 (called ? "called" : "destroyed uncalled") +
                 " on a foreign thread, in a pause, or not in its time");
    }
}

void Actor::NoteLambda(bool called)
{
    ++(called ? m_world->counts.lambdaCalls : m_world->counts.lambdasFreed);
    if ((IsElsewhere() && (called || !m_loopEnded)) || (called && (m_inPause || m_loopEnded))) {
        Complain(std::string("the lambda of a timer was ") + (called ? "called" : "freed") +
                 " on a foreign thread, in a pause, or behind the end");
    }
}

/// What the sender of an event wants its handler to do. Most want nothing.
void Actor::Act(std::uint64_t command)
{
    constexpr unsigned KINDS = 12;
    constexpr unsigned OF = 48;

    // 0 is what handlers send: it must not go on for ever.
    if (command == 0 || command % OF >= KINDS) {
        return;
    }
    Random random(command);
    switch (command % OF) {
        case 0:
        case 1:
        case 2:
            SendOn(&random, false);
            break;
        case 3:
            SendOn(&random, true);
            break;
        case 4:
            SendToItself(&random);
            break;
        case 5:
            if (OneIn(&random, 16)) {
                m_handlers[Below(&random, HANDLERS)]->TryEnd();
            }
            break;
        case 6:
            if (OneIn(&random, 8)) {
                m_alarms[Below(&random, ALARMS)]->End();
            }
            break;
        case 7:
            m_alarms[Below(&random, ALARMS)]->Make(&random);
            break;
        case 8:
        case 9:
            AskOthers(&random);
            break;
        case 10:
            if (m_kit != nullptr) {
                m_kitTimers->Control(&random);
            }
            break;
        default: // a slow handler, so that queues fill
            std::this_thread::sleep_for(std::chrono::microseconds(Below(&random, 500)));
            break;
    }
}

/// Sends to another task. Synchronously only to one with a higher number: tasks that waited for
/// each other in a circle would wait for ever. For the same reason nothing here pauses a task.
void Actor::SendOn(Random* random, bool sync)
{
    const auto slots = static_cast<unsigned>(m_world->slots.size());
    const unsigned first = sync ? m_slot + 1 : 0;
    if (first >= slots) {
        return;
    }
    Slot& slot = *m_world->slots[first + Below(random, slots - first)];
    const Use use(&slot.use);
    if (!use || (sync && !slot.actor->Runs())) {
        return;
    }
    Shot shot = DrawShot(random, slot.actor->Queues());
    shot.sync = sync;
    shot.command = 0;
    ShootAt(slot.actor.get(), m_world->TaskSender(m_slot), shot, Below(random, 64));
}

/// A synchronous priority event to the task itself, which is handled at once. An ordinary one would
/// wait for itself and is asserted.
void Actor::SendToItself(Random* random)
{
    Shot shot = DrawShot(random, m_queues);
    shot.sync = true;
    shot.priority = true;
    shot.direct = true;
    shot.command = 0;
    Shoot(m_world, m_world->TaskSender(m_slot), Self(), shot);
}

/// Asks a task of the kit, whatever its number: an ask ends by its deadline, so a circle of them
/// does. The task itself may be the one.
void Actor::AskOthers(Random* random)
{
    const auto slots = static_cast<unsigned>(m_world->slots.size());
    const unsigned number = World::KitSlotNear(Below(random, slots), slots);
    Slot& slot = *m_world->slots[number];
    const Use use(&slot.use);
    if (!use || slot.actor->Kit() == nullptr) {
        return;
    }
    switch (Below(random, 3)) {
        case 0:
            AskWithMessage(slot.actor.get(), m_world->TaskSender(m_slot), random);
            break;
        case 1:
            PostMessage(slot.actor.get(), m_world->TaskSender(m_slot), random);
            break;
        default:
            if (m_kit != nullptr) {
                SendProbe(this, slot.actor.get(), random);
            }
            break;
    }
}

} // namespace storm
