#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "Handler.h"
#include "Queue.h"

namespace zortest {

/// Somebody whom an event can be addressed to. Queues only compare receivers.
class Receiver : public TCHandler
{
 public:
    bool t_OnEvent(const TSEvent* /*event*/) override { return true; }
};

/// An event that is told from others by its @p number, kept in `param1`.
inline TSEvent EventFor(TCHandler* receiver, unsigned long type, std::uint32_t number)
{
    TSEvent event;
    event.receiver = receiver;
    event.type = type;
    event.param1 = number;
    return event;
}

/// An attachment that is counted for as long as it lives.
class Counted
{
 public:
    explicit Counted(std::atomic<int>* living) : m_living(living) { ++*m_living; }
    Counted(Counted&& other) noexcept : m_living(std::exchange(other.m_living, nullptr)) {}
    ~Counted()
    {
        if (m_living != nullptr) {
            --*m_living;
        }
    }

    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    Counted& operator=(Counted&&) = delete;

 private:
    std::atomic<int>* m_living;
};

/// An attachment that runs a function when it is released.
class OnRelease
{
 public:
    explicit OnRelease(std::function<void()> function)
        : m_function(std::make_unique<std::function<void()>>(std::move(function)))
    {}
    OnRelease(OnRelease&&) noexcept = default;
    ~OnRelease()
    {
        if (m_function != nullptr) {
            (*m_function)();
        }
    }

    OnRelease(const OnRelease&) = delete;
    OnRelease& operator=(const OnRelease&) = delete;
    OnRelease& operator=(OnRelease&&) = delete;

 private:
    std::unique_ptr<std::function<void()>> m_function;
};

/// Takes every event out of @p queue.
/// @return their numbers, in the order in which they would have been handled
inline std::vector<std::uint32_t> Drain(TCQueue& queue)
{
    std::vector<std::uint32_t> numbers;
    TSEvent event;
    while (queue.GetSyncQData(&event, false)) {
        numbers.push_back(event.param1);
    }
    return numbers;
}

/// How many units the semaphore of @p queue has. Ask while no other thread uses it.
inline int UnitsOf(TCQueue& queue)
{
    int units = 0;
    while (queue.Try(0)) {
        ++units;
    }
    for (int i = 0; i < units; ++i) {
        queue.Give();
    }
    return units;
}

} // namespace zortest
