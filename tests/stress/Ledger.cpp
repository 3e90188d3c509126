#include "Ledger.h"

#include <cstdio>

namespace storm {

namespace {

std::atomic<Stamp> g_lastStamp{0};
thread_local const Deletion* g_deletion = nullptr;
thread_local bool g_releasesOwn = false;

} // namespace

std::atomic<std::int64_t> Token::m_alive{0};

Stamp NextStamp()
{
    return ++g_lastStamp;
}

Deletion::Deletion(Receiver* receiver, unsigned queue)
    : m_outer(g_deletion), m_receiver(receiver), m_queue(queue)
{
    ++m_receiver->m_deletions[m_queue].begun;
    g_deletion = this;
}

Deletion::~Deletion()
{
    g_deletion = m_outer;
    ++m_receiver->m_deletions[m_queue].ended;
}

bool Deletion::IsUnderWay(const Receiver* receiver, unsigned queue)
{
    for (const Deletion* deletion = g_deletion; deletion != nullptr; deletion = deletion->m_outer) {
        if (deletion->m_receiver == receiver && deletion->m_queue == queue) {
            return true;
        }
    }
    return false;
}

OwnRelease::OwnRelease()
{
    g_releasesOwn = true;
}

OwnRelease::~OwnRelease()
{
    g_releasesOwn = false;
}

bool OwnRelease::IsUnderWay()
{
    return g_releasesOwn;
}

Token::~Token()
{
    if (m_ledger != nullptr) {
        --m_alive;
        m_ledger->Release(m_id, OwnRelease::IsUnderWay());
    }
}

std::uint64_t Ledger::Send(const Sending& sending)
{
    const std::uint64_t id = ++m_lastId;
    Entry entry;
    entry.sending = sending;
    // Read before the send: a deletion that had ended by now cannot have met this event.
    entry.deletionsBefore = sending.receiver->m_deletions[sending.queue].ended.load();
    Shard& shard = ShardOf(id);
    const std::lock_guard<std::mutex> lock(shard.mutex);
    ++shard.totals.sent;
    shard.entries.emplace(id, std::move(entry));
    return id;
}

/// The entry of an event whose send has returned, or the end.
Ledger::Entries::iterator Ledger::FindPendingLocked(Shard* shard, std::uint64_t id)
{
    const auto at = shard->entries.find(id);
    if (at != shard->entries.end() && at->second.result == Result::PENDING) {
        return at;
    }
    Complain("event " + std::to_string(id) + " ended while its sender was still sending it");
    return shard->entries.end();
}

void Ledger::Settle(std::uint64_t id, bool accepted)
{
    Shard& shard = ShardOf(id);
    const std::lock_guard<std::mutex> lock(shard.mutex);
    const auto at = FindPendingLocked(&shard, id);
    if (at == shard.entries.end()) {
        return;
    }
    Entry& entry = at->second;
    entry.result = accepted ? Result::ACCEPTED : Result::REFUSED;
    entry.accepted = accepted ? NextStamp() : 0;
    ++(accepted ? shard.totals.accepted : shard.totals.refused);
    if (!accepted && entry.handled) {
        Complain(Name(id, entry) + " was handled although its send was refused");
    }
    // The attachment of any other one is still to be released, by the sender at the earliest.
    if (!entry.sending.attached && (!accepted || entry.handled)) {
        shard.entries.erase(at);
    }
}

void Ledger::SettleDeleted(std::uint64_t id)
{
    Shard& shard = ShardOf(id);
    const std::lock_guard<std::mutex> lock(shard.mutex);
    const auto at = FindPendingLocked(&shard, id);
    if (at == shard.entries.end()) {
        return;
    }
    Entry& entry = at->second;
    if (entry.handled) {
        Complain(Name(id, entry) + " was handled although its sender was told of its deletion");
    } else if (!MayBeDeleted(entry)) {
        Complain(Name(id, entry) + " is said to be deleted, but nobody deleted anything");
    }
    entry.result = Result::DELETED;
    ++shard.totals.accepted;
    ++shard.totals.deleted;
    if (!entry.sending.attached) {
        shard.entries.erase(at);
    }
}

Facts Ledger::Handle(std::uint64_t id, const Receiver* receiver)
{
    Shard& shard = ShardOf(id);
    const std::lock_guard<std::mutex> lock(shard.mutex);
    const auto at = shard.entries.find(id);
    if (at == shard.entries.end()) {
        Complain("event " + std::to_string(id) + " is handled after it has ended (or never was)");
        return {};
    }
    Entry& entry = at->second;
    if (entry.handled) {
        Complain(Name(id, entry) + " is handled twice");
        return {};
    }
    if (entry.result == Result::REFUSED || entry.result == Result::DELETED) {
        Complain(Name(id, entry) + " is handled although its send was refused or undone");
    }
    if (entry.sending.receiver.get() != receiver) {
        Complain(Name(id, entry) + " is handled by a handler that it is not addressed to");
    }
    if (receiver->IsGone()) {
        Complain(Name(id, entry) + " is handled after the end of its receiver");
    }
    entry.handled = true;
    ++shard.totals.handled;
    const Sending& sending = entry.sending;
    const Facts facts{
        id, sending.sender, sending.queue, sending.priority, sending.direct, entry.accepted};
    if (!sending.attached && entry.result == Result::ACCEPTED) {
        shard.entries.erase(at);
    }
    return facts;
}

void Ledger::Release(std::uint64_t id, bool bySender)
{
    Shard& shard = ShardOf(id);
    const std::lock_guard<std::mutex> lock(shard.mutex);
    const auto at = shard.entries.find(id);
    if (at == shard.entries.end()) {
        Complain("the attachment of event " + std::to_string(id) + " is released twice");
        return;
    }
    if (at->second.result == Result::PENDING) {
        Complain(Name(id, at->second) + " lost its attachment while its sender was sending it");
    }
    if (at->second.result == Result::ACCEPTED && !at->second.handled) {
        EndUnhandledLocked(&shard, at, bySender);
    }
    shard.entries.erase(at);
}

/// Whether a deletion met the event's queue between its send and now.
bool Ledger::MayBeDeleted(const Entry& entry)
{
    const Sending& sending = entry.sending;
    return sending.receiver->m_deletions[sending.queue].begun.load() > entry.deletionsBefore;
}

/// The event has gone without being handled: is there a reason?
void Ledger::EndUnhandledLocked(Shard* shard, Entries::iterator at, bool bySender)
{
    const Entry& entry = at->second;
    const Receiver* const receiver = entry.sending.receiver.get();
    if (Deletion::IsUnderWay(receiver, entry.sending.queue) || (bySender && MayBeDeleted(entry))) {
        ++shard->totals.deleted;
    } else if (receiver->IsGone()) {
        ++shard->totals.dropped;
    } else {
        Complain(Name(at->first, entry) +
                 " was lost: its receiver lives and nobody deleted its events");
    }
}

void Ledger::CheckAnswered(std::uint64_t id)
{
    Shard& shard = ShardOf(id);
    const std::lock_guard<std::mutex> lock(shard.mutex);
    const auto at = shard.entries.find(id);
    if (at == shard.entries.end() || at->second.handled) {
        return;
    }
    if (!MayBeDeleted(at->second)) {
        Complain("the sender of " + Name(id, at->second) +
                 " was released although the event was neither handled nor deleted");
    } else if (!at->second.sending.attached) {
        ++shard.totals.deleted;
        shard.entries.erase(at);
    }
}

void Ledger::CloseFor(const Receiver* receiver, bool isGone)
{
    for (Shard& shard : m_shards) {
        const std::lock_guard<std::mutex> lock(shard.mutex);
        for (auto at = shard.entries.begin(); at != shard.entries.end();) {
            const Entry& entry = at->second;
            if (entry.sending.receiver.get() != receiver) {
                ++at;
                continue;
            }
            if (entry.sending.attached) {
                Complain(Name(at->first, entry) + (isGone ? " outlived the queues of its receiver"
                                                          : " is missing: it has not ended"));
            } else if (MayBeDeleted(entry)) {
                ++shard.totals.deleted;
            } else if (receiver->IsGone()) {
                ++shard.totals.dropped;
            } else {
                Complain(Name(at->first, entry) + " is missing: it has not ended");
            }
            at = shard.entries.erase(at);
        }
    }
}

void Ledger::CheckAllEnded()
{
    for (Shard& shard : m_shards) {
        const std::lock_guard<std::mutex> lock(shard.mutex);
        for (const auto& [id, entry] : shard.entries) {
            Complain(Name(id, entry) + " has no ending");
        }
    }
}

void Ledger::Complain(const std::string& what)
{
    constexpr std::size_t KEPT = 20;

    ++m_complaintCount;
    const std::lock_guard<std::mutex> lock(m_complaintsMutex);
    if (m_complaints.size() < KEPT) {
        m_complaints.push_back(what);
        if (m_prints) { // at once: what follows from a defect may hang
            fprintf(stderr, "zor-storm: %s\n", what.c_str());
        }
    }
}

std::vector<std::string> Ledger::Complaints() const
{
    const std::lock_guard<std::mutex> lock(m_complaintsMutex);
    return m_complaints;
}

Totals Ledger::Sum() const
{
    Totals sum;
    for (const Shard& shard : m_shards) {
        const std::lock_guard<std::mutex> lock(shard.mutex);
        sum.sent += shard.totals.sent;
        sum.accepted += shard.totals.accepted;
        sum.refused += shard.totals.refused;
        sum.handled += shard.totals.handled;
        sum.deleted += shard.totals.deleted;
        sum.dropped += shard.totals.dropped;
        sum.open += shard.entries.size();
    }
    return sum;
}

std::string Ledger::Name(std::uint64_t id, const Entry& entry)
{
    const Sending& sending = entry.sending;
    return "event " + std::to_string(id) + " (sender " + std::to_string(sending.sender) +
           ", queue " + std::to_string(sending.queue) + (sending.sync ? ", synchronous" : "") +
           (sending.priority ? ", priority" : "") + (sending.attached ? ", attached" : "") + ")";
}

} // namespace storm
