#pragma once

#include <cstdint>
#include <memory>

#include "Event.h"
#include "World.h"

/// @file
/// Events with an entry in the ledger.
///
/// | field | holds |
/// |---|---|
/// | param1 | number of the sending thread |
/// | param2, param4 | made from the id, to see that they arrive as they were sent |
/// | param3 | low half of the sending thread's handle, which the queue must stamp as well |
/// | param5 | id |
/// | param6 | what the handler is to do; see Actor::Act() |

namespace storm {

/// Who is sent to.
struct Target
{
    TCHandler* handler = nullptr;
    std::shared_ptr<Receiver> receiver;
    unsigned queues = 0; ///< 0 for a task that is no multi-queue task
};

/// How.
struct Shot
{
    unsigned queue = 0;
    bool sync = false;
    bool priority = false;
    bool attached = false;
    bool flagged = false; ///< through the trap points
    bool direct = false;  ///< synchronous, from the receiving task to itself
    std::uint64_t command = 0;
};

/// Draws all but what decides about waiting.
Shot DrawShot(Random* random, unsigned queues);

/// Sends an event, and has its entry opened and settled.
/// @return what the send returned
bool Shoot(World* world, unsigned sender, const Target& target, const Shot& shot);

/// Looks whether an event has arrived as Shoot() sent it, and complains if not.
void CheckContents(World* world, const TSEvent& event, const Facts& facts);

} // namespace storm
