#pragma once

#include <cstddef>
#include <vector>

#include "Calls.h"

namespace zorrecord {

/// The way of one event: a send and its handling, as indices of calls.
struct Flow
{
    std::size_t send;
    std::size_t handling;
};

/// Finds the handling of each send.
///
/// A handling on the sender's thread inside the send has the very event. Of others the receiver,
/// the type, the parameters, the attachment and the sender must be the same; between sends that
/// are alike in all of that the order decides, as the queue does: lower queues first, and in a
/// queue priority events, the last one first, then the others in the order in which they were sent.
/// An event that was deleted from its queue may thus be taken for a later one that is just like it.
std::vector<Flow> FlowsOf(const std::vector<Call>& calls);

} // namespace zorrecord
