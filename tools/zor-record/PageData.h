#pragma once

#include <nlohmann/json_fwd.hpp>

#include "Reader.h"
#include "Selection.h"
#include "TypeNames.h"

namespace zorrecord {

/// What the page draws: all calls, and the path of the longest that is wanted (see PathOf()). Calls
/// are columns, arrays with an entry for each call: a page of a hundred thousand records is read in
/// a moment. Times are nanoseconds since the recording began; numbers of 64 bits that a browser
/// would round are texts.
///
///     process, pid, began_ns, from_ns, to_ns, goes_on, overwritten_bytes, gaps
///     lanes     {name, thread, pid}
///     types     {type, name}
///     sites     {function, at}
///     calls     lane, kind (0 send, 1 handling, 2 other), begin, duration, depth, type (index or
///               -1), site (index or -1), receiver (name or ""), finished, sync, priority, result
///               (-1 unknown), cpu (-1 unknown), params (text)
///     flows     pairs: the send's index, the handling's
///     circles   arrays of indices of calls
///     path      as `path --json` has it, or null; and `call`, its index
///     top       as `top --json` has it
///
/// @throws std::runtime_error if a call is asked for and none is as wanted
nlohmann::json PageData(const Recording& recording, const Selection& selection,
                        const TypeNames& types);

} // namespace zorrecord
