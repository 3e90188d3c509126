#pragma once

/// @file
/// What the platform's small facts have to know of the assertion that the calling thread reports.

namespace zor::testing::internal {

/// Whether the pause that the calling thread asks for is the one after an assertion's report.
bool PausesForAssertion();

/// Answers the question whether a failed assertion is to abort: false if the calling thread asks
/// for another reason; otherwise stores the answer.
bool AnswersAssertion(bool* goesOn);

} // namespace zor::testing::internal
