#pragma once

#include <gtest/gtest.h>

#include <relacy/relacy.hpp>

#include <memory>
#include <ostream>
#include <streambuf>
#include <string>

// The explorer takes these words over for programs that are explored as they stand.
#undef new
#undef delete
#undef malloc
#undef calloc
#undef realloc
#undef free
#undef assert
#undef errno
#undef memory_order_relaxed
#undef memory_order_consume
#undef memory_order_acquire
#undef memory_order_release
#undef memory_order_acq_rel
#undef memory_order_seq_cst

/// @file
/// What the models of this folder are made of: memory that keeps no more order than C++ promises,
/// and threads that are run in every order. A model is a class of threads; it is explored as the
/// sources have it and once without each thing that its claim hangs on.
///
/// A load may miss the latest store wherever nothing forbids it, and two accesses of plain memory
/// without an order between them are an error. What is not explored: a load that is passed by a
/// later store of its own thread.

namespace zormemory {

constexpr rl::memory_order RELAXED = rl::mo_relaxed;
constexpr rl::memory_order ACQUIRE = rl::mo_acquire;
constexpr rl::memory_order RELEASE = rl::mo_release;
constexpr rl::memory_order ACQ_REL = rl::mo_acq_rel;
constexpr rl::memory_order SEQ_CST = rl::mo_seq_cst;

/// The line of the model that an access stands in, for what is printed of an error.
inline rl::debug_info At(int line)
{
    return {"", "model", static_cast<unsigned>(line)};
}

/// std::atomic.
template <typename T>
class Atomic
{
 public:
    explicit Atomic(T value, int line = __builtin_LINE())
    {
        m_value.store(value, RELAXED, At(line));
    }

    T Load(rl::memory_order order, int line = __builtin_LINE()) const
    {
        return m_value.load(order, At(line));
    }

    void Store(T value, rl::memory_order order, int line = __builtin_LINE())
    {
        m_value.store(value, order, At(line));
    }

    T Add(T value, rl::memory_order order, int line = __builtin_LINE())
    {
        return m_value.fetch_add(value, order, At(line));
    }

    bool Change(T from, T to, rl::memory_order order, int line = __builtin_LINE())
    {
        return m_value.compare_exchange_strong(from, to, order, At(line));
    }

 private:
    rl::atomic<T> m_value;
};

/// Memory that no atomic stands for.
template <typename T>
class Plain
{
 public:
    explicit Plain(T value, int line = __builtin_LINE()) { Write(value, line); }

    T Read(int line = __builtin_LINE()) const { return m_value(At(line)); }
    void Write(T value, int line = __builtin_LINE()) { m_value(At(line)) = value; }

 private:
    rl::var<T> m_value;
};

/// A mutex of the system.
class Mutex
{
 public:
    void Lock(int line = __builtin_LINE()) { m_mutex.lock(At(line)); }
    void Unlock(int line = __builtin_LINE()) { m_mutex.unlock(At(line)); }

 private:
    friend class Condition;

    rl::mutex m_mutex;
};

class Condition
{
 public:
    void Wait(Mutex* mutex, int line = __builtin_LINE())
    {
        m_condition.wait(mutex->m_mutex, At(line));
    }
    void WakeOne(int line = __builtin_LINE()) { m_condition.notify_one(At(line)); }

 private:
    rl::condition_variable_any m_condition;
};

/// Lets the others run; what they have stored by then is seen at some time.
inline void Yield(int line = __builtin_LINE())
{
    rl::yield(1, At(line));
}

/// TCSemaphore without what shortens a wait, and waking every time: a count that changes under the
/// process's one mutex.
class Units
{
 public:
    Units(Mutex* mutex, int units) : m_mutex(mutex), m_count(units) {}

    bool TryLocked()
    {
        const int count = m_count.Load(RELAXED);
        if (count > 0) {
            m_count.Store(count - 1, RELAXED);
        }
        return count > 0;
    }

    void GiveLocked() { m_count.Store(m_count.Load(RELAXED) + 1, RELAXED); }

    void Take()
    {
        m_mutex->Lock();
        while (!TryLocked()) {
            m_condition.Wait(m_mutex);
        }
        m_mutex->Unlock();
    }

    void Give()
    {
        m_mutex->Lock();
        GiveLocked();
        m_mutex->Unlock();
        Wake();
    }

    void Wake() { m_condition.WakeOne(); }

    int Count() const { return m_count.Load(RELAXED); }

 private:
    Mutex* const m_mutex;
    Condition m_condition;
    Atomic<int> m_count;
};

inline void Claim(bool holds, const char* text, int line = __builtin_LINE())
{
    if (!holds) {
        rl::ctx().fail_test(text, rl::test_result_user_assert_failed, At(line));
    }
}

/// Where the explorer writes to. It must not allocate: while a model runs, memory is the model's.
class Report : private std::streambuf, public std::ostream
{
 public:
    Report() : std::ostream(this) { setp(m_text, m_text + sizeof(m_text)); }

    std::string Text() const { return {pbase(), pptr()}; }

 private:
    char m_text[1 << 16]; // what comes later is lost
};

/// Explores Model and returns what was found first; empty if there is nothing to be found.
///
/// First every order of the threads, where a load may miss one store; then a number of orders by
/// chance, where it may miss several.
template <typename Model>
std::string Found(std::string* history)
{
    constexpr rl::iteration_t ORDERS_BY_CHANCE = 5000;

    for (const rl::scheduler_type_e search : {rl::sched_full, rl::sched_random}) {
        const auto report = std::make_unique<Report>();
        rl::test_params params;
        params.search_type = search;
        params.iteration_count = ORDERS_BY_CHANCE;
        params.output_stream = report.get();
        params.progress_stream = report.get();
        rl::simulate<Model>(params);
        if (params.test_result != rl::test_result_success) {
            *history = report->Text();
            return rl::test_result_str(params.test_result);
        }
    }
    return {};
}

template <typename Model>
void ExpectHolds()
{
    std::string history;
    EXPECT_EQ(Found<Model>(&history), "") << history;
}

/// @param how  what the model comes to grief by; anything else found is an error of the model
template <typename Model>
void ExpectFails(const std::string& how)
{
    std::string history;
    EXPECT_EQ(Found<Model>(&history), how) << history;
}

const char* const DATA_RACE = "DATA RACE";
const char* const CLAIM_BROKEN = "USER ASSERT FAILED";
const char* const LOCKED_TWICE = "RECURSION ON NON-RECURSIVE MUTEX";
const char* const WAITS_FOR_EVER = "DEADLOCK";

} // namespace zormemory
