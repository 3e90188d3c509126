#include "World.h"

#include "Actor.h"

namespace storm {

Slot::Slot() = default;
Slot::~Slot() = default;

World::World(unsigned threadCount, unsigned tasks) : threads(threadCount)
{
    for (unsigned i = 0; i < tasks; ++i) {
        slots.push_back(std::make_unique<Slot>());
    }
}

World::~World() = default;

std::string AppNameOf(unsigned thread)
{
    return (thread % 2 == 0 ? "storm" : "storm-with-a-long-name") + std::to_string(thread);
}

} // namespace storm
