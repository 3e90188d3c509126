#include "Queue.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "MutexLock.h"
#include "Reply.h"
#include "SemaphoreState.h"
#include "TCDebugPrint.h"

namespace {

/// How long to stay away from a mutex that is taken: the longer, the more there is for the other
/// side to do, which then does it in one run. A put makes way for gets when the queue is full, a
/// get for puts when it is empty. Found by measuring streams (docs/benchmarks.md).
constexpr int LEAST_NSEC = 350;
constexpr int MORE_NSEC = 550;
constexpr int FULL = 240; // events, as many as normal puts can queue

int NsecBeforePut(int queued)
{
    return LEAST_NSEC + MORE_NSEC * std::clamp(queued, 0, FULL) / FULL;
}

int NsecBeforeGet(int queued)
{
    return LEAST_NSEC + MORE_NSEC * (FULL - std::clamp(queued, 0, FULL)) / FULL;
}

/// Has the memory of @p event resident, for reading: a page that had to be fetched while the
/// process-wide mutex is held would stop every semaphore of the process. Whoever passes a bad
/// pointer is ended here, with no lock held.
void Touch(const TSEvent* event)
{
    const auto* const bytes = reinterpret_cast<const volatile unsigned char*>(event);
    static_cast<void>(bytes[0]);
    static_cast<void>(bytes[sizeof(*event) - 1]);
}

/// The same for writing; the event is the calling thread's.
void TouchForWriting(TSEvent* event)
{
    auto* const bytes = reinterpret_cast<volatile unsigned char*>(event);
    for (const std::size_t i : {std::size_t{0}, sizeof(*event) - 1}) {
        const unsigned char value = bytes[i];
        bytes[i] = value;
    }
}

} // namespace

/// Destroying an attachment may run code that uses the queue, and freeing a name takes its time.
struct TCQueue::Remains
{
    std::shared_ptr<ZOREventDataBase> wrappedData;
    std::string appName;

    void TakeFrom(TSEvent* event)
    {
        wrappedData = std::move(event->wrappedData);
        if (event->appName.capacity() > TSEvent::NAME_WITHOUT_HEAP) {
            appName.swap(event->appName);
        }
    }
};

/// What the next record of the ring is to hold: the sender's event, stamped. Made before any lock
/// is taken, with all that may allocate, so that moving it into its slot does not.
class TCQueue::Entry
{
 public:
    Entry(const TSEvent& event, TCSemaphore* reply)
        : m_event(event),
          m_reply(reply),
          m_appData(TCDebugPrintZOR::GetInstance()->GetAppData()),
          m_attachment(event.wrappedData)
    {
        if (m_appData.name.size() > TSEvent::NAME_WITHOUT_HEAP) {
            m_longName = m_appData.name;
        }
        Touch(&event);
    }

    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    void MoveInto(TSEvent* slot)
    {
        m_remains.TakeFrom(slot);
        slot->CopyValues(m_event);
        slot->sync = m_reply;
        slot->sender = m_sender;
        slot->appFlag = static_cast<std::uint8_t>(m_appData.value);
        if (m_longName.empty()) {
            slot->appName.assign(m_appData.name.data(), m_appData.name.size());
        } else {
            slot->appName.swap(m_longName);
        }
        slot->wrappedData = std::move(m_attachment);
    }

 private:
    const TSEvent& m_event;
    TCSemaphore* const m_reply;
    const TSAppData& m_appData;
    const std::uint32_t m_sender = static_cast<std::uint32_t>(TCThreadSelf::Id());
    std::shared_ptr<ZOREventDataBase> m_attachment;
    std::string m_longName; ///< empty if the name needs no memory
    /// What a queue held when it was destroyed is still there when it has been created again.
    Remains m_remains;
};

TCQueue::~TCQueue()
{
    TCASSERT(FlagCreate() == false);
    std::destroy_n(Slot(0), m_madeEnd);
    std::destroy_n(Slot(m_madeBegin), CAPACITY - m_madeBegin);
}

bool TCQueue::Create()
{
    TCASSERT(FlagCreate() == false);
    if (!TCMutex::Create()) {
        return false;
    }
    if (!m_eventCount.Create(0)) {
        TCMutex::Destroy();
        return false;
    }
    m_tail = 0;
    m_head = 0;
    m_count = 0;
    m_puts.store(0, std::memory_order_relaxed);
    m_refused.store(0, std::memory_order_relaxed);
    m_peak.store(0, std::memory_order_relaxed);
    return true;
}

void TCQueue::Destroy()
{
    TCASSERT(FlagCreate() == true);
    Lock();
    m_eventCount.Destroy();
    TCMutex::Destroy();
}

bool TCQueue::Put(TSEvent* event, bool priority)
{
    return PutSync(event, false, priority);
}

bool TCQueue::PutSync(TSEvent* event, bool sync, bool priority)
{
    return PutSync(event, sync, priority, nullptr);
}

/// Lets go of @p table, if there is one, when the event is queued: the wait goes without it, and so
/// does the release of what an earlier life of the queue has left in the event's slot.
bool TCQueue::PutSync(TSEvent* event, bool sync, bool priority, TableLock* table)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    const auto place = [&](TCSemaphore* reply) {
        Entry entry(*event, reply);
        const bool placed = Place(&entry, priority);
        if (table != nullptr) {
            table->unlock();
        }
        return placed;
    };
    if (!sync) {
        return place(nullptr);
    }
    // The reply lives here, on the sender's stack: the sender cannot leave before it is given.
    //
    //   sender:   put ---------------- take reply (waits) --------- destroy reply
    //   consumer:      get -- handle ------------------- give reply
    //
    // Once it has been given, the event that points to it must not be looked at for it again.
    zor::Reply reply;
    if (!reply.Create() || !place(&reply)) {
        return false;
    }
    reply.Wait();
    return true;
}

/// Whether the queue's lock is free. It then stays so while the process-wide mutex is held, and
/// that mutex alone guards the ring: what happens under it is ordered with what happens under the
/// lock, because taking and giving the lock needs the same mutex.
bool TCQueue::IsFreeLocked() const
{
    return TCMutex::m_semaphore.m_state->Count() > 0;
}

/// Queues @p entry. In one critical section under the process-wide mutex if the queue's lock is
/// free; else, and where a page would be touched for the first time, under that lock.
bool TCQueue::Place(Entry* entry, bool priority)
{
    {
        TCSemaphore::State* const units = m_eventCount.m_state;
        zor::TimeMutexLock lock(NsecBeforePut(units->Count()));
        if (IsFreeLocked() && !BeginsPageLocked(NextSlotLocked(priority))) {
            units->DropStaleLocked(m_count == 0);
            if (!PlaceLocked(entry, priority)) {
                return false;
            }
            const auto waking = units->GiveLocked();
            lock.Unlock();
            if (waking != TCSemaphore::State::Waking::NOBODY) {
                units->Wake(waking);
            }
            return true;
        }
    }
    const zor::MutexLock lock(this);
    if (!PlaceLocked(entry, priority)) {
        return false;
    }
    m_eventCount.Give();
    return true;
}

/// Moves @p entry into the next slot and counts it.
///
/// @return false if the queue is full for it
bool TCQueue::PlaceLocked(Entry* entry, bool priority)
{
    if (IsFullLocked(priority)) {
        m_refused.store(m_refused.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        return false;
    }
    const std::uint64_t index = NextSlotLocked(priority);
    entry->MoveInto(IsMadeLocked(index) ? Slot(index) : MakeSlotLocked(index));
    if (priority) {
        m_head = index;
    } else {
        m_tail = Wrap(index + 1);
    }
    ++m_count;
    m_puts.store(m_puts.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (m_count > m_peak.load(std::memory_order_relaxed)) {
        m_peak.store(m_count, std::memory_order_relaxed);
    }
    return true;
}

bool TCQueue::IsFullLocked(bool priority) const
{
    return m_count >= (priority ? CAPACITY : MOST_NORMAL);
}

/// Where the next event goes.
std::uint64_t TCQueue::NextSlotLocked(bool priority) const
{
    return priority ? Wrap(m_head + CAPACITY - 1) : m_tail;
}

bool TCQueue::IsMadeLocked(std::uint64_t index) const
{
    return index < m_madeEnd || index >= m_madeBegin;
}

/// Whether the record at @p index is to be made and reaches into a page of memory in which none has
/// been made before, as far as can be said: pages are at least so large.
bool TCQueue::BeginsPageLocked(std::uint64_t index) const
{
    constexpr std::uintptr_t LEAST_PAGE = 4096;

    if (IsMadeLocked(index)) {
        return false;
    }
    const auto page = [this](std::uint64_t offset) {
        return (reinterpret_cast<std::uintptr_t>(m_ring) + offset) / LEAST_PAGE;
    };
    const std::uint64_t begin = index * sizeof(TSEvent);
    const std::uint64_t end = begin + sizeof(TSEvent);
    if (index == m_madeEnd) {
        return page(begin - 1) != page(end - 1);
    }
    return end == sizeof(m_ring) || page(end) != page(begin);
}

/// Makes the record at @p index, which borders on those that have been made. That neither allocates
/// nor throws.
TSEvent* TCQueue::MakeSlotLocked(std::uint64_t index)
{
    if (index == m_madeEnd) {
        ++m_madeEnd;
    } else {
        m_madeBegin = static_cast<std::uint16_t>(index);
    }
    return new (m_ring + index * sizeof(TSEvent)) TSEvent;
}

bool TCQueue::GetSync(TSEvent* event, unsigned long msec, bool skipSync)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    TouchForWriting(event);
    Remains remains;
    for (;;) {
        TCSemaphore::State* const units = m_eventCount.m_state;
        if (msec != 0) {
            units->Watch();
        }
        zor::TimeMutexLock shared(NsecBeforeGet(units->Count()));
        if (!units->TryLocked(msec)) {
            return false;
        }
        if (IsFreeLocked()) {
            if (m_count > 0) {
                return TakeHeadLocked(event, skipSync, &remains);
            }
            // Nothing is queued and nobody is about to change that: no unit has an event.
            units->TakeUpToLocked(units->Count());
        } else {
            shared.Unlock();
            const zor::MutexLock lock(this);
            if (m_count > 0) {
                return TakeHeadLocked(event, skipSync, &remains);
            }
        }
        // A unit without an event: the wait starts again.
    }
}

bool TCQueue::TakeHeadLocked(TSEvent* event, bool skipSync, Remains* remains)
{
    TSEvent& record = *Slot(m_head);
    if (skipSync && record.sync != nullptr) {
        return false;
    }
    remains->TakeFrom(event);
    *event = std::move(record);
    m_head = Wrap(m_head + 1);
    --m_count;
    return true;
}

bool TCQueue::Get(TSEvent* event, unsigned long msec)
{
    return GetSync(event, msec, true);
}

bool TCQueue::GetSyncQData(TSEvent* event, bool skipSync)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    TouchForWriting(event);
    Remains remains;
    {
        const zor::TimeMutexLock lock;
        if (IsFreeLocked()) {
            return m_count > 0 && TakeHeadLocked(event, skipSync, &remains);
        }
    }
    const zor::MutexLock lock(this);
    return m_count > 0 && TakeHeadLocked(event, skipSync, &remains);
}

bool TCQueue::GetQData(TSEvent* event)
{
    return GetSyncQData(event, true);
}

void TCQueue::Give()
{
    TCASSERT(FlagCreate() == true);
    m_eventCount.Give();
}

bool TCQueue::Try(unsigned long msec)
{
    TCASSERT(FlagCreate() == true);
    return m_eventCount.Try(msec);
}

std::size_t TCQueue::Size()
{
    TCASSERT(FlagCreate() == true);
    const zor::MutexLock lock(this);
    return m_count;
}
