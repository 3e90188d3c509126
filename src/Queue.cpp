#include "Queue.h"

#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "Reply.h"
#include "TCDebugPrint.h"

namespace {

/// Holds a queue's lock for a scope.
class QueueLock
{
 public:
    explicit QueueLock(TCQueue* queue) : m_queue(queue) { m_queue->Lock(); }
    ~QueueLock() { m_queue->Unlock(); }

    QueueLock(const QueueLock&) = delete;
    QueueLock& operator=(const QueueLock&) = delete;

 private:
    TCQueue* m_queue;
};

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

TCQueue::~TCQueue()
{
    TCASSERT(FlagCreate() == false);
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
    // The reply lives here, on the sender's stack: the sender cannot leave before it is given.
    //
    //   sender:   put ---------------- take reply (waits) --------- destroy reply
    //   consumer:      get -- handle ------------------- give reply
    //
    // Once it has been given, the event that points to it must not be looked at for it again.
    Reply reply;
    if (sync && !reply.Create(0)) {
        return false;
    }
    const bool placed = Place(*event, sync ? &reply : nullptr, priority);
    if (placed && sync) {
        reply.Take();
    }
    return placed;
}

/// Queues a stamped copy of @p event with that reply, and does not wait for it.
bool TCQueue::Place(const TSEvent& event, TCSemaphore* reply, bool priority)
{
    TSEvent record(event);
    const TSAppData& appData = TCDebugPrintZOR::GetInstance()->GetAppData();
    record.appName = appData.name;
    record.appFlag = static_cast<std::uint8_t>(appData.value);
    record.sync = reply;
    record.sender = static_cast<std::uint32_t>(TCThreadSelf::Id());

    // What a queue held when it was destroyed is still there when it has been created again. It is
    // released behind the lock, because that may run code that uses the queue.
    std::shared_ptr<ZOREventDataBase> released;
    QueueLock lock(this);
    TSEvent* const slot = TakeSlotLocked(priority);
    if (slot == nullptr) {
        return false;
    }
    released = std::move(slot->wrappedData);
    *slot = std::move(record);
    m_eventCount.Give();
    return true;
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
        return &m_ring[m_head];
    }
    if (m_count + RESERVED_FOR_PRIORITY > CAPACITY - 1) {
        return nullptr;
    }
    TSEvent* const slot = &m_ring[m_tail];
    m_tail = Wrap(m_tail + 1);
    ++m_count;
    return slot;
}

bool TCQueue::GetSync(TSEvent* event, unsigned long msec, bool skipSync)
{
    TCASSERT(FlagCreate() == true);
    TCASSERT(event != NULL);
    // Released behind the lock: destroying an attachment may run code that uses the queue.
    std::shared_ptr<ZOREventDataBase> released;
    while (m_eventCount.Try(msec)) {
        QueueLock lock(this);
        if (m_count > 0) {
            return TakeHeadLocked(event, skipSync, &released);
        }
        // A unit without an event: the wait starts again.
    }
    return false;
}

bool TCQueue::TakeHeadLocked(TSEvent* event, bool skipSync,
                             std::shared_ptr<ZOREventDataBase>* released)
{
    TSEvent& record = m_ring[m_head];
    if (skipSync && record.sync != nullptr) {
        return false;
    }
    *released = std::move(event->wrappedData);
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
    std::shared_ptr<ZOREventDataBase> released;
    QueueLock lock(this);
    return m_count > 0 && TakeHeadLocked(event, skipSync, &released);
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
    QueueLock lock(this);

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
    QueueLock lock(this);
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
    QueueLock lock(this);

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
    QueueLock lock(this);
    return m_count;
}
