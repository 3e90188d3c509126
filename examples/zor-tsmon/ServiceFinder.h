#pragma once

#include <cstdint>
#include <memory>

#include "Tables.h"

namespace tsmon {

/// Finds the service tables in transport packets: the programme association, the programme maps
/// that it names, and the descriptions of this stream's own services. Tables announced for later
/// ("next") are left out until they are current.
///
/// Knows nothing of threads; one thread at a time may use it, and the sink is called on that
/// thread.
class ServiceFinder
{
 public:
    /// @param sink  gets what is found; must outlive the finder
    ///
    /// Throws std::bad_alloc if the decoders cannot be made.
    explicit ServiceFinder(TableSink& sink);
    ~ServiceFinder();

    ServiceFinder(const ServiceFinder&) = delete;
    ServiceFinder& operator=(const ServiceFinder&) = delete;

    /// Takes the next packet of the stream, PACKET_SIZE bytes that begin with the sync byte. A
    /// packet whose payload is scrambled or does not lie inside it is passed over.
    void Push(const std::uint8_t* packet);

 private:
    class Decoders;

    std::unique_ptr<Decoders> m_decoders;
};

} // namespace tsmon
