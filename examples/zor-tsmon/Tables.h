#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// @file
/// What the tables of a transport stream say, free of how it was coded.

namespace tsmon {

struct Program
{
    std::uint16_t serviceId = 0;
    std::uint16_t pmtPid = 0;
};

/// The programme association table: which services there are.
struct ProgramAssociation
{
    std::uint16_t transportStreamId = 0;
    std::uint8_t version = 0;
    std::vector<Program> programs;
};

struct ElementaryStream
{
    std::uint16_t pid = 0;
    std::uint8_t type = 0;   ///< the stream type's code
    std::string description; ///< the same in words, made more exact by the stream's descriptors
    std::string language;    ///< three letters, or empty
};

/// The programme map table of one service: what it is made of.
struct ProgramMap
{
    std::uint16_t serviceId = 0;
    std::uint8_t version = 0;
    std::uint16_t pcrPid = 0;
    std::vector<ElementaryStream> streams;
};

struct ServiceName
{
    std::uint16_t serviceId = 0;
    std::string name;     ///< UTF-8
    std::string provider; ///< UTF-8
};

/// The service description table of this transport stream: what its services are called.
struct ServiceDescriptions
{
    std::uint16_t transportStreamId = 0;
    std::uint16_t networkId = 0;
    std::uint8_t version = 0;
    std::vector<ServiceName> services;
};

enum class Severity
{
    WARNING,
    ERROR,
};

/// Takes what is found in a stream, in the order in which it is found, on the finder's thread.
///
/// A table arrives once, and again when the stream has a new version of it, which replaces the old.
/// The programme maps of services that a new association no longer has, or has on another PID, are
/// void from then on.
class TableSink
{
 public:
    virtual ~TableSink() = default;

    virtual void OnPrograms(const ProgramAssociation& programs) = 0;
    virtual void OnProgramMap(const ProgramMap& map) = 0;
    virtual void OnDescriptions(const ServiceDescriptions& descriptions) = 0;

    /// A section that could not be decoded, in a line of text.
    virtual void OnComplaint(Severity severity, const std::string& text) = 0;
};

} // namespace tsmon
