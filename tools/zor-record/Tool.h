#pragma once

#include <iosfwd>

namespace zorrecord {

constexpr int EXIT_CUT = 2; ///< the file is cut; what there is of it was written

/// Runs the command line of zor-record.
///
/// @return the exit code: EXIT_SUCCESS, EXIT_FAILURE if nothing useful came of it, or EXIT_CUT
int RunTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

} // namespace zorrecord
