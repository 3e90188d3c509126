#pragma once

#include <atomic>
#include <cstdarg>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "TCDebugPrint.h"
#include "ZorExport.h"
#include "ZorFunctionIndices.h"
#include "dlog.h"

/// @file
/// The logging front of the process, the loggers that come with it, and the macro to log through
/// it.
///
/// An entry goes to the current logger and then to every plug-in. Any thread may log at any time.
/// The front and the platform-log loggers allocate nothing and report no failure of the platform
/// log; what another logger or a plug-in throws reaches who logs.

/// Writes one entry through the logging front, tagged "ZOR_CORE".
///
/// @param flag      promotion: the platform-log loggers write the entry at ERROR whatever its
///                  priority (FATAL stays FATAL)
/// @param priority  a log_priority, usually from DLOG_DEBUG to DLOG_FATAL
/// @param ...       printf-style text and its arguments; 843 characters of it are written
///
/// Example: `ZOR_LOG(false, DLOG_INFO, "%u services", count);`
#define ZOR_LOG(flag, priority, ...) ZOR_LOG_TAGGED("ZOR_CORE", flag, priority, __VA_ARGS__)

/// ZOR_LOG() with a tag of the application's own.
#define ZOR_LOG_TAGGED(tag, flag, priority, ...)                                                  \
    do {                                                                                          \
        constexpr ::zor::FunctionIndices zorIndices =                                             \
            ::zor::FindFunctionIndices(__PRETTY_FUNCTION__);                                      \
        constexpr const char* zorFile = ::zor::BaseName(__FILE__);                                \
        ::ZORLogs::getInstance()->ZORLog((flag), (priority), (tag), zorFile, __PRETTY_FUNCTION__, \
                                         __func__, zorIndices.scope, zorIndices.classBegin,       \
                                         zorIndices.classEnd, zorIndices.functionBegin,           \
                                         zorIndices.functionEnd, __LINE__, __VA_ARGS__);          \
    } while (false)

/// A destination of log entries. Applications derive from it to add their own.
///
/// Every operation may be called by any number of threads at once. The runtime also logs while it
/// holds locks of its own, the timers' and those of alarms among them: a logger may send an event
/// without waiting, but must not use timers or alarms, nor wait for a task.
class ZOR_CORE_API IZORLogger
{
 public:
    virtual ~IZORLogger();

    /// Takes one entry.
    ///
    /// @param flag            promotion flag, see ZOR_LOG()
    /// @param priority        priority of the entry
    /// @param tag             the component that logs
    /// @param file            base name of the calling source file
    /// @param prettyFunction  full signature of the calling function
    /// @param function        its bare name
    /// @param scope,classBegin,classEnd,functionBegin,functionEnd
    ///                        indices into @p prettyFunction: see zor::FunctionIndices
    /// @param line            source line of the call
    /// @param fmt,args        printf-style text and its arguments. The list belongs to the caller,
    ///                        who ends it; it may be consumed once.
    virtual void ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                        const char* prettyFunction, const char* function, int scope, int classBegin,
                        int classEnd, int functionBegin, int functionEnd, int line, const char* fmt,
                        va_list* args) = 0;

    /// The logger's id, the same for as long as it lives.
    virtual const std::string& GetLoggerId() const = 0;
};

/// The default logger: lines of the platform log that name class and function.
class ZOR_CORE_API ZORLoggerDLOG : public IZORLogger
{
 public:
    /// The one logger of this kind, usable until the very end of the process.
    static ZORLoggerDLOG* Instance();

    void ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                const char* prettyFunction, const char* function, int scope, int classBegin,
                int classEnd, int functionBegin, int functionEnd, int line, const char* fmt,
                va_list* args) override;
    const std::string& GetLoggerId() const override;

    /// "ZOR DLOG logger". Like the logger it outlives every static destructor.
    static const std::string& m_id;

    /// Format of a line with an application name. It may be exchanged at any time for a text that
    /// takes the same arguments and that lives on.
    static std::atomic<const char*> m_logFmt;

    /// The same for a line without an application name.
    static std::atomic<const char*> m_logFmtNoApp;
};

/// Lines of the platform log in the layout of 2023: the function's name without its class.
class ZOR_CORE_API ZORLoggerDLOG2023 : public IZORLogger
{
 public:
    /// The one logger of this kind, usable until the very end of the process.
    static ZORLoggerDLOG2023* Instance();

    void ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                const char* prettyFunction, const char* function, int scope, int classBegin,
                int classEnd, int functionBegin, int functionEnd, int line, const char* fmt,
                va_list* args) override;
    const std::string& GetLoggerId() const override;

    /// "ZOR DLOG logger 2023". Like the logger it outlives every static destructor.
    static const std::string& m_id;

    /// As ZORLoggerDLOG::m_logFmt, with the arguments of this layout.
    static std::atomic<const char*> m_logFmt;

    /// The same for a line without an application name.
    static std::atomic<const char*> m_logFmtNoApp;
};

/// Hands entries to the debug-print library, by level and module number.
class ZOR_CORE_API ZORLoggerLegacy : public IZORLogger
{
 public:
    using LevelMapping = std::map<log_priority, EDebugLevel>;      ///< by priority
    using ModuleMapping = std::map<std::string, int, std::less<>>; ///< by tag

    /// The one logger of this kind, usable until the very end of the process. The first call fills
    /// those of the mapping tables that are still empty.
    static ZORLoggerLegacy* Instance();

    /// A priority or a tag that is not in its table enters it with level or module number 0, which
    /// allocates and may throw std::bad_alloc. A null tag throws std::logic_error.
    void ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                const char* prettyFunction, const char* function, int scope, int classBegin,
                int classEnd, int functionBegin, int functionEnd, int line, const char* fmt,
                va_list* args) override;
    const std::string& GetLoggerId() const override;

    /// "ZOR Legacy logger". Like the logger it outlives every static destructor.
    static const std::string& m_id;

    /// The levels, which outlive every static destructor. An application may fill the table before
    /// the first Instance(); once the logger is in use only the logger may touch it.
    static LevelMapping& m_levelMapping;

    /// The same for the module numbers.
    static ModuleMapping& m_moduleMapping;

 private:
    std::shared_mutex m_mappingMutex; ///< guards both tables
};

/// The front: one per process, made on first use and never destroyed.
class ZOR_CORE_API ZORLogs
{
 public:
    /// The front. Any thread may be the first to call.
    static ZORLogs* getInstance();

    ZORLogs(const ZORLogs&) = delete;
    ZORLogs& operator=(const ZORLogs&) = delete;

    /// The current logger; ZORLoggerDLOG::Instance() until another is set.
    IZORLogger* getLogger() const;

    /// The current logger's id. Asserts "lgr".
    const std::string& GetLoggerId() const;

    /// Makes @p logger the current one and logs that at FATAL. The logger stays the caller's and
    /// must live until no thread can still be logging through it. Asserts "logger"; a null one is
    /// not set.
    void SetLoggingSystem(IZORLogger* logger);

    /// Adds a logger that gets every entry after the current logger has had it; plug-ins are called
    /// in the byte order of their ids. The front owns the plug-in from now on. One whose id is
    /// taken is destroyed at once. The plug-in must not log from GetLoggerId() or from its
    /// destructor.
    ///
    /// A plug-in may call this while it takes an entry: then the change is made when the entry, and
    /// all that is logged meanwhile on the same thread, has been given to all plug-ins, or when one
    /// of them has thrown.
    void AddPlugin(std::unique_ptr<IZORLogger> plugin);

    /// Removes and destroys the plug-in with that id, waiting for entries that are being logged.
    /// Nothing happens if there is none or if @p id is empty. A plug-in that calls this while it
    /// takes an entry, also for itself, stays until that entry is done with, as for AddPlugin().
    void RemovePlugin(const std::string& id);

    /// Logs one entry; ZOR_LOG() supplies the arguments (see IZORLogger::ZORLog()). Asserts
    /// "getLogger()". Throws std::system_error if the calling thread is changing the plug-ins.
    void ZORLog(bool flag, log_priority priority, const char* tag, const char* file,
                const char* prettyFunction, const char* function, int scope, int classBegin,
                int classEnd, int functionBegin, int functionEnd, int line, const char* fmt, ...)
        __attribute__((format(printf, 14, 15)));

 private:
    ZORLogs();
    ~ZORLogs() = default;

    std::atomic<IZORLogger*> m_logger; ///< not owned; synchronised in itself
    std::map<std::string, std::unique_ptr<IZORLogger>> m_plugins; ///< guarded by m_pluginMutex
    std::shared_mutex m_pluginMutex;
};
