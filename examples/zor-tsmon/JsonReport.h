#pragma once

#include <ostream>
#include <string>

#include "Outcome.h"

namespace tsmon {

/// Prints what was found and counted as one JSON document, and a line end. `ok` says whether
/// nothing was wrong with the file; if something was, `failure` says what, in the words of the
/// complaints.
///
/// Bit rates are bits per second of the stream's clock; what is not known is null. Texts that are
/// no UTF-8 are made so: what is wrong in them becomes U+FFFD.
void PrintJson(const std::string& path, const Outcome& outcome, std::ostream& out);

} // namespace tsmon
