#pragma once

#include <string>

/// What a run left.
struct Ran
{
    int status = -1;
    std::string text; ///< of both outputs
};

/// Runs a line of the shell.
Ran RunShell(const std::string& command);

/// Runs the tool: options, and the test's program (by name, with arguments) if it is not empty.
Ran RunSim(const std::string& options, const std::string& program);

/// What stands behind @p begin in the text, up to the end of the line.
std::string LineAfter(const std::string& text, const std::string& begin);
