#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ZorServiceDebugOverlay.h"

/// @file
/// A logger that an application could have written, and a way to hand entries to a logger itself.

namespace zortest {

/// One entry as a logger gets it, but for the message.
struct LogCall
{
    bool flag = false;
    log_priority priority = DLOG_INFO;
    const char* tag = "ZOR_CORE";
    const char* file = "File.cpp";
    const char* prettyFunction = "void Cls::Run(int)";
    const char* function = "Run";
    int scope = -1;
    int classBegin = 5;
    int classEnd = 7;
    int functionBegin = 10;
    int functionEnd = 12;
    int line = 77;
};

/// Hands an entry to @p logger, past the front.
__attribute__((format(printf, 3, 4))) inline void LogTo(IZORLogger* logger, const LogCall& call,
                                                        const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    logger->ZORLog(call.flag, call.priority, call.tag, call.file, call.prettyFunction,
                   call.function, call.scope, call.classBegin, call.classEnd, call.functionBegin,
                   call.functionEnd, call.line, fmt, &args);
    va_end(args);
}

/// Keeps every entry, and does what a test wants done meanwhile.
class RecordingLogger : public IZORLogger
{
 public:
    struct TSEntry
    {
        bool flag;
        log_priority priority;
        std::string tag;
        std::string file;
        std::string prettyFunction;
        std::string function;
        zor::FunctionIndices indices;
        int line;
        std::string message;
    };

    /// @param during     called with each message before it is kept
    /// @param destroyed  set when the logger goes
    explicit RecordingLogger(std::string id,
                             std::function<void(const std::string&)> during = nullptr,
                             std::atomic<bool>* destroyed = nullptr)
        : m_id(std::move(id)), m_during(std::move(during)), m_destroyed(destroyed)
    {}

    ~RecordingLogger() override
    {
        if (m_destroyed != nullptr) {
            *m_destroyed = true;
        }
    }

    void ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                const char* prettyFunction, const char* function, int scope, int classBegin,
                int classEnd, int functionBegin, int functionEnd, int line, const char* fmt,
                va_list* args) override
    {
        char message[2048];
        vsnprintf(message, sizeof(message), fmt, *args);
        if (m_during) {
            m_during(message);
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.push_back({flag,
                             priority,
                             tag,
                             file,
                             prettyFunction,
                             function,
                             {scope, classBegin, classEnd, functionBegin, functionEnd},
                             line,
                             message});
    }

    const std::string& GetLoggerId() const override { return m_id; }

    std::vector<TSEntry> Entries() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_entries;
    }

    void Clear()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.clear();
    }

    std::vector<std::string> Messages() const
    {
        std::vector<std::string> messages;
        for (const TSEntry& entry : Entries()) {
            messages.push_back(entry.message);
        }
        return messages;
    }

 private:
    const std::string m_id;
    const std::function<void(const std::string&)> m_during;
    std::atomic<bool>* const m_destroyed;
    mutable std::mutex m_mutex;
    std::vector<TSEntry> m_entries; ///< guarded by m_mutex
};

/// Shows every text on standard error at once, for a process that is about to die.
class EchoingLogger : public IZORLogger
{
 public:
    void ZORLog(bool, log_priority, const char*, const char*, const char*, const char*, int, int,
                int, int, int, int, const char* fmt, va_list* args) override
    {
        vfprintf(stderr, fmt, *args);
        fputs("|\n", stderr);
    }

    const std::string& GetLoggerId() const override
    {
        static const std::string id = "echo";
        return id;
    }
};

} // namespace zortest
