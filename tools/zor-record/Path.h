#pragma once

#include <cstdint>
#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "Calls.h"
#include "Reader.h"
#include "Selection.h"
#include "TypeNames.h"

namespace zorrecord {

/// A stretch of a critical path.
struct Stretch
{
    std::uint64_t beginNsec = 0;
    std::uint64_t endNsec = 0;
    int depth = 0;      ///< of calls inside each other
    std::string thread; ///< that it was spent on
    std::string what;
};

/// What a call's time went into, in order and without a hole: the handler's own work, and for each
/// synchronous send inside it the wait in the receiver's queue, with what the receiver did
/// meanwhile, the handling, and the way back. Stretches below a thousandth of the whole are left in
/// what is around them. A circle of calls that wait for each other ends where it closes.
std::vector<Stretch> PathOf(const std::vector<Call>& calls, const TypeNames& types,
                            std::size_t call);

/// The longest wanted call: a handling or a synchronous send. Call::NONE if none is wanted.
std::size_t LongestCall(const Recording& recording, const std::vector<Call>& calls,
                        const Selection& selection);

/// What is said if no call is wanted.
constexpr const char* NO_SUCH_CALL = "no handling and no synchronous send is as asked for";

/// Writes the path of the longest wanted call.
///
/// @param asJson  an object with the call and an array of stretches, times in nanoseconds
/// @throws std::runtime_error if no call is wanted
void PrintPath(const Recording& recording, const Selection& selection, const TypeNames& types,
               bool asJson, std::ostream& out);

/// A call and its path as an object.
nlohmann::json JsonOf(const Recording& recording, const Call& call, const TypeNames& types,
                      const std::vector<Stretch>& path);

} // namespace zorrecord
