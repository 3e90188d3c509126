#pragma once

#include "zor/testing/Wait.h"

namespace zortest {

using zor::testing::DEADLINE;
using zor::testing::Gate;

/// Waits until @p condition holds.
/// @return false if it does not within DEADLINE
template <typename Condition>
bool Eventually(Condition condition)
{
    return zor::testing::WaitUntil(condition);
}

} // namespace zortest
