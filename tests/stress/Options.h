#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace storm {

/// What the command line asks for.
struct Options
{
    std::chrono::seconds length{10};
    std::uint64_t seed = 0;
    unsigned threads = 8;
    unsigned tasks = 20;
    std::chrono::seconds reportEvery{0}; ///< 0: at the end only
    std::chrono::seconds hangAfter{60};
};

/// How the program ends.
enum ExitCode : int
{
    EXIT_BALANCED = 0,
    EXIT_UNBALANCED = 1,
    EXIT_USAGE = 2,
};

/// A command line, read.
struct CommandLine
{
    std::optional<Options> options; ///< nothing if there is no more to do than to print
    std::string output;             ///< for standard output
    std::string error;              ///< for standard error
    int exitCode = EXIT_BALANCED;   ///< without options: what to end the process with
};

/// Reads the arguments of `main()`, of which the first is the program's name.
CommandLine ReadCommandLine(int argc, const char* const* argv);

} // namespace storm
