#pragma once

namespace zortop {

/// Whether the system has a description of the terminal that TERM names.
bool IsKnownTerminal();

} // namespace zortop
