// The least that a port must supply: a log on standard output, no supervision, no recording.
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "TCDebugPrint.h"
#include "ZorApiLite.h"
#include "brisk_deadlock.h"
#include "dlog.h"
#include "ht.h"

int __dlog_print(log_id_t, int priority, const char* tag, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int length = std::printf("tiny %d %s: ", priority, tag == nullptr ? "" : tag);
    length += std::vprintf(fmt, args);
    va_end(args);
    std::putchar('\n');
    std::fflush(stdout);
    return length;
}

int brisk_deadlock_register_watchdog_service(unsigned long)
{
    return 0;
}

int brisk_deadlock_watchdog_notify(void)
{
    return 0;
}

namespace ZorApiLite {

bool LiteUtility::IsRelease()
{
    return false;
}

bool LiteUtility::IsDebug()
{
    return true;
}

void LiteUtility::SleepMs(unsigned long msec)
{
    timespec left{static_cast<time_t>(msec / 1000), static_cast<long>(msec % 1000) * 1000000};
    while (nanosleep(&left, &left) != 0) {
    }
}

} // namespace ZorApiLite

namespace {

thread_local TSAppData t_appData;
thread_local std::string t_callbackName;

} // namespace

void TCDebugPrint::PrintVALIST(bool, const char*, const char*, const char* function, int, int, int,
                               int, int, int, int, EDebugLevel, const char* fmt, va_list* args)
{
    std::printf("%s: ", function);
    std::vprintf(fmt, *args);
}

const TSAppData& TCDebugPrint::GetAppData() const
{
    return t_appData;
}

TCDebugPrintZOR* TCDebugPrintZOR::GetInstance()
{
    static TCDebugPrintZOR instance;
    return &instance;
}

void TCDebugPrintZOR::SetAppName(const char* name)
{
    t_appData.name = name;
}

void TCDebugPrintZOR::SetAppData(const char* name, signed char value)
{
    t_appData.name = name;
    t_appData.value = value;
}

void TCDebugPrintZOR::SetCallbackName(const std::string& name)
{
    t_callbackName = name;
}

const std::string& TCDebugPrintZOR::GetCallbackName() const
{
    return t_callbackName;
}

TCScopeTrace::TCScopeTrace(const char*, ...) : m_text{}, m_startNsec(0) {}

TCScopeTrace::~TCScopeTrace() = default;
