#include "ZorServiceDebugOverlay.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "Debug.h"
#include "Immortal.h"
#include "LogText.h"

namespace {

zor::Immortal<const std::string> dlogId("ZOR DLOG logger");
zor::Immortal<const std::string> dlog2023Id("ZOR DLOG logger 2023");

constexpr size_t MESSAGE_SIZE = 844;
constexpr size_t NAME_SIZE = 1024;
constexpr int SEQUENCE_END = 1000;
constexpr int SCOPE_OPERATOR_DISTANCE = 3; // from a class name's last character over "::"

/// Numbers the entries of a thread that the platform log is sure to keep. Both platform-log loggers
/// advance it, so an entry that goes to both advances it twice.
thread_local int tSequence = 0;

/// The argument list of the entry that the thread logs, and how many entries it logs at once: more
/// than one when a logger logs.
thread_local va_list tArguments;
thread_local int tDepth = 0;

/// Keeps the argument list of the entry around this one, whose logger may not have read it yet.
class NestedEntry
{
 public:
    NestedEntry()
    {
        if (tDepth++ > 0) {
            va_copy(m_outer, tArguments);
        }
    }

    ~NestedEntry()
    {
        if (--tDepth > 0) {
            va_copy(tArguments, m_outer);
            va_end(m_outer);
        }
    }

    NestedEntry(const NestedEntry&) = delete;
    NestedEntry& operator=(const NestedEntry&) = delete;

 private:
    va_list m_outer;
};

/// A plug-in to add, or without one the id of what is to be removed.
struct PluginChange
{
    std::unique_ptr<IZORLogger> added;
    std::string removed;
};

using PluginChanges = std::vector<PluginChange>;

/// Where a thread that calls plug-ins, and so holds the mutex that a change needs, puts the changes
/// that they ask for; null in all others.
thread_local PluginChanges* tChanges = nullptr;

/// The calls of all plug-ins with one entry. A plug-in that logs begins others inside them.
class PluginCalls
{
 public:
    explicit PluginCalls(PluginChanges* changes) : m_outer(tChanges)
    {
        if (m_outer == nullptr) {
            tChanges = changes;
        }
    }
    ~PluginCalls() { tChanges = m_outer; }

    PluginCalls(const PluginCalls&) = delete;
    PluginCalls& operator=(const PluginCalls&) = delete;

    /// Whether the thread has yet to take the mutex.
    bool AreOutermost() const { return m_outer == nullptr; }

 private:
    PluginChanges* const m_outer;
};

/// Makes what plug-ins have asked for, when their thread holds the mutex no more.
void MakeChanges(PluginChanges* changes, ZORLogs* front)
{
    for (PluginChange& change : *changes) {
        change.added != nullptr ? front->AddPlugin(std::move(change.added))
                                : front->RemovePlugin(change.removed);
    }
}

/// A text cut to what its buffer holds, put together piece by piece.
class NameBuffer
{
 public:
    // Only the first character counts while nothing has been appended: clearing a kilobyte would
    // cost more than the name.
    NameBuffer() { m_text[0] = '\0'; } // cppcheck-suppress uninitMemberVar

    void Append(const char* text, size_t size)
    {
        size = std::min(size, sizeof(m_text) - 1 - m_size);
        memcpy(m_text + m_size, text, size);
        m_size += size;
        m_text[m_size] = '\0';
    }

    void Append(const char* text) { Append(text, strlen(text)); }

    /// The characters from @p first to @p last of @p text, but none behind its end.
    void AppendRange(const char* text, int first, int last)
    {
        const size_t length = strnlen(text, static_cast<size_t>(last) + 1);
        if (static_cast<size_t>(first) < length) {
            Append(text + first, length - static_cast<size_t>(first));
        }
    }

    const char* Text() const { return m_text; }
    int Width() const { return static_cast<int>(m_size); }

 private:
    char m_text[NAME_SIZE];
    size_t m_size = 0;
};

bool IsRange(int first, int last)
{
    return first >= 0 && last >= 0 && first <= last;
}

log_priority EffectivePriority(bool flag, log_priority priority)
{
    return flag && priority != DLOG_FATAL ? DLOG_ERROR : priority;
}

/// Advances the thread's counter for the priorities that are counted; 0 stands for the others.
int NextSequence(log_priority priority)
{
    if (priority < DLOG_INFO || priority > DLOG_FATAL) {
        return 0;
    }
    tSequence = (tSequence + 1) % SEQUENCE_END;
    return tSequence;
}

/// "Class::Function", with "<*>" for whatever else stands between the two.
void BuildQualifiedName(const char* prettyFunction, int classBegin, int classEnd, int functionBegin,
                        int functionEnd, NameBuffer* name)
{
    if (classBegin != functionBegin && IsRange(classBegin, classEnd)) {
        name->AppendRange(prettyFunction, classBegin, classEnd);
    }
    const int distance = functionBegin - classEnd;
    if (distance == SCOPE_OPERATOR_DISTANCE) {
        name->Append("::");
    } else if (distance > SCOPE_OPERATOR_DISTANCE) {
        name->Append("<*>::");
    }
    if (IsRange(functionBegin, functionEnd)) {
        name->AppendRange(prettyFunction, functionBegin, functionEnd);
    }
}

} // namespace

IZORLogger::~IZORLogger() = default;

const std::string& ZORLoggerDLOG::m_id = dlogId.object;
std::atomic<const char*> ZORLoggerDLOG::m_logFmt{"(%03d app:%s:%d) -> [%s:%d | %*s] >> %s"};
std::atomic<const char*> ZORLoggerDLOG::m_logFmtNoApp{"(%03d) -> [%s:%d | %*s] >> %s"};

ZORLoggerDLOG* ZORLoggerDLOG::Instance()
{
    static zor::Immortal<ZORLoggerDLOG> instance;
    return &instance.object;
}

void ZORLoggerDLOG::ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                           const char* prettyFunction, const char* /*function*/, int /*scope*/,
                           int classBegin, int classEnd, int functionBegin, int functionEnd,
                           int line, const char* fmt, va_list* args)
{
    thread_local char message[MESSAGE_SIZE];

    const log_priority effective = EffectivePriority(flag, priority);
    const int sequence = NextSequence(effective);
    FormatLogText(message, sizeof(message), fmt, args);
    NameBuffer name;
    BuildQualifiedName(prettyFunction, classBegin, classEnd, functionBegin, functionEnd, &name);

    const TSAppData& appData = TCDebugPrintZOR::GetInstance()->GetAppData();
    if (!appData.name.empty()) {
        __dlog_print(LOG_ID_MAIN, effective, tag, m_logFmt.load(std::memory_order_relaxed),
                     sequence, appData.name.c_str(), static_cast<int>(appData.value), file, line,
                     name.Width(), name.Text(), message);
    } else {
        __dlog_print(LOG_ID_MAIN, effective, tag, m_logFmtNoApp.load(std::memory_order_relaxed),
                     sequence, file, line, name.Width(), name.Text(), message);
    }
}

const std::string& ZORLoggerDLOG::GetLoggerId() const
{
    return m_id;
}

const std::string& ZORLoggerDLOG2023::m_id = dlog2023Id.object;
std::atomic<const char*> ZORLoggerDLOG2023::m_logFmt{"%s: %*s(%d) > %03d %s:%d | %s"};
std::atomic<const char*> ZORLoggerDLOG2023::m_logFmtNoApp{"%s: %*s(%d) > %03d | %s"};

ZORLoggerDLOG2023* ZORLoggerDLOG2023::Instance()
{
    static zor::Immortal<ZORLoggerDLOG2023> instance;
    return &instance.object;
}

void ZORLoggerDLOG2023::ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                               const char* prettyFunction, const char* /*function*/, int /*scope*/,
                               int /*classBegin*/, int /*classEnd*/, int functionBegin,
                               int functionEnd, int line, const char* fmt, va_list* args)
{
    thread_local char message[MESSAGE_SIZE];

    const log_priority effective = EffectivePriority(flag, priority);
    const int sequence = NextSequence(effective);
    FormatLogText(message, sizeof(message), fmt, args);
    NameBuffer name;
    if (IsRange(functionBegin, functionEnd)) {
        name.AppendRange(prettyFunction, functionBegin, functionEnd);
    }

    const TSAppData& appData = TCDebugPrintZOR::GetInstance()->GetAppData();
    if (!appData.name.empty()) {
        __dlog_print(LOG_ID_MAIN, effective, tag, m_logFmt.load(std::memory_order_relaxed), file,
                     name.Width(), name.Text(), line, sequence, appData.name.c_str(),
                     static_cast<int>(appData.value), message);
    } else {
        __dlog_print(LOG_ID_MAIN, effective, tag, m_logFmtNoApp.load(std::memory_order_relaxed),
                     file, name.Width(), name.Text(), line, sequence, message);
    }
}

const std::string& ZORLoggerDLOG2023::GetLoggerId() const
{
    return m_id;
}

ZORLogs::ZORLogs() : m_logger(ZORLoggerDLOG::Instance()) {}

ZORLogs* ZORLogs::getInstance()
{
    static std::atomic<ZORLogs*> instance{nullptr};
    static std::mutex creation;

    ZORLogs* front = instance.load(std::memory_order_acquire);
    if (front == nullptr) {
        std::lock_guard<std::mutex> lock(creation);
        front = instance.load(std::memory_order_relaxed); // the mutex orders it
        if (front == nullptr) {
            front = new ZORLogs;
            // Released after the front is complete, for those who read the pointer alone.
            instance.store(front, std::memory_order_release);
        }
    }
    return front;
}

IZORLogger* ZORLogs::getLogger() const
{
    // Acquired, so that a logger made by the thread that set it is seen complete.
    return m_logger.load(std::memory_order_acquire);
}

const std::string& ZORLogs::GetLoggerId() const
{
    const IZORLogger* lgr = getLogger();
    TCASSERT(lgr);
    return lgr->GetLoggerId();
}

void ZORLogs::SetLoggingSystem(IZORLogger* logger)
{
    TCASSERT(logger);
    if (logger == nullptr) {
        return;
    }
    m_logger.exchange(logger, std::memory_order_acq_rel);
    ZOR_LOG(false, DLOG_FATAL, "Setting-up ZOR Logger: [%s]", logger->GetLoggerId().c_str());
}

void ZORLogs::AddPlugin(std::unique_ptr<IZORLogger> plugin)
{
    TCASSERT(plugin);
    if (plugin == nullptr) {
        return;
    }
    if (tChanges != nullptr) {
        tChanges->push_back({std::move(plugin), {}});
        return;
    }
    std::unique_lock<std::shared_mutex> lock(m_pluginMutex);
    const std::string& id = plugin->GetLoggerId();
    m_plugins.try_emplace(id, std::move(plugin));
}

void ZORLogs::RemovePlugin(const std::string& id)
{
    if (id.empty()) {
        return;
    }
    if (tChanges != nullptr) {
        tChanges->push_back({nullptr, id});
        return;
    }
    std::unique_lock<std::shared_mutex> lock(m_pluginMutex);
    m_plugins.erase(id);
}

void ZORLogs::ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                     const char* prettyFunction, const char* function, int scope, int classBegin,
                     int classEnd, int functionBegin, int functionEnd, int line, const char* fmt,
                     ...)
{
    TCASSERT(getLogger());
    const NestedEntry entry;
    const auto logThrough = [&](IZORLogger* logger) {
        logger->ZORLog(flag, priority, tag, file, prettyFunction, function, scope, classBegin,
                       classEnd, functionBegin, functionEnd, line, fmt, &tArguments);
    };

    va_start(tArguments, fmt);
    logThrough(getLogger());
    va_end(tArguments);

    PluginChanges changes;
    try {
        // The shared lock tries again while the system asks for it, and throws on a deadlock.
        std::shared_lock<std::shared_mutex> lock(m_pluginMutex, std::defer_lock);
        const PluginCalls calls(&changes);
        if (calls.AreOutermost()) {
            lock.lock();
        }
        for (const auto& plugin : m_plugins) {
            va_start(tArguments, fmt);
            logThrough(plugin.second.get());
            va_end(tArguments);
        }
    } catch (...) {
        MakeChanges(&changes, this);
        throw;
    }
    MakeChanges(&changes, this);
}
