#include "Shot.h"

#include <pthread.h>

#include "Task.h"

namespace storm {

namespace {

using TokenData = ZORManagedEventData<Token>;

std::uint32_t Low(pthread_t thread)
{
    return static_cast<std::uint32_t>(thread);
}

std::uint32_t Scrambled(std::uint64_t id)
{
    return static_cast<std::uint32_t>(id * 0x9E3779B97F4A7C15U >> 32);
}

TSEvent EventOf(Ledger* ledger, std::uint64_t id, unsigned sender, const Target& target,
                const Shot& shot)
{
    TSEvent event;
    event.receiver = target.handler;
    event.type = TCTask::EVENT_USER;
    event.flag = shot.flagged;
    event.param1 = sender;
    event.param2 = Scrambled(id);
    event.param3 = Low(pthread_self());
    event.param4 = static_cast<std::uint16_t>(Scrambled(id));
    event.param5 = id;
    event.param6 = shot.command;
    if (shot.attached) {
        event.setWrappedData(Token(ledger, id));
    }
    return event;
}

} // namespace

Shot DrawShot(Random* random, unsigned queues)
{
    Shot shot;
    shot.queue = queues > 1 ? Below(random, queues) : 0;
    shot.priority = OneIn(random, 4);
    shot.attached = OneIn(random, 2);
    shot.flagged = OneIn(random, 16);
    shot.command = (*random)();
    return shot;
}

bool Shoot(World* world, unsigned sender, const Target& target, const Shot& shot)
{
    Ledger& ledger = world->ledger;
    const std::uint64_t id = ledger.Send({target.receiver, sender, shot.queue, shot.sync,
                                          shot.priority, shot.attached, shot.direct});
    TSEvent event = EventOf(&ledger, id, sender, target, shot);
    // Queue 0 can be reached by both sends; the id decides.
    const bool accepted = target.queues > 0 && (shot.queue > 0 || id % 2 == 0)
                              ? TCMultiQTask::Send(&event, shot.sync, shot.priority, shot.queue)
                              : TCTask::Send(&event, shot.sync, shot.priority);
    ledger.Settle(id, accepted);
    if (accepted && shot.sync) {
        ledger.CheckAnswered(id);
    }
    if (event.param5 != id || (event.wrappedData != nullptr) != shot.attached) {
        ledger.Complain("sending event " + std::to_string(id) + " changed the sender's own");
    }
    const OwnRelease release;
    event.wrappedData.reset();
    return accepted;
}

void CheckContents(World* world, const TSEvent& event, const Facts& facts)
{
    const std::string name = "event " + std::to_string(facts.id);
    if (event.param1 != facts.sender || event.param2 != Scrambled(facts.id) ||
        event.param4 != static_cast<std::uint16_t>(Scrambled(facts.id))) {
        world->ledger.Complain(name + " arrived with other parameters than it was sent with");
    }
    if (event.wrappedData != nullptr) {
        const auto* const token = dynamic_cast<const TokenData*>(event.wrappedData.get());
        if (token == nullptr || token->data.Id() != facts.id) {
            world->ledger.Complain(name + " arrived with the attachment of another event");
        }
    }
    if (facts.direct) {
        return; // the queue has not stamped it
    }
    if (event.sender != event.param3) {
        world->ledger.Complain(name + " arrived with another sender's stamp");
    }
    // A task that sends works under the name of whoever it works for.
    if (facts.sender < world->threads &&
        (event.appName != AppNameOf(facts.sender) || event.appFlag != facts.sender)) {
        world->ledger.Complain(name + " arrived with application name '" + event.appName + "'");
    }
}

} // namespace storm
