#pragma once

#include <string>
#include <vector>

/// @file
/// The debug-print library's scope traces, taken over for the programs that this is linked into.

namespace zortest {

/// One TCScopeTrace that was made.
struct ScopeTrace
{
    std::string format;
    std::string text; ///< the format with its arguments put in
    bool alive;       ///< whether its scope has not been left yet
};

/// Forgets the traces whose scopes have been left.
void ClearScopeTraces();

/// The traces since ClearScopeTraces(), oldest first. Any thread may ask.
std::vector<ScopeTrace> ScopeTraces();

} // namespace zortest
