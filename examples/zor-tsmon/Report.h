#pragma once

#include <cstddef>
#include <ostream>
#include <string>

#include "Options.h"
#include "Outcome.h"

namespace tsmon {

/// How to print.
struct ReportStyle
{
    Format format = Format::TEXT;
    std::size_t width = 80; ///< of the lines of a table, in columns
};

/// Says on @p err that standard output could not be written.
///
/// @return the exit code of the process
int FailedOutput(std::ostream& err);

/// Prints what was found in the file @p path to @p out, and what was wrong with it to @p err. A
/// table is printed only if there is something to show; a JSON document always.
///
/// @return the exit code of the process: 0 if nothing was wrong
int Report(const std::string& path, const Outcome& outcome, const ReportStyle& style,
           std::ostream& out, std::ostream& err);

} // namespace tsmon
