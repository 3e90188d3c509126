// What a queue does with events in the middle of it: selective gets, counts and deletions.

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "MutexLock.h"
#include "Queue.h"
#include "SemaphoreState.h"

namespace {

/// What a pass over the ring has removed from it. The senders that wait are released and the
/// attachments destroyed with this object, behind the queue's lock: destroying an attachment may
/// run code that uses the queue, and whoever is released may want it.
class Removed
{
 public:
    // cppcheck-suppress uninitMemberVar ; what has not been added is not there
    Removed() = default;
    ~Removed()
    {
        for (std::size_t i = 0; i < m_replyCount; ++i) {
            m_replies[i]->Give(); // the sender goes on as if the event had been handled
        }
        for (std::size_t i = 0; i < m_attachmentCount; ++i) {
            AttachmentAt(i)->~Attachment();
        }
    }

    Removed(const Removed&) = delete;
    Removed& operator=(const Removed&) = delete;

    /// Leaves @p record without reply, name and attachment.
    void TakeFrom(TSEvent* record)
    {
        if (record->sync != nullptr) {
            m_replies[m_replyCount++] = std::exchange(record->sync, nullptr);
        }
        std::string().swap(record->appName);
        if (record->wrappedData != nullptr) {
            new (RoomFor(m_attachmentCount++)) Attachment(std::move(record->wrappedData));
        }
    }

 private:
    using Attachment = std::shared_ptr<ZOREventDataBase>;

    static constexpr std::size_t CAPACITY = 256; // as many as the ring can hold

    void* RoomFor(std::size_t i) { return m_attachments + i * sizeof(Attachment); }
    Attachment* AttachmentAt(std::size_t i)
    {
        return std::launder(static_cast<Attachment*>(RoomFor(i)));
    }

    TCSemaphore* m_replies[CAPACITY];
    alignas(Attachment) unsigned char m_attachments[CAPACITY * sizeof(Attachment)];
    std::size_t m_replyCount = 0;
    std::size_t m_attachmentCount = 0;
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
        TSEvent& record = *Slot(read);
        if (!taken && record.sync == nullptr && match(record)) {
            released = std::move(event->wrappedData);
            *event = std::move(record);
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
        matches += match(*Slot(Wrap(m_head + i))) ? 1 : 0;
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

/// Lets go of @p table, if there is one, before it releases what the events held.
void TCQueue::DeleteAndUnlock(const TCHandler* receiver, TableLock* table)
{
    DeleteMatching({receiver, true, 0}, CAPACITY, nullptr, table);
}

bool TCQueue::DeleteMatching(const Match& match, std::uint64_t maxCount, unsigned int* deleted,
                             TableLock* table)
{
    TCASSERT(FlagCreate() == true);
    Removed removed; // before the locks, so that it goes after them
    const TableLock outer = table != nullptr ? std::move(*table) : TableLock();
    const zor::MutexLock lock(this);

    std::uint64_t write = m_head;
    const std::uint64_t visits = m_count;
    m_count = 0;
    for (std::uint64_t i = 0; i < visits; ++i) {
        const std::uint64_t read = Wrap(m_head + i);
        TSEvent* const record = Slot(read);
        // What has been visited and is not counted again has been removed.
        if (i - m_count < maxCount && match(*record)) {
            removed.TakeFrom(record);
        } else {
            MoveRecordLocked(read, write);
            write = Wrap(write + 1);
            ++m_count;
        }
    }
    m_tail = write;
    const std::uint64_t number = visits - m_count;
    {
        const zor::TimeMutexLock units;
        m_eventCount.m_state->TakeUpToLocked(static_cast<int>(number));
    }
    StoreNumber(deleted, number);
    return number != 0;
}

void TCQueue::MoveRecordLocked(std::uint64_t from, std::uint64_t to)
{
    if (from != to) {
        *Slot(to) = std::move(*Slot(from));
    }
}
