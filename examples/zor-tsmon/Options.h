#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace tsmon {

/// What is printed.
enum class Format
{
    TEXT, ///< a table
    JSON, ///< one document
};

/// How long input may be silent before it counts as lost.
constexpr std::chrono::seconds DEFAULT_INPUT_TIMEOUT{5};

/// What the command line asks for.
struct Options
{
    std::string file;      ///< the transport stream file to read; "-" is standard input
    bool realtime = false; ///< at its own clock instead of as fast as possible
    Format format = Format::TEXT;
    std::chrono::seconds every{0}; ///< from one table to the next on the way; 0 for none
    std::chrono::seconds inputTimeout = DEFAULT_INPUT_TIMEOUT;

    /// What messages call the file.
    std::string InputName() const { return file == "-" ? "standard input" : file; }
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
