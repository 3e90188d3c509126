#include "Waits.h"

#include <cstdio>
#include <utility>

namespace zortop {
namespace {

// Of the C library, as its ABI has it: a mutex begins with its word, a count and its owner's kernel
// id; threads sleep on one of two words of a condition variable.
constexpr Address MUTEX_OWNER = 8;
constexpr Address CONDITION_WORDS[] = {40, 44};

// Where the kernel id of a thread stands behind its handle, on x86-64 and on AArch64. It is taken
// for one only if there is such a thread.
constexpr Address KERNEL_IDS[] = {720, 208};

constexpr char REPLY[] = "N3zor5ReplyE";
constexpr char MUTEX[] = "7TCMutex";

std::string Hex(Address address)
{
    char text[32];
    snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(address));
    return text;
}

} // namespace

Waits::Waits(const Memory& memory, const Layout& layout, Classes* classes)
    : m_memory(memory),
      m_classes(*classes),
      m_owner(layout.Offset("TCSemaphore::State.owner")),
      m_condition(layout.Offset("TCSemaphore::State.condition")),
      m_state(layout.Offset("TCSemaphore.m_state")),
      m_mutexSemaphore(layout.Offset("TCMutex.m_semaphore")),
      m_mutexOwner(layout.Offset("TCMutex.m_owner"))
{}

void Waits::Begin(std::set<pid_t> threads)
{
    m_threads = std::move(threads);
    m_events.clear();
    m_mutexes.clear();
    m_byHandle.clear();
}

void Waits::KnowMutex(Address mutex, const std::string& name)
{
    m_mutexes[mutex + m_mutexSemaphore] = name;
}

pid_t Waits::ThreadOf(std::uint64_t handle) const
{
    const auto known = m_byHandle.find(handle);
    if (known != m_byHandle.end()) {
        return known->second;
    }
    for (const Address offset : KERNEL_IDS) {
        pid_t thread = 0;
        if (m_memory.Read(handle + offset, &thread) && m_threads.count(thread) != 0) {
            return thread;
        }
    }
    return 0;
}

Wait Waits::WaitOf(const SleepingCall& call)
{
    Wait wait;
    wait.kind = Wait::OTHER;
    const auto futex = FutexWaitOf(call, m_memory);
    if (!futex) {
        return wait;
    }
    wait.untilNsec = futex->untilNsec;
    if (const Address semaphore = SemaphoreAt(futex->word)) {
        FindSemaphore(semaphore, &wait);
    } else {
        FindMutexHolder(*futex, &wait);
    }
    return wait;
}

/// The semaphore on whose condition variable a thread sleeps; 0 if it is none's. Its state and it
/// point to each other.
Address Waits::SemaphoreAt(Address word) const
{
    for (const Address offset : CONDITION_WORDS) {
        const Address state = word - offset - m_condition;
        Address semaphore = 0;
        Address back = 0;
        if (m_memory.Read(state + m_owner, &semaphore) && semaphore != 0 &&
            m_memory.Read(semaphore + m_state, &back) && back == state) {
            return semaphore;
        }
    }
    return 0;
}

void Waits::FindSemaphore(Address semaphore, Wait* wait)
{
    if (m_events.count(semaphore) != 0) {
        wait->kind = Wait::EVENTS;
        return;
    }
    const auto known = m_mutexes.find(semaphore);
    const Address mutex = semaphore - m_mutexSemaphore;
    if (known != m_mutexes.end()) {
        wait->what = known->second;
        FindOwner(mutex, wait);
    } else if (m_classes.MangledNameOf(semaphore) == REPLY) {
        wait->kind = Wait::REPLY;
    } else if (m_classes.MangledNameOf(mutex) == MUTEX) {
        wait->what = "TCMutex " + Hex(mutex);
        FindOwner(mutex, wait);
    }
}

void Waits::FindOwner(Address mutex, Wait* wait) const
{
    std::uint64_t owner = 0;
    wait->kind = Wait::LOCK;
    if (m_memory.Read(mutex + m_mutexOwner, &owner) && owner != 0) {
        wait->holder = ThreadOf(owner);
    }
}

/// A mutex of the C library: the word says that somebody waits, and the owner is a thread.
bool Waits::FindMutexHolder(const FutexWait& futex, Wait* wait) const
{
    constexpr std::uint32_t LOCKED_WITH_WAITERS = 2;
    struct
    {
        std::uint32_t word;
        std::uint32_t count;
        pid_t owner;
    } mutex{};
    static_assert(offsetof(decltype(mutex), owner) == MUTEX_OWNER);
    if (futex.expected != LOCKED_WITH_WAITERS || !m_memory.Read(futex.word, &mutex) ||
        mutex.word != LOCKED_WITH_WAITERS || m_threads.count(mutex.owner) == 0) {
        return false;
    }
    wait->kind = Wait::LOCK;
    wait->what = "mutex " + Hex(futex.word);
    wait->holder = mutex.owner;
    return true;
}

} // namespace zortop
