#pragma once

#include <cstddef>

namespace tsmon {

/// Columns of a table that goes to no terminal.
constexpr std::size_t DEFAULT_WIDTH = 100;

/// How wide a text written to the descriptor @p file may be, in columns: as wide as the terminal;
/// if it is none, or does not say, what COLUMNS in the environment says; else DEFAULT_WIDTH.
std::size_t WidthOf(int file);

} // namespace tsmon
