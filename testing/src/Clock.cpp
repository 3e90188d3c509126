#include "zor/testing/Clock.h"

#include <gtest/gtest.h>

#include <string>

#include "ProcessTime.h"

namespace zor::testing {

using std::chrono::nanoseconds;

Clock::Clock() : m_stopped(internal::Stop()), m_start(internal::Now())
{
    EXPECT_TRUE(m_stopped) << "there is another clock already";
}

Clock::~Clock()
{
    if (m_stopped) {
        internal::Go();
        ReportUnrest();
    }
}

void Clock::Advance(nanoseconds time)
{
    if (!internal::DrivesTime() || time.count() < 0) {
        ADD_FAILURE() << "a clock is moved forward, on the thread that made it";
        return;
    }
    internal::DriveFor(time);
    ReportUnrest();
}

nanoseconds Clock::Elapsed() const
{
    return internal::Now() - m_start;
}

std::optional<nanoseconds> Clock::UntilNext()
{
    Settle();
    const auto next = internal::EarliestDeadline();
    return next ? std::optional<nanoseconds>(*next - internal::Now()) : std::nullopt;
}

void Clock::ReportUnrest()
{
    const std::string unrest = internal::TakeUnrest();
    EXPECT_TRUE(unrest.empty()) << unrest;
}

} // namespace zor::testing
