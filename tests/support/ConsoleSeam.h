#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "Seam.h"

/// @file
/// What a failed assertion does to the outside world, under a test's control: the console, the
/// pause that lets it drain, and whether this is a release build.
///
/// Linked into a program, it opens standard error in place of "/dev/console", says that this is no
/// release build (so a failed assertion aborts), and leaves out the pause of a failed assertion.

namespace zortest {

/// Takes over `ZorApiLite::LiteUtility::SleepMs`, but for the pauses of failed assertions.
extern Seam<void(unsigned long)> sleepMsSeam;

/// Collects the reports of failed assertions for as long as it lives, and makes the process a
/// release build, so that it survives them. One at a time; any thread may fail meanwhile.
class ConsoleCapture
{
 public:
    ConsoleCapture();
    ~ConsoleCapture();

    ConsoleCapture(const ConsoleCapture&) = delete;
    ConsoleCapture& operator=(const ConsoleCapture&) = delete;

    /// Everything written to the console so far.
    std::string Text() const;

    /// The texts of the failed expressions, in the order of the reports.
    std::vector<std::string> Failed() const;

    /// The pauses that failed assertions asked for, in milliseconds.
    std::vector<unsigned long> Pauses() const;
};

/// Makes opening "/dev/console" fail with ENOENT, or work again.
void SetConsoleMissing(bool missing);

/// What is called when a failed assertion pauses, once for each, on its thread.
void OnAssertionPause(std::function<void()> function);

/// What `ZorApiLite::LiteUtility::IsRelease()` answers.
void SetRelease(bool release);

/// Runs @p function as in a release build.
/// @return the texts of the assertions that failed meanwhile, on whatever thread, in order
std::vector<std::string> AssertionsOf(const std::function<void()>& function);

/// Matches the output of a process in which an assertion with exactly the text @p expression
/// failed.
::testing::Matcher<const std::string&> HasAssertionReport(const std::string& expression);

} // namespace zortest

/// Expects that @p statement dies of a failed assertion with exactly the text @p expression.
#define EXPECT_ASSERT_DEATH(statement, expression)             \
    EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGABRT), \
                ::zortest::HasAssertionReport(expression))

/// The same, of an assertion in that source: what it stands on may assert the same text.
#define EXPECT_ASSERT_DEATH_IN(file, statement, expression)                 \
    EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGABRT),              \
                ::testing::AllOf(::zortest::HasAssertionReport(expression), \
                                 ::testing::HasSubstr(file " (")))
