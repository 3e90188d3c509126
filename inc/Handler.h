#pragma once

#include <atomic>
#include <cstdint>

#include "Event.h"
#include "ZorExport.h"

class TCTask;

/// What an event is addressed to: an object whose events are handled on the thread of one task.
///
/// Derive from it and supply t_OnEvent(). Create() binds the handler to its task, which must
/// outlive it; Destroy() must be called before the handler is destroyed. Except for Create() every
/// operation asserts "FlagCreate() == true".
class ZOR_CORE_API TCHandler
{
 public:
    TCHandler() = default;

    /// Asserts "FlagCreate() == false".
    virtual ~TCHandler();

    TCHandler(const TCHandler&) = delete;
    TCHandler& operator=(const TCHandler&) = delete;

    /// Handles one event, on the task's thread.
    ///
    /// @param event  the event; it is the task's and ends with the call
    /// @return whether the event was handled; no caller uses it
    virtual bool t_OnEvent(const TSEvent* event) = 0;

    /// Unbinds the handler: its events are deleted from the task's queue, and those that the task
    /// has taken already are dropped unless their handling has begun. Call it on the task's thread,
    /// or when no event can be under way.
    virtual void Destroy();

    /// Binds the handler to @p task, which stays the caller's. Asserts "FlagCreate() == false" and
    /// "task != NULL".
    ///
    /// @return true
    bool Create(const TCTask* task);

    /// Has the event handled: through the trap points if its `flag` is set. Called by the task that
    /// delivers the event. Asserts "event != NULL".
    bool OnEvent(const TSEvent* event);

    /// The task on whose thread the handler runs.
    TCTask* Task() const;

    /// True between Create() and Destroy().
    bool FlagCreate() const { return m_created.load(std::memory_order_relaxed) == CREATED; }

 private:
    friend class zor::LayoutTable;

    static constexpr std::uint32_t CREATED = 0x12C272B;

    /// Read without a lock by every task that delivers an event to this handler.
    std::atomic<std::uint32_t> m_created{0};
    TCTask* task = nullptr; ///< fixed while the handler is created; not owned
};
