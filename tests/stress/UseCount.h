#pragma once

#include <atomic>
#include <cstdint>

namespace storm {

/// Who uses something, and whether it may be used: a lock that nobody waits at, because a thread
/// that waits for one thing here could be what another one waits for.
class UseCount
{
 public:
    /// @return false while it is shut
    bool TryEnter()
    {
        std::uint32_t state = m_state.load();
        while ((state & SHUT) == 0) {
            if (m_state.compare_exchange_weak(state, state + 1)) {
                return true;
            }
        }
        return false;
    }

    void Leave() { --m_state; }

    /// Lets nobody in any more; who is inside stays. @return false if it is shut already
    bool TryShut() { return (m_state.fetch_or(SHUT) & SHUT) == 0; }

    void Open() { m_state.fetch_and(~SHUT); }

    /// How many are inside.
    unsigned Users() const { return m_state.load() & ~SHUT; }

    bool IsShut() const { return (m_state.load() & SHUT) != 0; }

 private:
    static constexpr std::uint32_t SHUT = 0x80000000;

    std::atomic<std::uint32_t> m_state{SHUT};
};

/// A use for a scope, if it could be had.
class Use
{
 public:
    explicit Use(UseCount* count) : m_count(count->TryEnter() ? count : nullptr) {}
    ~Use()
    {
        if (m_count != nullptr) {
            m_count->Leave();
        }
    }

    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    explicit operator bool() const { return m_count != nullptr; }

 private:
    UseCount* const m_count;
};

} // namespace storm
