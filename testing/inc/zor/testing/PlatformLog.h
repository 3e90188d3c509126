#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// @file
/// The platform log, recorded; include "zor/testing/Platform.h", which says what that means.

namespace zor::testing {

/// The platform log: `__dlog_print`. The newest 100,000 entries are kept. Those of a test that
/// fails are shown; with `ZOR_TESTING_LOG=1` in the environment every entry is, as it comes.
class PlatformLog
{
 public:
    /// One entry.
    struct Line
    {
        int buffer = 0;         ///< a log_id_t
        int priority = 0;       ///< a log_priority
        std::string tag;        ///< the component that wrote it
        std::string format;     ///< as the writer gave it
        std::string text;       ///< the format with its arguments put in
        bool hasTag = false;    ///< the tag was no null pointer
        std::string threadName; ///< of the thread that wrote it
    };

    /// Forgets all entries.
    static void Clear();

    /// The entries since the last Clear(), oldest first.
    static std::vector<Line> Lines();

    /// The entries whose text contains @p part, oldest first.
    static std::vector<Line> LinesWith(const std::string& part);

    /// How many entries contain @p part.
    static std::size_t Count(const std::string& part);
};

} // namespace zor::testing
