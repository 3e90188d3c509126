#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Report.h"

namespace zorsim {

/// What became of a run. Everything but PASSED is something found, except NOT_SIMULATED: the
/// program does what the simulator does not, or could not be started.
enum class Outcome
{
    PASSED,
    FAILED, ///< ended with another status than 0
    ABORTED,
    CRASHED,
    DEADLOCK,
    ENDLESS_WAIT,
    NO_PROGRESS,
    SPIN,
    STUCK,
    LIMIT,
    NOT_SIMULATED
};

const char* NameOf(Outcome outcome);

struct RunOptions
{
    std::vector<std::string> command;
    Settings settings = {};
    std::vector<Decision> decisions;        ///< with StrategyKind::REPLAY
    std::vector<std::string> filesToRemove; ///< before the run: what one that was ended has left
    double limitSec = 60;                   ///< of real time
    double spinSec = 5;                     ///< of real time without a step
    unsigned int processor = 0;
    bool randomAddresses = false;
    bool ownOutput = false; ///< whether the output is shown as it comes, and not kept
    bool gdb = false;
};

struct RunResult
{
    Outcome outcome = Outcome::PASSED;
    std::string what; ///< in words
    std::string output;
    std::unique_ptr<Report> report;
    std::vector<Decision> decisions;
    std::vector<Record> records;
};

/// Runs the program once.
///
/// @throws std::system_error if the means for it are missing
RunResult RunProgram(const RunOptions& options);

/// The library to preload: beside this program, or where it is installed; empty if there is none.
std::string LibraryPath();

} // namespace zorsim
