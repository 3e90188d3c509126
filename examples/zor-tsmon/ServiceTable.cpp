#include "ServiceTable.h"

#include <utility>

namespace tsmon {

namespace {

std::optional<std::uint16_t> PmtPidOf(const std::optional<ProgramAssociation>& programs,
                                      std::uint16_t serviceId)
{
    if (programs) {
        for (const Program& program : programs->programs) {
            if (program.serviceId == serviceId) {
                return program.pmtPid;
            }
        }
    }
    return std::nullopt;
}

} // namespace

void ServiceTable::OnPrograms(const ProgramAssociation& programs)
{
    const std::optional<ProgramAssociation> old = std::exchange(m_programs, programs);
    for (auto map = m_maps.begin(); map != m_maps.end();) {
        const bool stays = PmtPidOf(m_programs, map->first) == PmtPidOf(old, map->first);
        map = stays ? std::next(map) : m_maps.erase(map);
    }
}

void ServiceTable::OnProgramMap(const ProgramMap& map)
{
    if (PmtPidOf(m_programs, map.serviceId)) {
        m_maps[map.serviceId] = map;
    }
}

void ServiceTable::OnDescriptions(const ServiceDescriptions& descriptions)
{
    m_descriptions = descriptions;
}

void ServiceTable::OnComplaint(Severity /*severity*/, const std::string& /*text*/)
{
    // What could not be decoded does not change what is known.
}

std::vector<Service> ServiceTable::Services() const
{
    std::map<std::uint16_t, Service> services;
    if (m_programs) {
        for (const Program& program : m_programs->programs) {
            services[program.serviceId].pmtPid = program.pmtPid;
        }
    }
    if (m_descriptions) {
        for (const ServiceName& name : m_descriptions->services) {
            services[name.serviceId].description = name;
        }
    }
    for (const auto& [id, map] : m_maps) {
        services[id].map = map;
    }
    std::vector<Service> result;
    for (auto& [id, service] : services) {
        service.id = id;
        result.push_back(std::move(service));
    }
    return result;
}

std::optional<std::uint16_t> ServiceTable::TransportStreamId() const
{
    return m_programs ? std::optional(m_programs->transportStreamId) : std::nullopt;
}

std::optional<std::uint16_t> ServiceTable::AnnouncedStreamId() const
{
    if (!m_programs && m_descriptions) {
        return m_descriptions->transportStreamId;
    }
    return TransportStreamId();
}

} // namespace tsmon
