#pragma once

#include <cstdarg>
#include <string>

#include "PlatformExport.h"

/// Level of an entry of the debug-print library: 0 the least verbose, 7 the most.
enum EDebugLevel : int
{
    DEBUG_LEVEL_0 = 0,
    DEBUG_LEVEL_1 = 1,
    DEBUG_LEVEL_2 = 2,
    DEBUG_LEVEL_3 = 3,
    DEBUG_LEVEL_4 = 4,
    DEBUG_LEVEL_5 = 5,
    DEBUG_LEVEL_6 = 6,
    DEBUG_LEVEL_7 = 7,
};

/// On whose behalf a thread works: an application's name (empty when there is none) and a small
/// number that the application chose.
struct TSAppData
{
    std::string name;      ///< of the application
    signed char value = 0; ///< its number
};

/// The debug-print library: it prints entries and keeps application data and callback name.
///
/// Application data and callback name belong to the calling thread: each thread sets and reads its
/// own. Any thread may call any operation.
class ZOR_PLATFORM_API TCDebugPrint
{
 public:
    /// Prints one entry.
    ///
    /// @param flag            the logging front's promotion flag, passed on unchanged
    /// @param file            base name of the calling source file
    /// @param prettyFunction  full signature of the calling function
    /// @param function        its bare name
    /// @param scope,classBegin,classEnd,functionBegin,functionEnd
    ///                        indices into @p prettyFunction, -1 where there is nothing
    /// @param line            source line of the call
    /// @param module          module number of the entry
    /// @param level           verbosity of the entry
    /// @param fmt,args        printf-style text and its arguments; the list is consumed
    void PrintVALIST(bool flag, const char* file, const char* prettyFunction, const char* function,
                     int scope, int classBegin, int classEnd, int functionBegin, int functionEnd,
                     int line, int module, EDebugLevel level, const char* fmt, va_list* args);

    /// The calling thread's application data. The reference is good until the thread ends; its
    /// contents change with the thread's next SetAppName() or SetAppData().
    const TSAppData& GetAppData() const;

 protected:
    TCDebugPrint() = default;
    ~TCDebugPrint() = default;
};

/// The service daemon's own instance of the debug-print library.
class ZOR_PLATFORM_API TCDebugPrintZOR : public TCDebugPrint
{
 public:
    /// The one instance; it lives as long as the process.
    static TCDebugPrintZOR* GetInstance();

    /// Sets the calling thread's application name and leaves its value. Null clears the name.
    void SetAppName(const char* name);

    /// Sets the calling thread's application name and value. Null clears the name.
    void SetAppData(const char* name, signed char value);

    /// Sets the name of the callback that the calling thread runs; empty when it runs none.
    void SetCallbackName(const std::string& name);

    /// The calling thread's callback name.
    const std::string& GetCallbackName() const;
};

/// Prints its text when it is made and when it goes, so that a log shows how long a scope took.
class ZOR_PLATFORM_API TCScopeTrace
{
 public:
    /// @param fmt  printf-style text, of which 255 characters are kept for the end of the scope
    explicit TCScopeTrace(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    ~TCScopeTrace();

    TCScopeTrace(const TCScopeTrace&) = delete;
    TCScopeTrace& operator=(const TCScopeTrace&) = delete;

 private:
    static constexpr int TEXT_SIZE = 256;

    char m_text[TEXT_SIZE];
    unsigned long m_startNsec;
};
