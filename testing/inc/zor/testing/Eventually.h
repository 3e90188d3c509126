#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <type_traits>
#include <utility>

#include "zor/testing/Wait.h"

/// @file
/// Expectations of what other threads do sooner or later. Header-only.

namespace zor::testing {

/// Waits until @p condition holds: `EXPECT_TRUE(Eventually([&] { return meter.IsTuned(); }));`
///
/// @param condition  called on this thread, at least once and then every millisecond of real time.
///                   It returns anything that converts to bool; with an `AssertionResult` the
///                   failure says what the last look saw:
///
/// @code
/// Eventually([&] { return ::testing::AssertionResult(box.Size() == 3) << box.Size(); })
/// @endcode
///
/// @param deadline   in real time, whatever a Clock does
/// @return success, or a failure that says how long and how often it looked, and what it saw last
template <typename Condition>
::testing::AssertionResult Eventually(Condition condition,
                                      std::chrono::nanoseconds deadline = DEADLINE)
{
    using Seen = std::decay_t<decltype(condition())>;

    unsigned long looks = 0;
    std::string last;
    const bool holds = WaitUntil(
        [&]() -> bool {
            ++looks;
            if constexpr (std::is_same_v<Seen, ::testing::AssertionResult>) {
                const ::testing::AssertionResult seen = condition();
                last = seen.message();
                return seen;
            } else {
                return static_cast<bool>(condition());
            }
        },
        deadline);
    if (holds) {
        return ::testing::AssertionSuccess();
    }
    auto failure = ::testing::AssertionFailure();
    failure << "did not hold within "
            << std::chrono::duration_cast<std::chrono::milliseconds>(deadline).count() << " ms ("
            << looks << (looks == 1 ? " look)" : " looks)");
    if (!last.empty()) {
        failure << "; saw last: " << last;
    }
    return failure;
}

/// Waits until what @p get returns equals @p expected:
/// `EXPECT_TRUE(EventuallyEqual(3, [&] { return box.Size(); }));`
///
/// @return success, or a failure that shows both the expected and the last value
template <typename Expected, typename Get>
::testing::AssertionResult EventuallyEqual(const Expected& expected, Get get,
                                           std::chrono::nanoseconds deadline = DEADLINE)
{
    return Eventually(
        [&] {
            const auto seen = get();
            return ::testing::AssertionResult(seen == expected)
                   << ::testing::PrintToString(seen) << ", expected "
                   << ::testing::PrintToString(expected);
        },
        deadline);
}

} // namespace zor::testing
