#pragma once

#include <iosfwd>

namespace zortop {

/// Runs the command line of zor-top.
///
/// @return an ExitCode
int RunTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

} // namespace zortop
