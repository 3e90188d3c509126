#pragma once

#include <Event.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <typeinfo>
#include <utility>

/// @file
/// How a message travels in an event.

namespace zor::detail {

/// As many bytes of a message fit into an event: 0 to 7 in param5, 8 to 15 in param6, 16 to 19 in
/// param1, 20 to 23 in param2. param3 and param4 keep their marks of not being set.
constexpr std::size_t ROOM_IN_EVENT = 24;

/// Whether messages of this type travel in the event's own parameters, without an allocation. Their
/// alignment does not matter: they are copied byte by byte in and out.
template <typename Message>
constexpr bool TRAVELS_IN_PARAMETERS = std::is_trivially_copyable_v<Message> &&
                                       sizeof(Message) <= ROOM_IN_EVENT;

/// Writes the bytes of @p message into the parameters of @p event.
template <typename Message>
void PackInParameters(TSEvent* event, const Message& message)
{
    static_assert(TRAVELS_IN_PARAMETERS<Message>);
    std::uint64_t words[3] = {};
    std::memcpy(words, &message, sizeof(message));
    event->param5 = words[0];
    if constexpr (sizeof(Message) > sizeof(words[0])) {
        event->param6 = words[1];
    }
    if constexpr (sizeof(Message) > 2 * sizeof(words[0])) {
        event->param1 = static_cast<std::uint32_t>(words[2]);
        event->param2 = static_cast<std::uint32_t>(words[2] >> 32);
    }
}

/// A message made anew of the parameters of an event.
template <typename Message>
class Unpacked
{
 public:
    explicit Unpacked(const TSEvent& event)
    {
        static_assert(TRAVELS_IN_PARAMETERS<Message>);
        const std::uint64_t words[3] = {event.param5, event.param6,
                                        event.param1 | static_cast<std::uint64_t>(event.param2)
                                                           << 32};
        std::memcpy(m_bytes, words, sizeof(m_bytes));
    }

    Message& Get() { return *std::launder(reinterpret_cast<Message*>(m_bytes)); }

 private:
    alignas(Message) unsigned char m_bytes[sizeof(Message)];
};

/// Puts @p message into @p event: into its parameters if it fits there, else into an attachment,
/// for which attachment and count are allocated as one.
template <typename Message, typename Given>
void Pack(TSEvent* event, Given&& message)
{
    if constexpr (TRAVELS_IN_PARAMETERS<Message>) {
        PackInParameters<Message>(event, message);
    } else {
        event->wrappedData =
            std::make_shared<ZORManagedEventData<Message>>(Message(std::forward<Given>(message)));
    }
}

/// The attachment of @p event if it is an Attachment, else null.
template <typename Attachment>
Attachment* AttachmentOf(const TSEvent& event)
{
    ZOREventDataBase* const data = event.wrappedData.get();
    if (data == nullptr) {
        return nullptr;
    }
    // Nearly always it is exactly that; comparing names is all that costs then.
    return typeid(*data) == typeid(Attachment) ? static_cast<Attachment*>(data)
                                               : dynamic_cast<Attachment*>(data);
}

} // namespace zor::detail
