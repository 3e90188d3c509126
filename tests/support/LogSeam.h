#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// @file
/// Linked into a program, it takes the place of the platform log and keeps every entry.

namespace zortest {

/// One entry of the platform log.
struct LogLine
{
    int buffer;
    int priority;
    std::string tag;
    std::string format;
    std::string text; ///< the format with its arguments put in
    bool hasTag;      ///< the tag was no null pointer
};

/// Forgets all entries.
void ClearLog();

/// The entries since ClearLog(), oldest first. Any thread may ask.
std::vector<LogLine> LogLines();

/// The entries whose text contains @p part, oldest first.
std::vector<LogLine> LogLinesWith(const std::string& part);

/// How many entries contain @p part.
std::size_t CountLogLines(const std::string& part);

} // namespace zortest
