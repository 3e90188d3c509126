#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "Run.h"

namespace zorsim {

struct Options
{
    std::uint64_t firstSeed = 1;
    std::uint64_t lastSeed = 1;
    bool isOneSeed = false; ///< --seed or --shrink: the one to look at
    bool shrink = false;
    bool keepGoing = false;
    bool verify = false;
    std::string strategy = "mixed";
    std::string replayFile;
    std::string decisionsFile;
    std::string traceFile;
    std::string traceJsonFile;
    unsigned int jobs = 1;
    RunOptions run; ///< of every run, but for seed and strategy
};

/// @return the exit code if there is nothing to run
std::optional<int> ParseOptions(int argc, const char* const* argv, Options* options,
                                std::ostream& out, std::ostream& err);

/// The strategy that the seed has: its own part of the mixture, or the one that was asked for.
StrategyKind StrategyOf(const Options& options, std::uint64_t seed);

/// The command line that repeats the run.
std::string RepeatLine(const Options& options, const Settings& settings);

} // namespace zorsim
