#pragma once

#include <string>

#include "Report.h"

namespace zortop {

/// What a report is of.
struct Source
{
    int pid = 0;
    std::string version; ///< of the library
};

/// One line of JSON, as zor-top.schema.json describes it.
std::string Json(const Report& report, const Source& source);

} // namespace zortop
