#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "zor/testing/PlatformLog.h"

/// @file
/// The platform log of a program that is linked with ${zor_log_seam}, which keeps every entry.

namespace zortest {

using LogLine = zor::testing::PlatformLog::Line;

/// Forgets all entries.
inline void ClearLog()
{
    zor::testing::PlatformLog::Clear();
}

/// The entries since ClearLog(), oldest first. Any thread may ask.
inline std::vector<LogLine> LogLines()
{
    return zor::testing::PlatformLog::Lines();
}

/// The entries whose text contains @p part, oldest first.
inline std::vector<LogLine> LogLinesWith(const std::string& part)
{
    return zor::testing::PlatformLog::LinesWith(part);
}

/// How many entries contain @p part.
inline std::size_t CountLogLines(const std::string& part)
{
    return zor::testing::PlatformLog::Count(part);
}

} // namespace zortest
