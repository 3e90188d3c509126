#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Calls.h"
#include "Reader.h"
#include "TaskNames.h"

namespace zorrecord {

/// Which calls of a recording are wanted: those that all of what is given applies to.
struct Selection
{
    bool IsEverything() const;

    /// Whether @p call is wanted. Of times it is enough that it overlaps the interval.
    bool Has(const Recording& recording, const TaskNames& names, const Call& call) const;

    std::string thread;                ///< name or id of the thread that makes the call; or empty
    std::string task;                  ///< of the thread, or of the event's receiver; or empty
    std::optional<std::uint64_t> type; ///< of the event
    bool unfinished = false;           ///< those alone that have not finished

    /// Seconds since the beginning, as they are printed; @ref last seconds before the end.
    std::optional<double> since;
    std::optional<double> until;
    std::optional<double> last;
};

/// The recording with the records of the wanted calls alone. A record after a call whose beginning
/// has been overwritten stays if only its thread and time are asked for, and they fit.
Recording Select(const Recording& recording, const Selection& selection);

/// When the recording ends, on its clock: when its process did, if that is known, or with its last
/// record.
std::uint64_t EndOf(const Recording& recording);

} // namespace zorrecord
