#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "ZorExport.h"

class TCHandler;
class TCSemaphore;

/// Base of everything that can be attached to an event.
class ZOR_CORE_API ZOREventDataBase
{
 public:
    virtual ~ZOREventDataBase() = default;
};

/// A value of any type attached to an event; it is destroyed with the last event that shares it.
template <typename T>
class ZOR_CORE_API ZORManagedEventData : public ZOREventDataBase
{
 public:
    /// Takes @p value over.
    explicit ZORManagedEventData(T value) : data(std::move(value)) {}
    ~ZORManagedEventData() override = default;

    T data; ///< no lock guards it: who holds the event may use it
};

/// The one message of the system: what one thread asks of a handler on another.
///
/// Build it, set `receiver` and `type` and what else the receiver wants, and send it with
/// TCTask::Send(). Events are plain values; only the attachment is shared between copies. A copy
/// belongs to one thread at a time.
///
/// The order and the widths of the fields are binding.
struct ZOR_CORE_API TSEvent
{
    /// The longest name that is kept without memory of its own.
    static constexpr std::size_t NAME_WITHOUT_HEAP = 15;

    TSEvent() = default;

    /// A copy shares the attachment.
    TSEvent(const TSEvent&) = default;

    /// The same; the old attachment is released.
    TSEvent& operator=(const TSEvent&) = default;
    ~TSEvent() = default;

    /// Leaves @p other with an empty name and no attachment.
    TSEvent(TSEvent&& other) noexcept : TSEvent() { *this = std::move(other); }

    /// Leaves @p other with an empty name and no attachment, and no memory of this event's old name
    /// either; the old attachment is released.
    TSEvent& operator=(TSEvent&& other) noexcept
    {
        CopyValues(other);
        if (this != &other) {
            appName = std::move(other.appName);
            if (other.appName.capacity() > NAME_WITHOUT_HEAP) {
                std::string().swap(other.appName); // it got this one's old memory
            }
            other.appName.clear();
        }
        wrappedData = std::move(other.wrappedData);
        return *this;
    }

    /// Copies every field but the two that have an owner, `appName` and `wrappedData`.
    void CopyValues(const TSEvent& other)
    {
        sync = other.sync;
        receiver = other.receiver;
        sender = other.sender;
        type = other.type;
        param1 = other.param1;
        param2 = other.param2;
        param3 = other.param3;
        param4 = other.param4;
        param5 = other.param5;
        param6 = other.param6;
        flag = other.flag;
        appFlag = other.appFlag;
    }

    /// Attaches @p value, releasing what was attached before. The receiver finds it with a
    /// `dynamic_cast` of `wrappedData` to `ZORManagedEventData<T>`.
    template <typename T>
    void setWrappedData(T value)
    {
        wrappedData =
            std::shared_ptr<ZOREventDataBase>(new ZORManagedEventData<T>(std::move(value)));
    }

    TCSemaphore* sync = nullptr;   ///< reply to a waiting sender, not owned; set by the queue only
    TCHandler* receiver = nullptr; ///< who is to handle the event; not owned
    std::uint32_t sender = 0;      ///< low 32 bits of the sending thread's id; set by the queue
    unsigned long type = 0;        ///< what it means to the receiver
    std::uint32_t param1 = 0;      ///< what this and the next five mean depends on the type
    std::uint32_t param2 = 0;      ///< see param1
    std::uint32_t param3 = 0xFFFF; ///< 0xFFFF stands for: not set
    std::uint16_t param4 = 0xFFFF; ///< 0xFFFF stands for: not set
    std::uint64_t param5 = ~UINT64_C(0); ///< all ones stand for: not set
    std::uint64_t param6 = 0;            ///< see param1
    bool flag = false;        ///< whether the send and the handling go through the trap points
    std::string appName;      ///< application that the sender worked for; set by the queue
    std::uint8_t appFlag = 0; ///< that application's number; set by the queue
    std::shared_ptr<ZOREventDataBase> wrappedData; ///< the attachment, if any
};

static_assert(sizeof(TSEvent) == 128);
static_assert(offsetof(TSEvent, sync) == 0);
static_assert(offsetof(TSEvent, receiver) == 8);
static_assert(offsetof(TSEvent, sender) == 16);
static_assert(offsetof(TSEvent, type) == 24);
static_assert(offsetof(TSEvent, param1) == 32);
static_assert(offsetof(TSEvent, param2) == 36);
static_assert(offsetof(TSEvent, param3) == 40);
static_assert(offsetof(TSEvent, param4) == 44);
static_assert(offsetof(TSEvent, param5) == 48);
static_assert(offsetof(TSEvent, param6) == 56);
static_assert(offsetof(TSEvent, flag) == 64);
static_assert(offsetof(TSEvent, appName) == 72);
static_assert(offsetof(TSEvent, appFlag) == 104);
static_assert(offsetof(TSEvent, wrappedData) == 112);
