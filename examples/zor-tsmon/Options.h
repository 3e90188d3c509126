#pragma once

#include <optional>
#include <string>

namespace tsmon {

/// What the command line asks for.
struct Options
{
    std::string file;      ///< the transport stream file to read
    bool realtime = false; ///< at its own clock instead of as fast as possible
};

/// A command line, read.
struct CommandLine
{
    std::optional<Options> options; ///< nothing if there is no more to do than to print
    std::string output;             ///< for standard output
    std::string error;              ///< for standard error
    int exitCode = 0;               ///< without options: what to end the process with
};

/// Reads the arguments of `main()`, of which the first is the program's name.
CommandLine ReadCommandLine(int argc, const char* const* argv);

} // namespace tsmon
