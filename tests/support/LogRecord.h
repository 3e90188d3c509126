#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ZorServiceDebugOverlay.h"

namespace zortest {

/// What the logging front hands to a logger, of one entry.
struct LogEntry
{
    bool flag;
    int priority;
    std::string tag;
    std::string format;
    std::string text; ///< at most 1,023 characters
};

/// A plug-in of the logging front that keeps every entry, for as long as it lives.
class LogRecord
{
 public:
    LogRecord() : m_entries(std::make_shared<Entries>())
    {
        ZORLogs::getInstance()->AddPlugin(std::make_unique<Plugin>(m_entries));
    }

    ~LogRecord() { ZORLogs::getInstance()->RemovePlugin(Plugin::Id()); }

    LogRecord(const LogRecord&) = delete;
    LogRecord& operator=(const LogRecord&) = delete;

    /// The entries so far, oldest first.
    std::vector<LogEntry> Get() const
    {
        std::lock_guard<std::mutex> lock(m_entries->mutex);
        return m_entries->list;
    }

 private:
    struct Entries
    {
        std::mutex mutex; ///< guards the list
        std::vector<LogEntry> list;
    };

    class Plugin : public IZORLogger
    {
     public:
        explicit Plugin(std::shared_ptr<Entries> entries) : m_entries(std::move(entries)) {}

        static const std::string& Id()
        {
            static const std::string id = "record of a test";
            return id;
        }

        void ZORLog(bool flag, log_priority priority, const char* tag, const char* /*file*/,
                    const char* /*prettyFunction*/, const char* /*function*/, int /*scope*/,
                    int /*classBegin*/, int /*classEnd*/, int /*functionBegin*/,
                    int /*functionEnd*/, int /*line*/, const char* fmt, va_list* args) override
        {
            char text[1024];
            vsnprintf(text, sizeof(text), fmt, *args);
            std::lock_guard<std::mutex> lock(m_entries->mutex);
            m_entries->list.push_back({flag, priority, tag, fmt, text});
        }

        const std::string& GetLoggerId() const override { return Id(); }

     private:
        const std::shared_ptr<Entries> m_entries;
    };

    const std::shared_ptr<Entries> m_entries;
};

} // namespace zortest
