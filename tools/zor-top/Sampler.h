#pragma once

#include <sys/types.h>

#include <functional>

#include "History.h"
#include "Reader.h"
#include "Report.h"

namespace zortop {

/// Looks at a process in intervals, and glances at its tasks in between.
class Sampler
{
 public:
    /// Throws Problem; see Reader.
    explicit Sampler(pid_t pid);

    /// Looks, and says what has changed since the last look. Throws Problem if the process has
    /// ended.
    Report Look();

    /// Waits for @p msec, with glances meanwhile.
    ///
    /// @param pause  is called to wait for some milliseconds; true ends the waiting early
    void Wait(int msec, const std::function<bool(int)>& pause);

    /// The version of the library.
    const std::string& Version() const { return m_reader.Version(); }

    /// Names of event types, for what is reported from now on.
    void NameTypes(std::map<std::uint64_t, std::string> names) { m_typeNames = std::move(names); }

 private:
    Reader m_reader;
    History m_history;
    Snapshot m_last; ///< for the glances
    std::map<std::uint64_t, std::string> m_typeNames;
};

} // namespace zortop
