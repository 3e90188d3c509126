#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <new>

#include "TCDebugPrint.h"
#include "dlog.h"

namespace {

constexpr char PRINT_TAG[] = "ZOR_PRINT";
constexpr char TRACE_TAG[] = "ZOR_TRACE";
constexpr char CUT_MARK[] = " ...[cut]";
constexpr size_t TEXT_SIZE = 4096;

/// What a thread works for.
struct TSThreadData
{
    TSAppData app;
    std::string callback;
};

/// The calling thread's data. It is made on first use and never destroyed: destructors of static
/// objects run on the main thread after those of its thread-local ones and may still ask for it.
alignas(TSThreadData) thread_local unsigned char t_storage[sizeof(TSThreadData)];
thread_local TSThreadData* t_data = nullptr;

/// Gives the memory of long names back when the thread ends and leaves the names empty.
struct TSRelease
{
    ~TSRelease()
    {
        std::string().swap(t_data->app.name);
        std::string().swap(t_data->callback);
    }
};

__attribute__((noinline)) TSThreadData& MakeThreadData()
{
    t_data = new (t_storage) TSThreadData;
    static thread_local TSRelease release;
    static_cast<void>(release);
    return *t_data;
}

TSThreadData& ThreadData()
{
    return t_data != nullptr ? *t_data : MakeThreadData();
}

void SetName(std::string* name, const char* value)
{
    if (value == nullptr || *value == '\0') {
        name->clear();
    } else {
        name->assign(value);
    }
}

log_priority PriorityOf(EDebugLevel level)
{
    // Level 0 is what is never left out.
    if (level <= DEBUG_LEVEL_1) {
        return DLOG_FATAL;
    }
    if (level >= DEBUG_LEVEL_5) {
        return DLOG_DEBUG;
    }
    return static_cast<log_priority>(DLOG_FATAL - (level - DEBUG_LEVEL_1));
}

/// vsnprintf that marks a text that it had to cut.
void FormatText(char* text, size_t size, const char* fmt, va_list args)
{
    const int length = vsnprintf(text, size, fmt, args);
    if (length < 0) {
        snprintf(text, size, "%s", fmt);
    } else if (static_cast<size_t>(length) >= size) {
        snprintf(text + size - sizeof(CUT_MARK), sizeof(CUT_MARK), "%s", CUT_MARK);
    }
}

const char* OrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

unsigned long NowNsec()
{
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<unsigned long>(now.tv_sec) * 1000000000UL +
           static_cast<unsigned long>(now.tv_nsec);
}

} // namespace

void TCDebugPrint::PrintVALIST(bool flag, const char* file, const char* /*prettyFunction*/,
                               const char* function, int /*scope*/, int /*classBegin*/,
                               int /*classEnd*/, int /*functionBegin*/, int /*functionEnd*/,
                               int line, int module, EDebugLevel level, const char* fmt,
                               va_list* args)
{
    char text[TEXT_SIZE];
    FormatText(text, sizeof(text), fmt, *args);
    log_priority priority = PriorityOf(level);
    if (flag && priority < DLOG_ERROR) {
        priority = DLOG_ERROR;
    }
    __dlog_print(LOG_ID_MAIN, priority, PRINT_TAG, "[%d] %s:%d %s: %s", module, OrEmpty(file), line,
                 OrEmpty(function), text);
}

const TSAppData& TCDebugPrint::GetAppData() const
{
    return ThreadData().app;
}

TCDebugPrintZOR* TCDebugPrintZOR::GetInstance()
{
    static TCDebugPrintZOR instance;
    return &instance;
}

void TCDebugPrintZOR::SetAppName(const char* name)
{
    SetName(&ThreadData().app.name, name);
}

void TCDebugPrintZOR::SetAppData(const char* name, signed char value)
{
    TSAppData& app = ThreadData().app;
    SetName(&app.name, name);
    app.value = value;
}

void TCDebugPrintZOR::SetCallbackName(const std::string& name)
{
    ThreadData().callback = name;
}

const std::string& TCDebugPrintZOR::GetCallbackName() const
{
    return ThreadData().callback;
}

TCScopeTrace::TCScopeTrace(const char* fmt, ...) : m_startNsec(NowNsec())
{
    va_list args;
    va_start(args, fmt);
    FormatText(m_text, sizeof(m_text), fmt, args);
    va_end(args);
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, TRACE_TAG, "+ %s", m_text);
}

TCScopeTrace::~TCScopeTrace()
{
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, TRACE_TAG, "- %s (%lu us)", m_text,
                 (NowNsec() - m_startNsec) / 1000);
}
