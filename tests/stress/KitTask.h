#pragma once

#include <cstdint>
#include <memory>

#include "Actor.h"
#include "zor/Task.h"

/// @file
/// The storm's tasks of the kit, and the typed messages that are sent to them.

namespace storm {

/// A message with an entry in the ledger that travels in the event itself.
struct Small
{
    std::uint64_t id;
    std::uint64_t command; ///< see Actor::Act()
    bool throws;           ///< whether its handler is to throw; only of one that is asked with
};

/// The same as an attachment. The sender has a share of the token until the entry is settled.
struct Large
{
    std::shared_ptr<const Token> token;
    std::uint64_t command;
    bool throws;
};

/// What a task asks another one without waiting. It has no entry in the ledger; the callbacks are
/// counted instead.
struct Probe
{
    std::uint64_t number;
};

/// A task that takes them, and answers with what tells one message from another.
class KitTask final : public StormTask<zor::Task<KitTask, Small, Large, Probe>>
{
 private:
    friend zor::Access;

    std::uint64_t On(const Small& message);
    std::uint64_t On(const Large& message);
    std::uint64_t On(const Probe& message) { return message.number; }

    std::uint64_t Handle(std::uint64_t id, std::uint64_t command, bool throws);
};

/// Posts a message with a way of sending that is drawn. Whoever calls is inside the actor's slot,
/// which is that of a task of the kit.
/// @return whether it was queued
bool PostMessage(Actor* actor, unsigned sender, Random* random);

/// Asks with a message, for a few milliseconds at most.
/// @return whether there was an answer
bool AskWithMessage(Actor* actor, unsigned sender, Random* random);

/// Asks with a probe, on the thread of @p asker, a task of the kit.
void SendProbe(Actor* asker, Actor* actor, Random* random);

} // namespace storm
