#pragma once

#include "ZorExport.h"

/// Operations on the calling thread that need the logging front.
class ZOR_CORE_API TCThreadUtil
{
 public:
    /// Sets the kernel name of the calling thread.
    ///
    /// @param name  at most 15 characters; a longer one is refused by the system
    ///
    /// A failure is logged at INFO with the promotion flag. That entry carries the text
    /// "\"failed to set %s name, result:%ld\"" as its tag and @p name as its format, so a name
    /// that may be refused must not contain conversions other than one for a long.
    static void SetCurrentThreadName(const char* name);
};
