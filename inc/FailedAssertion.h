#pragma once

#include <atomic>
#include <cstdint>

#include "ZorExport.h"

namespace zor {

/// What the first failed assertion of the process was, for tools that look at the process or at its
/// core; nothing in the process reads it. An assertion that goes to test::TSCustomAssert::callback
/// leaves it alone. In a release build, which goes on past a failed assertion, it may be old.
///
/// The order and the widths of the fields are binding. Texts end with a zero and are cut where they
/// are too long.
struct FailedAssertion
{
    /// What `state` goes through.
    enum State : std::uint32_t
    {
        NONE = 0,     ///< none has failed
        WRITING = 1,  ///< one has, and its thread is filling in the rest
        COMPLETE = 2, ///< all fields hold, and stay as they are
    };

    std::atomic<std::uint32_t> state; ///< the first that takes it from NONE writes the rest
    std::int32_t thread;              ///< kernel id of the thread
    std::uint64_t line;               ///< in the file
    char threadName[16];              ///< its name
    char file[256];                   ///< source file as the compiler was given it
    char expression[512];             ///< text of the expression that did not hold
};

} // namespace zor

/// The record of the process, which is also an object of the table in LayoutTable.h.
extern "C" ZOR_CORE_API zor::FailedAssertion zor_core_failed_assertion;
