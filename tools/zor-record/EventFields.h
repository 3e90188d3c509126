#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Reader.h"

namespace zorrecord {

/// An event as a record has it. Pointers are numbers of the recorded process.
struct EventFields
{
    std::uint64_t address = 0; ///< of the event itself
    std::uint64_t sync = 0;
    std::uint64_t receiver = 0;
    std::uint32_t sender = 0;
    std::uint64_t type = 0;
    std::uint32_t param1 = 0;
    std::uint32_t param2 = 0;
    std::uint32_t param3 = 0;
    std::uint16_t param4 = 0;
    std::uint64_t param5 = 0;
    std::uint64_t param6 = 0;
    bool flag = false;
    std::string appName;           ///< empty if it was too long to lie in the event
    std::uint64_t appNameSize = 0; ///< of the name itself
    std::uint8_t appFlag = 0;
    std::uint64_t wrappedData = 0;    ///< the attachment
    std::uint64_t wrappedControl = 0; ///< what counts those who share it
};

/// Name of the type of events in descriptions of call sites.
constexpr const char* EVENT_TYPE = "TSEvent";

/// The event in @p item; none if it has not the size of one.
std::optional<EventFields> EventFrom(const Item& item);

} // namespace zorrecord
