#pragma once

#include <Event.h>

#include <algorithm>
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

/// How many bytes of a message lie in its word of that number, of 8 bytes each.
template <typename Message>
constexpr std::size_t BytesInWord(std::size_t word)
{
    const std::size_t begin = word * sizeof(std::uint64_t);
    return sizeof(Message) <= begin ? 0 : std::min(sizeof(Message) - begin, sizeof(std::uint64_t));
}

/// Copies SIZE bytes between memory and a word. Where the processor has a number of that size it is
/// one move: a word that is put together in memory and read at once would wait for itself.
template <std::size_t SIZE>
class Word
{
 public:
    static std::uint64_t Load(const void* from)
    {
        Number number{};
        std::memcpy(&number, from, SIZE);
        return number;
    }

    static void Store(void* to, std::uint64_t word)
    {
        const auto number = static_cast<Number>(word);
        std::memcpy(to, &number, SIZE);
    }

 private:
    using Number = std::conditional_t<
        SIZE == 1, std::uint8_t,
        std::conditional_t<SIZE == 2, std::uint16_t,
                           std::conditional_t<SIZE == 4, std::uint32_t, std::uint64_t>>>;
};

/// Writes the bytes of @p message into the parameters of @p event.
template <typename Message>
void PackInParameters(TSEvent* event, const Message& message)
{
    static_assert(TRAVELS_IN_PARAMETERS<Message>);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&message);
    event->param5 = Word<BytesInWord<Message>(0)>::Load(bytes);
    if constexpr (BytesInWord<Message>(1) > 0) {
        event->param6 = Word<BytesInWord<Message>(1)>::Load(bytes + 8);
    }
    if constexpr (BytesInWord<Message>(2) > 0) {
        const std::uint64_t last = Word<BytesInWord<Message>(2)>::Load(bytes + 16);
        event->param1 = static_cast<std::uint32_t>(last);
        event->param2 = static_cast<std::uint32_t>(last >> 32);
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
        Word<BytesInWord<Message>(0)>::Store(m_bytes, event.param5);
        if constexpr (BytesInWord<Message>(1) > 0) {
            Word<BytesInWord<Message>(1)>::Store(m_bytes + 8, event.param6);
        }
        if constexpr (BytesInWord<Message>(2) > 0) {
            const std::uint64_t last = event.param1 | static_cast<std::uint64_t>(event.param2)
                                                          << 32;
            Word<BytesInWord<Message>(2)>::Store(m_bytes + 16, last);
        }
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
