#pragma once

#include <cstddef>

#include "../../src/Patience.h"
#include "Layout.h"
#include "Thread.h"

namespace zortest {

/// What a semaphore has learnt about watching, for tests to read and to set.
inline zor::Habit& HabitOf(const TCSemaphore& semaphore)
{
    constexpr std::size_t STATE_OFFSET = 8;
    constexpr std::size_t HABIT_OFFSET = 76;
    auto* const state = FieldAt<char*>(semaphore, STATE_OFFSET);
    return *reinterpret_cast<zor::Habit*>(state + HABIT_OFFSET);
}

} // namespace zortest
