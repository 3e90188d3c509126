#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Calls.h"

namespace zorrecord {

/// Names of receivers: an event's receiver is an address in a recording, and the name of the thread
/// that handled its events is that of its task.
class TaskNames
{
 public:
    explicit TaskNames(const std::vector<Call>& calls);

    /// The task of the receiver of @p call's event; empty if the recording has no handling of any
    /// of its events, or the call has no event.
    const std::string& ReceiverOf(const Call& call) const;

 private:
    /// By process and address. A forked child has addresses of its own.
    std::map<std::pair<std::uint32_t, std::uint64_t>, std::string> m_names;
};

} // namespace zorrecord
