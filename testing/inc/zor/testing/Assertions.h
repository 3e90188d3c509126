#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "zor/testing/Link.h"

/// @file
/// Failed assertions (`TCASSERT`) of the runtime and of the application.
///
/// In a program that is linked with zor::testing a failed assertion is a failure of the test that
/// runs, with the asserted text, the place, the thread and its call stack, and the program goes on
/// past it, as in a release build; whichever thread asserts, and whatever `IsRelease()` answers.
/// Going on may be undefined behaviour, which the header of the operation says. To test such a
/// misuse write a death test: in its child an assertion writes its report to standard error and
/// aborts.
///
///     EXPECT_ZOR_ASSERT(handler.OnEvent(nullptr), "event != NULL");
///     EXPECT_DEATH(semaphore.Take(), "FlagCreate\\(\\) == true");
///
/// It is done by taking over `fopen` for "/dev/console", where assertions report to: the program
/// must not open that path itself. A `test::TSCustomAssert::callback` that a test sets goes first,
/// and nothing here happens then.

namespace zor::testing {

/// A failed assertion.
struct Assertion
{
    std::string text;       ///< what was asserted, byte for byte
    std::string file;       ///< where
    unsigned long line = 0; ///< and on which line
    std::string threadName; ///< of the thread that asserted
    std::string report;     ///< all that would have gone to the console
};

/// Keeps the failed assertions of all threads for as long as it lives, instead of letting them fail
/// the test. Of several the one made last gets them. Any thread may call anything.
class Assertions
{
 public:
    Assertions();
    ~Assertions();

    Assertions(const Assertions&) = delete;
    Assertions& operator=(const Assertions&) = delete;

    /// Those so far, oldest first.
    std::vector<Assertion> Get() const;

    /// Only their texts.
    std::vector<std::string> Texts() const;
};

namespace internal {

/// Runs @p statement and compares the texts of the assertions that failed meanwhile.
::testing::AssertionResult Asserts(const std::function<void()>& statement,
                                   const std::vector<std::string>& texts);

} // namespace internal

} // namespace zor::testing

/// Expects that the assertions which fail while @p statement runs are those of the given texts,
/// byte for byte and in this order, on whichever threads; at least one text must be given.
#define EXPECT_ZOR_ASSERT(statement, ...) \
    EXPECT_TRUE(::zor::testing::internal::Asserts([&] { statement; }, {__VA_ARGS__}))
