#include "EventFields.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "Event.h"

namespace zorrecord {

namespace {

/// A string in an event: where its text is, how long it is, and the text itself if it is short.
struct StringLayout
{
    std::uint64_t text;
    std::uint64_t size;
    char local[16];
};
static_assert(sizeof(StringLayout) == sizeof(std::string));

struct SharedPointerLayout
{
    std::uint64_t object;
    std::uint64_t control;
};
static_assert(sizeof(SharedPointerLayout) == sizeof(TSEvent::wrappedData));

template <typename Value>
void Get(const Item& item, std::size_t at, Value* value)
{
    static_assert(std::is_trivially_copyable_v<Value>);
    std::memcpy(value, item.bytes.data() + at, sizeof(*value));
}

void GetAppName(const Item& item, EventFields* event)
{
    constexpr std::size_t AT = offsetof(TSEvent, appName);
    StringLayout name = {};
    Get(item, AT, &name);
    event->appNameSize = name.size;
    // A string that was long once keeps its text elsewhere even when it is short.
    const bool isLocal = name.text == item.address + AT + offsetof(StringLayout, local);
    if (isLocal && name.size < sizeof(name.local)) {
        event->appName.assign(name.local, name.size);
    }
}

} // namespace

std::optional<EventFields> EventFrom(const Item& item)
{
    if (item.kind != Item::Kind::BLOCK || item.bytes.size() != sizeof(TSEvent)) {
        return std::nullopt;
    }
    EventFields event;
    event.address = item.address;
    Get(item, offsetof(TSEvent, sync), &event.sync);
    Get(item, offsetof(TSEvent, receiver), &event.receiver);
    Get(item, offsetof(TSEvent, sender), &event.sender);
    Get(item, offsetof(TSEvent, type), &event.type);
    Get(item, offsetof(TSEvent, param1), &event.param1);
    Get(item, offsetof(TSEvent, param2), &event.param2);
    Get(item, offsetof(TSEvent, param3), &event.param3);
    Get(item, offsetof(TSEvent, param4), &event.param4);
    Get(item, offsetof(TSEvent, param5), &event.param5);
    Get(item, offsetof(TSEvent, param6), &event.param6);
    event.flag = item.bytes[offsetof(TSEvent, flag)] != 0;
    Get(item, offsetof(TSEvent, appFlag), &event.appFlag);
    GetAppName(item, &event);
    SharedPointerLayout attachment = {};
    Get(item, offsetof(TSEvent, wrappedData), &attachment);
    event.wrappedData = attachment.object;
    event.wrappedControl = attachment.control;
    return event;
}

} // namespace zorrecord
