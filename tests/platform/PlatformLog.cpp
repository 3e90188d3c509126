#include "PlatformLog.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <utility>

#include "dlog.h"

namespace {

constexpr unsigned DEADLINE_SEC = 60;

} // namespace

extern "C" int __dlog_print(log_id_t /*id*/, int priority, const char* tag, const char* fmt, ...)
{
    char text[8192];
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    TCPlatformLog::Instance().Add({priority, tag, text});
    return length;
}

TCPlatformLog& TCPlatformLog::Instance()
{
    static TCPlatformLog* const instance = new TCPlatformLog;
    return *instance;
}

void TCPlatformLog::Add(TSLogEntry entry)
{
    const std::lock_guard<std::mutex> lock(m_lock);
    if (m_echoes) {
        fprintf(stderr, "%d %s\n", entry.priority, entry.text.c_str());
    }
    m_entries.push_back(std::move(entry));
    m_added.notify_all();
}

void TCPlatformLog::Clear()
{
    const std::lock_guard<std::mutex> lock(m_lock);
    m_entries.clear();
}

void TCPlatformLog::EchoToStandardError()
{
    const std::lock_guard<std::mutex> lock(m_lock);
    m_echoes = true;
}

std::vector<TSLogEntry> TCPlatformLog::Entries()
{
    return Entries("");
}

std::vector<TSLogEntry> TCPlatformLog::Entries(const std::string& part)
{
    const std::lock_guard<std::mutex> lock(m_lock);
    return FindLocked(part);
}

std::vector<TSLogEntry> TCPlatformLog::WaitFor(const std::string& part, size_t count)
{
    std::unique_lock<std::mutex> lock(m_lock);
    std::vector<TSLogEntry> found = FindLocked(part);
    // An alarm and not a timed wait: tests may take the clock over.
    alarm(DEADLINE_SEC);
    while (found.size() < count) {
        m_added.wait(lock);
        found = FindLocked(part);
    }
    alarm(0);
    return found;
}

std::vector<TSLogEntry> TCPlatformLog::FindLocked(const std::string& part) const
{
    std::vector<TSLogEntry> found;
    for (const TSLogEntry& entry : m_entries) {
        if (entry.text.find(part) != std::string::npos) {
            found.push_back(entry);
        }
    }
    return found;
}
