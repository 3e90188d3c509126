#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

/// One entry that was written to the platform log.
struct TSLogEntry
{
    int priority;
    std::string tag;
    std::string text;
};

/// The platform log of a test program: linking this in stands in for __dlog_print, and what any
/// thread writes there is kept here. Never destroyed. Any thread may call anything.
class TCPlatformLog
{
 public:
    static TCPlatformLog& Instance();

    void Add(TSLogEntry entry);
    void Clear();

    /// From now on each entry is shown too, as "priority text".
    void EchoToStandardError();

    std::vector<TSLogEntry> Entries();

    /// The entries whose text contains @p part.
    std::vector<TSLogEntry> Entries(const std::string& part);

    /// Waits until @p count entries contain @p part and returns these. A minute in vain ends the
    /// process with SIGALRM.
    std::vector<TSLogEntry> WaitFor(const std::string& part, size_t count = 1);

 private:
    std::vector<TSLogEntry> FindLocked(const std::string& part) const;

    std::mutex m_lock;
    std::condition_variable m_added;
    std::vector<TSLogEntry> m_entries;
    bool m_echoes = false;
};
