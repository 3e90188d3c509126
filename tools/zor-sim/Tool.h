#pragma once

#include <iosfwd>

namespace zorsim {

constexpr int EXIT_NOTHING_FOUND = 0;
constexpr int EXIT_FOUND = 1;
constexpr int EXIT_UNABLE = 2; ///< bad options, or a program that cannot be simulated

/// The whole program but for the streams.
int RunTool(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

} // namespace zorsim
