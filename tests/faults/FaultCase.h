#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>

#include "Seam.h"

/// @file
/// What the fault cases share: the line that each of them adds to the table in README.md, calls
/// that fail by their number, and a second thread that shows that nothing has stayed locked.

namespace zortest {

/// The fault case that a test is: one call out of the runtime that is made to fail, and what comes
/// of it. Declare it first; it is one line of the table, which is made of the tests that passed.
///
/// A test whose fault has not been injected by the end of the case fails.
class FaultCase
{
 public:
    /// @param call     the function that fails, as the linker or C++ knows it
    /// @param place    the function of the runtime that calls it
    /// @param outcome  what the caller of the runtime sees
    FaultCase(const std::string& call, const std::string& place, const std::string& outcome);
    ~FaultCase();

    FaultCase(const FaultCase&) = delete;
    FaultCase& operator=(const FaultCase&) = delete;

    /// A call has been made to fail. In the process of a death test it says so on standard error.
    /// Allocates nothing; any thread may call it.
    static void Injected();
};

/// Matches the output of a process in which a fault has been injected.
::testing::Matcher<const std::string&> HasInjectedFault();

/// Which thread's calls are counted.
enum class From
{
    HERE,     ///< the thread's that makes the fault
    ANYWHERE, ///< every thread's
};

/// Stands for each call and not for one of them.
constexpr int EACH = -1;

template <typename Signature>
class FailingCall;

/// Makes call @p number (from 0) of a seam fail for as long as it lives; the other calls go on to
/// the library.
template <typename Result, typename... Args>
class FailingCall<Result(Args...)>
{
 public:
    using Function = Result(Args...);

    /// @param answer  what the failing call returns
    /// @param error   what it leaves in errno
    FailingCall(Seam<Function>& seam, Result answer, int number = 0, From from = From::HERE,
                int error = EAGAIN)
        : m_takeover(seam,
                     [&seam, answer, number, from, error, thread = pthread_self(),
                      this](Args... args) -> Result {
                         const bool counts =
                             from == From::ANYWHERE || pthread_equal(thread, pthread_self());
                         if (!counts || (m_calls++ != number && number != EACH)) {
                             return seam.Real(args...);
                         }
                         FaultCase::Injected();
                         ++m_failed;
                         errno = error;
                         return answer;
                     })
    {}

    /// How many calls have been counted, and how many of them failed.
    int Calls() const { return m_calls; }
    int Failed() const { return m_failed; }

 private:
    std::atomic<int> m_calls{0};
    std::atomic<int> m_failed{0};
    Takeover<Function> m_takeover;
};

template <typename Signature, typename... Rest>
FailingCall(Seam<Signature>&, Rest&&...) -> FailingCall<Signature>;

/// Runs @p function on a thread of its own, which must come to its end: ends the process if it does
/// not within DEADLINE, because something has stayed locked.
void OnAnotherThread(const std::function<void()>& function);

} // namespace zortest

/// Expects that @p statement ends the process as @p predicate says, with @p matcher of its standard
/// error, after a fault has been injected there.
#define EXPECT_FAULT_EXIT(statement, predicate, matcher)                                \
    do {                                                                                \
        EXPECT_EXIT(statement, predicate,                                               \
                    ::testing::AllOf(::zortest::HasInjectedFault(),                     \
                                     ::testing::Matcher<const std::string&>(matcher))); \
        if (!HasFailure()) {                                                            \
            ::zortest::FaultCase::Injected();                                           \
        }                                                                               \
    } while (false)
