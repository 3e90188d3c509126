#pragma once

#include <cstdint>

#include "dlog.h"

namespace zorhost {

/// How a line of the platform log looks.
enum class EDlogStyle
{
    PLAIN,   ///< time, priority letter, tag, thread id, text
    DATED,   ///< the same with the date and the offset from UTC, for what is read later
    COLOUR,  ///< the same in the priority's colour, for a terminal
    JOURNAL, ///< "<N>" with the syslog priority instead of the time: the journal has its own
};

/// Where the platform log goes and how it looks there. Plain data: it is still good while the
/// process' static objects are being destroyed.
struct TSDlogConfig
{
    int fd;
    int leastPriority; ///< entries below it are not written; DLOG_SILENT hides all of them
    EDlogStyle style;
    long utcOffsetSec;      ///< local time minus UTC
    char path[4096];        ///< absolute, of a file that is to be looked after; otherwise empty
    std::uint64_t maxBytes; ///< of that file; 0 for any number
};

/// Makes the configuration from the environment. Opens the log file if one is asked for. Says on
/// standard error what is wrong with a ZOR_DLOG that cannot be followed, and returns the default.
///
/// ZOR_DLOG is `stderr`, `file:PATH` or `none`, each with `:LEVEL` at the end or without. LEVEL is
/// one of the letters V D I W E F S, the name that begins with it, or a log_priority's number. What
/// follows the last colon of a file's base name is taken for the level, so a path with a colon
/// there needs a level behind it. ZOR_DLOG_SIZE limits a file; it is a number with K, M or G.
TSDlogConfig ReadDlogConfig();

/// Whether an entry of this priority is seen on standard error.
bool LogShowsOnStandardError(int priority);

} // namespace zorhost
