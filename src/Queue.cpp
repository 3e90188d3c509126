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

/// Attachments on their way out. They are destroyed with this object, after the pass over the ring
/// that removed them: destroying one may run code that uses the queue.
class ReleaseList
{
 public:
    using Attachment = std::shared_ptr<ZOREventDataBase>;

    // cppcheck-suppress uninitMemberVar ; what has not been added is not there
    ReleaseList() = default;
    ~ReleaseList()
    {
        for (std::size_t i = 0; i < m_size; ++i) {
            At(i)->~Attachment();
        }
    }

    ReleaseList(const ReleaseList&) = delete;
    ReleaseList& operator=(const ReleaseList&) = delete;

    void Add(Attachment&& attachment)
    {
        if (attachment != nullptr) {
            new (Place(m_size++)) Attachment(std::move(attachment));
        }
    }

 private:
    static constexpr std::size_t CAPACITY = 256; // as many as the ring can hold

    void* Place(std::size_t i) { return m_storage + i * sizeof(Attachment); }
    Attachment* At(std::size_t i) { return std::launder(static_cast<Attachment*>(Place(i))); }

    alignas(Attachment) unsigned char m_storage[CAPACITY * sizeof(Attachment)];
    std::size_t m_size = 0;
};

/// How long to stay away from a mutex that is taken: the longer, the more there is for the other
/// side to do, which then does it in one run. A put makes way for gets when the queue is full, a
/// get for puts when it is empty.
constexpr int LEAST_PAUSES = 30;
constexpr int MORE_PAUSES = 50;
constexpr int FULL = 240;

int PausesOfPut(int queued)
{
    return LEAST_PAUSES + MORE_PAUSES * std::min(queued, FULL) / FULL;
}

int PausesOfGet(int queued)
{
    return LEAST_PAUSES + MORE_PAUSES * (FULL - std::min(queued, FULL)) / FULL;
}

void StoreNumber(unsigned int* where, std::uint64_t number)
{
    if (where != nullptr) {
        *where = static_cast<unsigned int>(number);
    }
}

} // namespace

struct TCQueue::Match
{
    const TCHandler* receiver;
    bool anyType;
    unsigned long type;

    bool operator()(const TSEvent& record) const
    {
        return record.receiver == receiver && (anyType || record.type == type);
    }
};

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

TCQueue::~TCQueue()
{
    TCASSERT(FlagCreate() == false);
    std::destroy(m_ring.begin(), m_ring.begin() + m_madeEnd);
    std::destroy(m_ring.begin() + m_madeBegin, m_ring.end());
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
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    if (!sync) {
        return Place(*event, nullptr, priority);
    }
    // The reply lives here, on the sender's stack: the sender cannot leave before it is given.
    //
    //   sender:   put ---------------- take reply (waits) --------- destroy reply
    //   consumer:      get -- handle ------------------- give reply
    //
    // Once it has been given, the event that points to it must not be looked at for it again.
    Reply reply;
    if (!reply.Create() || !Place(*event, &reply, priority)) {
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

/// Lets @p fill write a record into its slot and counts it. Under the process-wide mutex when the
/// queue's lock is free, so nothing there may allocate or run foreign code; else under that lock.
template <typename Fill>
bool TCQueue::PlaceWith(const Fill& fill, bool priority)
{
    {
        TCSemaphore::State* const units = m_eventCount.m_state;
        TimeMutexLock lock(PausesOfPut(units->Count()));
        if (IsFreeLocked()) {
            TSEvent* const slot = TakeSlotLocked(priority);
            if (slot == nullptr) {
                return false;
            }
            fill(slot);
            const bool wakes = units->GiveLocked();
            lock.Unlock();
            if (wakes) {
                units->Wake();
            }
            return true;
        }
    }
    const zor::MutexLock lock(this);
    TSEvent* const slot = TakeSlotLocked(priority);
    if (slot == nullptr) {
        return false;
    }
    fill(slot);
    m_eventCount.Give();
    return true;
}

/// Queues a stamped copy of @p event with that reply, and does not wait for it.
bool TCQueue::Place(const TSEvent& event, TCSemaphore* reply, bool priority)
{
    const TSAppData& appData = TCDebugPrintZOR::GetInstance()->GetAppData();
    const auto sender = static_cast<std::uint32_t>(TCThreadSelf::Id());
    // What a queue held when it was destroyed is still there when it has been created again. It is
    // released behind the lock, because that may run code that uses the queue.
    Remains remains;
    if (appData.name.size() <= TSEvent::NAME_WITHOUT_HEAP) {
        return PlaceWith(
            [&](TSEvent* slot) {
                remains.TakeFrom(slot);
                slot->sync = reply;
                slot->receiver = event.receiver;
                slot->sender = sender;
                slot->type = event.type;
                slot->param1 = event.param1;
                slot->param2 = event.param2;
                slot->param3 = event.param3;
                slot->param4 = event.param4;
                slot->param5 = event.param5;
                slot->param6 = event.param6;
                slot->flag = event.flag;
                slot->appName.assign(appData.name.data(), appData.name.size());
                slot->appFlag = static_cast<std::uint8_t>(appData.value);
                slot->wrappedData = event.wrappedData;
            },
            priority);
    }
    TSEvent record(event);
    record.appName = appData.name;
    record.appFlag = static_cast<std::uint8_t>(appData.value);
    record.sync = reply;
    record.sender = sender;
    return PlaceWith(
        [&](TSEvent* slot) {
            remains.TakeFrom(slot);
            *slot = std::move(record);
        },
        priority);
}

/// The slot that the next event goes to, counted already; null if the queue is full for it.
TSEvent* TCQueue::TakeSlotLocked(bool priority)
{
    if (priority) {
        if (m_count > CAPACITY - 1) {
            return nullptr;
        }
        m_head = Wrap(m_head + CAPACITY - 1);
        ++m_count;
        return MadeSlotLocked(m_head);
    }
    if (m_count + RESERVED_FOR_PRIORITY > CAPACITY - 1) {
        return nullptr;
    }
    TSEvent* const slot = MadeSlotLocked(m_tail);
    m_tail = Wrap(m_tail + 1);
    ++m_count;
    return slot;
}

/// The record at @p index, which is made now if it has never been used: then it borders on those
/// that have been. Making one neither allocates nor throws.
TSEvent* TCQueue::MadeSlotLocked(std::uint64_t index)
{
    if (index < m_madeEnd || index >= m_madeBegin) {
        return &m_ring[index];
    }
    if (index == m_madeEnd) {
        ++m_madeEnd;
    } else {
        m_madeBegin = static_cast<std::uint16_t>(index);
    }
    return new (&m_ring[index]) TSEvent;
}

bool TCQueue::GetSync(TSEvent* event, unsigned long msec, bool skipSync)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    Remains remains;
    for (;;) {
        TCSemaphore::State* const units = m_eventCount.m_state;
        if (msec != 0) {
            units->Watch();
        }
        TimeMutexLock shared(PausesOfGet(units->Count()));
        if (!units->TryLocked(msec)) {
            return false;
        }
        if (IsFreeLocked()) {
            if (m_count > 0) {
                return TakeHeadLocked(event, skipSync, &remains);
            }
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
    TSEvent& record = m_ring[m_head];
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
    Remains remains;
    {
        const TimeMutexLock lock;
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

bool TCQueue::Get(TSEvent* event, const TCHandler* receiver, unsigned long type)
{
    return GetMatching(event, {receiver, false, type});
}

bool TCQueue::Get(TSEvent* event, const TCHandler* receiver)
{
    return GetMatching(event, {receiver, true, 0});
}

bool TCQueue::GetMatching(TSEvent* event, const Match& match)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    std::shared_ptr<ZOREventDataBase> released;
    const zor::MutexLock lock(this);

    std::uint64_t write = m_head;
    bool taken = false;
    const std::uint64_t visits = m_count;
    for (std::uint64_t i = 0; i < visits; ++i) {
        const std::uint64_t read = Wrap(m_head + i);
        if (!taken && m_ring[read].sync == nullptr && match(m_ring[read])) {
            released = std::move(event->wrappedData);
            *event = std::move(m_ring[read]);
            --m_count;
            taken = true;
        } else {
            MoveRecordLocked(read, write);
            write = Wrap(write + 1);
        }
    }
    m_tail = write;
    if (taken) {
        m_eventCount.Try(0);
    }
    return taken;
}

bool TCQueue::Find(const TCHandler* receiver, unsigned int* found)
{
    return FindMatching({receiver, true, 0}, found);
}

bool TCQueue::Find(const TCHandler* receiver, unsigned long type, unsigned int* found)
{
    return FindMatching({receiver, false, type}, found);
}

bool TCQueue::FindMatching(const Match& match, unsigned int* found)
{
    TCASSERT(FlagCreate() == true);
    const zor::MutexLock lock(this);
    std::uint64_t matches = 0;
    for (std::uint64_t i = 0; i < m_count; ++i) {
        matches += match(m_ring[Wrap(m_head + i)]) ? 1 : 0;
    }
    StoreNumber(found, matches);
    return matches != 0;
}

bool TCQueue::Delete(const TCHandler* receiver, unsigned int* deleted)
{
    return DeleteMatching({receiver, true, 0}, CAPACITY, deleted);
}

bool TCQueue::Delete(const TCHandler* receiver, unsigned long type, unsigned int* deleted)
{
    return DeleteMatching({receiver, false, type}, CAPACITY, deleted);
}

bool TCQueue::DeleteEx(const TCHandler* receiver, unsigned long type, unsigned int maxCount,
                       unsigned int* deleted)
{
    return DeleteMatching({receiver, false, type}, maxCount, deleted);
}

bool TCQueue::DeleteMatching(const Match& match, std::uint64_t maxCount, unsigned int* deleted)
{
    TCASSERT(FlagCreate() == true);
    ReleaseList released; // before the lock, so that it goes after it
    const zor::MutexLock lock(this);

    std::uint64_t write = m_head;
    std::uint64_t removed = 0;
    const std::uint64_t visits = m_count;
    m_count = 0;
    for (std::uint64_t i = 0; i < visits; ++i) {
        const std::uint64_t read = Wrap(m_head + i);
        TSEvent& record = m_ring[read];
        if (removed < maxCount && match(record)) {
            if (record.sync != nullptr) {
                record.sync->Give(); // the sender goes on as if the event had been handled
                record.sync = nullptr;
            }
            std::string().swap(record.appName);
            released.Add(std::move(record.wrappedData));
            ++removed;
        } else {
            MoveRecordLocked(read, write);
            write = Wrap(write + 1);
            ++m_count;
        }
    }
    for (std::uint64_t i = 0; i < removed; ++i) {
        m_eventCount.Try(0);
    }
    m_tail = write;
    StoreNumber(deleted, removed);
    return removed != 0;
}

void TCQueue::MoveRecordLocked(std::uint64_t from, std::uint64_t to)
{
    if (from != to) {
        m_ring[to] = std::move(m_ring[from]);
    }
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
