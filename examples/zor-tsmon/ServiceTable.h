#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Tables.h"

namespace tsmon {

/// One service with everything that the tables have said about it so far.
struct Service
{
    std::uint16_t id = 0;
    std::optional<std::uint16_t> pmtPid;    ///< nothing if only the descriptions name the service
    std::optional<ProgramMap> map;          ///< nothing if the map has not been seen
    std::optional<ServiceName> description; ///< nothing if the descriptions do not name it
};

/// The services of a transport stream, put together from its tables.
///
/// Knows nothing of threads; one thread at a time may use it.
class ServiceTable : public TableSink
{
 public:
    void OnPrograms(const ProgramAssociation& programs) override;
    void OnProgramMap(const ProgramMap& map) override;
    void OnDescriptions(const ServiceDescriptions& descriptions) override;
    void OnComplaint(Severity severity, const std::string& text) override;

    /// All services that the association or the descriptions name, by rising id.
    std::vector<Service> Services() const;

    /// The stream's id; nothing before its association has been seen.
    std::optional<std::uint16_t> TransportStreamId() const;

    /// The same, taken from the descriptions before the association has been seen. Known if there
    /// are services.
    std::optional<std::uint16_t> AnnouncedStreamId() const;

 private:
    std::optional<ProgramAssociation> m_programs;
    std::map<std::uint16_t, ProgramMap> m_maps; ///< of services in m_programs, by service id
    std::optional<ServiceDescriptions> m_descriptions;
};

} // namespace tsmon
