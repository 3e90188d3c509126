#include "KeyCombinationLoggerRegistration.h"

#include <dlfcn.h>
#include <unistd.h>

#include <csignal>

#include "ChildSignals.h"
#include "ZorApiLite.h"
#include "ZorServiceDebugOverlay.h"

namespace {

constexpr KeyComb DEBUG_MENU_COMBINATION = static_cast<KeyComb>(99);
constexpr KeyComb TKGS_MENU_COMBINATION = static_cast<KeyComb>(113);

constexpr char DEBUG_MENU_PROGRAM[] = "/usr/apps/org.nimbo.core-debug-menu/bin/core-debug-menu";
constexpr char TKGS_MENU_PROGRAM[] = "/usr/apps/org.nimbo.core-tkgs-menu/bin/core-tkgs-menu";

} // namespace

const char* KeyCombinationLoggerRegistration::m_LIBRARY_PATH = "/usr/lib64/libqv-win-util.so";
const char* KeyCombinationLoggerRegistration::m_KEY_COMBINATION_INITIALIZE =
    "KeyCombination_Initialize";
const char* KeyCombinationLoggerRegistration::m_KEY_COMBINATION_FINALIZE =
    "KeyCombination_Finalize";
const char* KeyCombinationLoggerRegistration::m_KEY_COMBINATION_ADD_HANDLER =
    "KeyCombination_Add_Handler";
const char* KeyCombinationLoggerRegistration::m_KEY_COMBINATION_REMOVE_HANDLER =
    "KeyCombination_Remove_Handler";
void* KeyCombinationLoggerRegistration::m_handle = nullptr;

void KeyCombinationLoggerRegistration::Initialize()
{
    m_handle = dlopen(m_LIBRARY_PATH, RTLD_NOW);
    if (m_handle == nullptr) {
        ZOR_LOG(true, DLOG_INFO, "[%s][%d] Couldn't open the library", __func__, __LINE__);
        return;
    }
    m_CallInitializeFinalizeFunctions(m_KEY_COMBINATION_INITIALIZE);
    if (ZorApiLite::LiteUtility::IsDebug()) {
        m_CallHandlerFunction(m_KEY_COMBINATION_ADD_HANDLER, DEBUG_MENU_COMBINATION, m_LaunchMenu);
    }
    m_CallHandlerFunction(m_KEY_COMBINATION_ADD_HANDLER, TKGS_MENU_COMBINATION, m_LaunchTkgsPopup);
}

void KeyCombinationLoggerRegistration::Exit()
{
    if (m_handle == nullptr) {
        return; // looking functions up without a library would find somebody else's
    }
    if (ZorApiLite::LiteUtility::IsDebug()) {
        m_CallHandlerFunction(m_KEY_COMBINATION_REMOVE_HANDLER, DEBUG_MENU_COMBINATION,
                              m_LaunchMenu);
    }
    m_CallHandlerFunction(m_KEY_COMBINATION_REMOVE_HANDLER, TKGS_MENU_COMBINATION,
                          m_LaunchTkgsPopup);
    m_CallInitializeFinalizeFunctions(m_KEY_COMBINATION_FINALIZE);
    if (dlclose(m_handle) != 0) {
        ZOR_LOG(true, DLOG_INFO, "[%s][%d] There was error during closing dynamic library: %s",
                __func__, __LINE__, dlerror());
    }
    m_handle = nullptr;
}

/// @param error  the loader's error, null if there was none
void* KeyCombinationLoggerRegistration::FindFunction(const char* symbol, const char** error)
{
    dlerror(); // whatever went wrong elsewhere in this thread is not ours
    void* const function = dlsym(m_handle, symbol);
    *error = dlerror();
    return function;
}

/// Calls what was found even after an error, and so brings down a daemon whose library has no such
/// function. That is required, and deliberately unlike the handler calls.
void KeyCombinationLoggerRegistration::m_CallInitializeFinalizeFunctions(const char* symbol)
{
    const char* error = nullptr;
    void* const function = FindFunction(symbol, &error);
    if (error != nullptr) {
        ZOR_LOG(true, DLOG_INFO, "[%s][%d] There was error during getting %s function: %s ",
                __func__, __LINE__, symbol, error);
    }
    reinterpret_cast<void (*)()>(function)();
}

void KeyCombinationLoggerRegistration::m_CallHandlerFunction(const char* symbol,
                                                             KeyComb combination,
                                                             KeyCombHandler handler)
{
    const char* error = nullptr;
    void* const function = FindFunction(symbol, &error);
    if (error != nullptr) {
        ZOR_LOG(true, DLOG_INFO, "[%s][%d] There was error during getting %s function: %s ",
                __func__, __LINE__, symbol, error);
        return;
    }
    reinterpret_cast<void (*)(KeyComb, KeyCombHandler)>(function)(combination, handler);
}

void KeyCombinationLoggerRegistration::m_LaunchMenu(KeyComb combination, void* data)
{
    ZOR_LOG(true, DLOG_INFO, "[%s][%d] %s hit sucessfully! %d", __func__, __LINE__,
            static_cast<const char*>(data), combination);
    StartProgram(DEBUG_MENU_PROGRAM);
}

void KeyCombinationLoggerRegistration::m_LaunchTkgsPopup(KeyComb combination, void* data)
{
    ZOR_LOG(true, DLOG_INFO, "[%s][%d] %s hit sucessfully! %d", __func__, __LINE__,
            static_cast<const char*>(data), combination);
    signal(SIGCHLD, SIG_IGN); // the system reaps the children
    StartProgram(TKGS_MENU_PROGRAM);
}

void KeyCombinationLoggerRegistration::StartProgram(const char* program)
{
    const sigset_t before = zor::BlockSignals();
    if (fork() == 0) {
        static zor::SignalActions inherited; // nobody else's: the child has one thread
        zor::ResetSignals(&inherited);
        execl(program, program, "", static_cast<char*>(nullptr));
        // A child without its program goes on from here, as its parent would; nothing ends it.
        zor::SetSignals(inherited);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}
