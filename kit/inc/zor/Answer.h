#pragma once

#include <Thread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "zor/Life.h"
#include "zor/Result.h"

/// @file
/// The road back: how an answer gets to who asked, and what happens if one of the two is gone.

namespace zor::detail {

/// Where an answer goes.
template <typename Value>
class AnswerSink
{
 public:
    /// Takes the answer. Called once; the sink is not the caller's to touch any more.
    ///
    /// @return false if nobody waits for it any more: it was dropped
    virtual bool Accept(Result<Value>&& answer) noexcept = 0;

 protected:
    AnswerSink() = default;
    virtual ~AnswerSink() = default;

    AnswerSink(const AnswerSink&) = delete;
    AnswerSink& operator=(const AnswerSink&) = delete;
};

/// The duty to answer one request. If it is destroyed without an answer the asker is told that: a
/// request may be lost anywhere without anybody waiting for it in vain. Whether it was lost because
/// the task has ended is the task's to know, not the losing thread's: that may be the asker's own,
/// which lets go of its share when the task has just let go of the queued one.
template <typename Value>
class Duty
{
 public:
    /// To @p sink, of a request to the task with that @p life.
    Duty(AnswerSink<Value>* sink, std::shared_ptr<const Life> life)
        : m_sink(sink), m_life(std::move(life))
    {}

    Duty(Duty&& other) noexcept
        : m_sink(std::exchange(other.m_sink, nullptr)), m_life(std::move(other.m_life))
    {}

    Duty& operator=(Duty&&) = delete;

    ~Duty()
    {
        if (m_sink != nullptr) {
            m_sink->Accept(
                tl::make_unexpected(m_life->HasEnded() ? Error::NO_TASK : Error::DELETED));
        }
    }

    /// Takes the duty to answer to @p sink, having none before.
    void Take(AnswerSink<Value>* sink) { m_sink = sink; }

    /// Answers; once.
    ///
    /// @return false if nobody waits for the answer any more
    bool Answer(Result<Value>&& answer)
    {
        return std::exchange(m_sink, nullptr)->Accept(std::move(answer));
    }

 private:
    AnswerSink<Value>* m_sink;          ///< null once answered; not owned
    std::shared_ptr<const Life> m_life; ///< of the task that is asked
};

/// What an asking thread waits on. It lies on the heap, and of the two sides the one that is done
/// with it last has it:
///
///   asker:    make -- send ------- wait --+-- answer taken: keeps it for its next ask
///                                         +-- gives up first: GIVEN_UP, touches it no more
///   answerer:                handle --+-- claims it first: ANSWERED, writes, gives, touches it no
///   more
///                                     +-- finds it given up: deletes it, the answer is dropped
///
/// One exchange of the state decides which of the two is first. So an answer that comes too late
/// meets no stack that is gone, and the asker's semaphore learns from ask to ask whether watching
/// pays off.
template <typename Value>
class AnswerSlot final : public AnswerSink<Value>
{
 public:
    /// The calling thread's slot, or a new one; null if memory is short.
    static std::unique_ptr<AnswerSlot> Obtain()
    {
        std::unique_ptr<AnswerSlot> slot = std::move(Spare());
        if (slot == nullptr) {
            slot.reset(new (std::nothrow) AnswerSlot);
            if (slot != nullptr && !slot->m_given.Create(0)) {
                slot.reset();
            }
        } else {
            // Relaxed: handing the slot over orders it, by the queue's lock.
            slot->m_state.store(WAITING, std::memory_order_relaxed);
        }
        return slot;
    }

    /// Keeps @p slot, which nobody else may touch, for the thread's next ask.
    static void Keep(std::unique_ptr<AnswerSlot> slot)
    {
        slot->m_answer.reset();
        Spare() = std::move(slot);
    }

    ~AnswerSlot() override
    {
        if (m_given.FlagCreate()) {
            m_given.Destroy();
        }
    }

    bool Accept(Result<Value>&& answer) noexcept override
    {
        if (!Claim(ANSWERED)) {
            delete this;
            return false;
        }
        m_answer.emplace(std::move(answer));
        m_given.Give(); // from here on the slot is the asker's
        return true;
    }

    /// Waits for the answer until @p deadline.
    ///
    /// @return whether it has come; if not the slot is not the asker's any more
    bool WaitUntil(std::chrono::steady_clock::time_point deadline)
    {
        using std::chrono::milliseconds;
        // At least one look, whatever the deadline; and a semaphore may end a wait early.
        for (milliseconds left = Left(deadline);; left = Left(deadline)) {
            if (m_given.Try(static_cast<unsigned long>(left.count()))) {
                return true;
            }
            if (left.count() <= 0 || Left(deadline).count() <= 0) {
                break;
            }
        }
        if (Claim(GIVEN_UP)) {
            return false;
        }
        m_given.Take(); // it has come at this moment and is being written
        return true;
    }

    Result<Value>& Answer() { return *m_answer; }

 private:
    enum EState : int
    {
        WAITING,
        ANSWERED,
        GIVEN_UP,
    };

    AnswerSlot() = default;

    /// Moves on from WAITING, unless the other side has done so.
    bool Claim(EState state)
    {
        int expected = WAITING;
        return m_state.compare_exchange_strong(expected, state);
    }

    /// Whole milliseconds to the deadline, rounded up.
    static std::chrono::milliseconds Left(std::chrono::steady_clock::time_point deadline)
    {
        const auto left = deadline - std::chrono::steady_clock::now();
        return std::max(std::chrono::ceil<std::chrono::milliseconds>(left),
                        std::chrono::milliseconds(0));
    }

    /// A thread waits for one answer at a time, so one is enough.
    static std::unique_ptr<AnswerSlot>& Spare()
    {
        static thread_local std::unique_ptr<AnswerSlot> spare;
        return spare;
    }

    std::atomic<int> m_state{WAITING};
    TCSemaphore m_given;                   ///< one unit when the answer is written
    std::optional<Result<Value>> m_answer; ///< written by who has claimed the slot
};

/// An answer that a thread waits for, for a scope.
template <typename Value>
class Awaited
{
 public:
    Awaited() : m_slot(AnswerSlot<Value>::Obtain().release()) {}

    /// Gives up, if nothing has been waited for.
    ~Awaited()
    {
        if (m_slot == nullptr) {
            return;
        }
        if (m_isShared) {
            Wait({}); // the distant past
        } else {
            AnswerSlot<Value>::Keep(std::unique_ptr<AnswerSlot<Value>>(m_slot));
        }
    }

    Awaited(const Awaited&) = delete;
    Awaited& operator=(const Awaited&) = delete;

    /// False if memory is short.
    bool IsPossible() const { return m_slot != nullptr; }

    /// The other end, which is to be used or destroyed once; must be made.
    Duty<Value> MakeDuty(std::shared_ptr<const Life> life)
    {
        m_isShared = true;
        return Duty<Value>(m_slot, std::move(life));
    }

    /// Waits once.
    Result<Value> Wait(std::chrono::steady_clock::time_point deadline)
    {
        AnswerSlot<Value>* const slot = std::exchange(m_slot, nullptr);
        if (!slot->WaitUntil(deadline)) {
            return tl::make_unexpected(Error::NOT_ANSWERED);
        }
        std::unique_ptr<AnswerSlot<Value>> own(slot);
        Result<Value> answer(std::move(own->Answer()));
        AnswerSlot<Value>::Keep(std::move(own));
        return answer;
    }

 private:
    AnswerSlot<Value>* m_slot; ///< null once waited for
    bool m_isShared = false;   ///< there is a duty
};

/// @p timeout rounded up to whole units: none if it is negative, and a hundred years at most.
template <typename Unit, typename Rep, typename Period>
Unit Bounded(std::chrono::duration<Rep, Period> timeout)
{
    constexpr std::chrono::hours LONGEST(24 * 365 * 100);
    const std::chrono::duration<double> seconds(timeout); // has room for every duration
    if (seconds > LONGEST) {
        return LONGEST;
    }
    return seconds.count() > 0 ? std::chrono::ceil<Unit>(timeout) : Unit(0);
}

/// When a wait that begins now and lasts @p timeout ends.
template <typename Rep, typename Period>
std::chrono::steady_clock::time_point DeadlineAfter(std::chrono::duration<Rep, Period> timeout)
{
    using Clock = std::chrono::steady_clock;
    return Clock::now() + Bounded<Clock::duration>(timeout);
}

} // namespace zor::detail
