#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

/// @file
/// The account of every event: from the moment it is sent to its one ending.

namespace storm {

/// How many queues a task has at most.
constexpr unsigned MAX_QUEUES = 4;

/// A moment in the order of all that the storm notes. 0 stands for: not yet.
using Stamp = std::uint64_t;

/// Now, later than all that has been given out before.
Stamp NextStamp();

/// What the ledger has to know of a handler. Shared by the handler's owner and by the entries of
/// its events; any thread may call anything.
class Receiver
{
 public:
    /// From here on none of its events is handled any more. To be called on its task's thread.
    void Ends() { m_gone.store(true); }

    bool IsGone() const { return m_gone.load(); }

 private:
    friend class Deletion;
    friend class Ledger;

    /// Deletions of this receiver's events from one queue.
    struct Deletions
    {
        std::atomic<std::uint64_t> begun{0};
        std::atomic<std::uint64_t> ended{0};
    };

    std::atomic<bool> m_gone{false};
    std::array<Deletions, MAX_QUEUES> m_deletions;
};

/// Stands around a call that deletes a receiver's events from a queue: what ends on this thread
/// meanwhile has been deleted.
class Deletion
{
 public:
    Deletion(Receiver* receiver, unsigned queue);
    ~Deletion();

    Deletion(const Deletion&) = delete;
    Deletion& operator=(const Deletion&) = delete;

    /// Whether the calling thread is inside one for that receiver and queue.
    static bool IsUnderWay(const Receiver* receiver, unsigned queue);

 private:
    const Deletion* const m_outer;
    Receiver* const m_receiver;
    const unsigned m_queue;
};

/// What a sender says of an event before it sends it.
struct Sending
{
    std::shared_ptr<Receiver> receiver;
    unsigned sender = 0; ///< which thread sends
    unsigned queue = 0;
    bool sync = false;
    bool priority = false;
    bool attached = false; ///< an attachment tells when the event is gone
    bool direct = false;   ///< it is handled within the send, past the queue
};

/// What the handling side learns of an event that it handles.
struct Facts
{
    std::uint64_t id = 0; ///< 0 if there is no such event
    unsigned sender = 0;
    unsigned queue = 0;
    bool priority = false;
    bool direct = false;
    Stamp accepted = 0; ///< when the send had returned; 0 if it had not
};

/// How many events there were, by their endings.
struct Totals
{
    std::uint64_t sent = 0;
    std::uint64_t accepted = 0;
    std::uint64_t refused = 0;
    std::uint64_t handled = 0;
    std::uint64_t deleted = 0;
    std::uint64_t dropped = 0;
    std::uint64_t open = 0; ///< no ending yet
};

/// The account. A sender opens an entry with Send() and says with Settle() what became of the send;
/// Handle() and Release() are the endings. An event without attachment cannot say that it was
/// deleted or dropped: that is found out by CheckQuiet() and Close(). Any thread may call anything.
///
/// What is wrong is printed at once to standard error and kept.
class Ledger
{
 public:
    explicit Ledger(bool prints = true) : m_prints(prints) {}

    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;

    /// Opens an entry. @return the event's id; later sends have greater ones
    std::uint64_t Send(const Sending& sending);

    /// The send has returned @p accepted. The sender still holds its share of the attachment.
    void Settle(std::uint64_t id, bool accepted);

    /// The sender was told that the event was deleted. It still holds its share of the attachment.
    void SettleDeleted(std::uint64_t id);

    /// The event is being handled for @p receiver.
    Facts Handle(std::uint64_t id, const Receiver* receiver);

    /// The event's attachment is destroyed.
    /// @param bySender  the sender let go of its share last: who let go before is not known
    void Release(std::uint64_t id, bool bySender);

    /// A synchronous send has returned: the event must have had its ending.
    void CheckAnswered(std::uint64_t id);

    /// @p receiver's task has worked off its queues and nobody sends: every event has ended.
    void CheckQuiet(const Receiver* receiver) { CloseFor(receiver, false); }

    /// @p receiver and its queues are gone: nothing can hold an attachment any more.
    void Close(const Receiver* receiver) { CloseFor(receiver, true); }

    /// The storm is over: whatever is still open has no ending.
    void CheckAllEnded();

    /// Something is wrong that somebody else has noticed.
    void Complain(const std::string& what);

    bool HasComplaints() const { return m_complaintCount.load() != 0; }
    std::vector<std::string> Complaints() const;
    Totals Sum() const;

 private:
    enum class Result : std::uint8_t
    {
        PENDING, ///< the send has not returned
        ACCEPTED,
        REFUSED,
        DELETED, ///< as the sender was told
    };

    struct Entry
    {
        Sending sending;
        std::uint64_t deletionsBefore = 0; ///< that had ended when the event was sent
        Stamp accepted = 0;
        Result result = Result::PENDING;
        bool handled = false;
    };

    using Entries = std::unordered_map<std::uint64_t, Entry>;

    /// One lock for all would keep the senders apart.
    struct Shard
    {
        mutable std::mutex mutex;
        Entries entries; ///< guarded by mutex, as are the totals
        Totals totals;   ///< without those still open
    };

    static constexpr std::size_t SHARDS = 64;

    Shard& ShardOf(std::uint64_t id) { return m_shards[id % SHARDS]; }
    Entries::iterator FindPendingLocked(Shard* shard, std::uint64_t id);
    static bool MayBeDeleted(const Entry& entry);
    static std::string Name(std::uint64_t id, const Entry& entry);
    void EndUnhandledLocked(Shard* shard, Entries::iterator at, bool bySender);
    void CloseFor(const Receiver* receiver, bool isGone);

    const bool m_prints;
    std::atomic<std::uint64_t> m_lastId{0};
    std::array<Shard, SHARDS> m_shards;

    mutable std::mutex m_complaintsMutex;  ///< after a shard's
    std::vector<std::string> m_complaints; ///< guarded by it; the first ones
    std::atomic<std::uint64_t> m_complaintCount{0};
};

/// What an event carries: it tells the ledger when the last copy of the event is gone. The one that
/// is moved to tells, the one moved from does not.
class Token
{
 public:
    Token(Ledger* ledger, std::uint64_t id) : m_ledger(ledger), m_id(id) { ++m_alive; }
    Token(Token&& other) noexcept : m_ledger(other.m_ledger), m_id(other.m_id)
    {
        other.m_ledger = nullptr;
    }
    ~Token();

    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;
    Token& operator=(Token&&) = delete;

    std::uint64_t Id() const { return m_id; }

    /// How many tokens of the process have not told yet.
    static std::int64_t Alive() { return m_alive.load(); }

 private:
    Ledger* m_ledger;
    const std::uint64_t m_id;
    static std::atomic<std::int64_t> m_alive;
};

/// Stands around the release of a sender's own share.
class OwnRelease
{
 public:
    OwnRelease();
    ~OwnRelease();

    OwnRelease(const OwnRelease&) = delete;
    OwnRelease& operator=(const OwnRelease&) = delete;

    /// Whether the calling thread is inside one.
    static bool IsUnderWay();
};

} // namespace storm
