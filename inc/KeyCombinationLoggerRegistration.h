#pragma once

#include "KeyCombination.h"
#include "ZorExport.h"

/// Lets a service engineer open the platform's debug menus from the remote control.
///
/// | combination | program                                                  | registered        |
/// |-------------|----------------------------------------------------------|-------------------|
/// | 99          | /usr/apps/org.nimbo.core-debug-menu/bin/core-debug-menu  | in a debug build  |
/// | 113         | /usr/apps/org.nimbo.core-tkgs-menu/bin/core-tkgs-menu    | always            |
///
/// Initialize() and Exit() are called once each, by one thread. The programs are started from the
/// key-combination library's thread, with no signal blocked and none ignored, whatever the daemon
/// does.
class ZOR_CORE_API KeyCombinationLoggerRegistration
{
 public:
    /// Loads the key-combination library and registers the combinations. Without the library the
    /// launcher stays inactive; that is logged.
    static void Initialize();

    /// Unregisters the combinations and unloads the library. Nothing happens without Initialize().
    static void Exit();

    // Path of the library and names of its functions. They may be changed before Initialize(), for
    // texts that live on until Exit() has returned.

    static const char* m_LIBRARY_PATH;                   ///< "/usr/lib64/libqv-win-util.so"
    static const char* m_KEY_COMBINATION_INITIALIZE;     ///< "KeyCombination_Initialize"
    static const char* m_KEY_COMBINATION_FINALIZE;       ///< "KeyCombination_Finalize"
    static const char* m_KEY_COMBINATION_ADD_HANDLER;    ///< "KeyCombination_Add_Handler"
    static const char* m_KEY_COMBINATION_REMOVE_HANDLER; ///< "KeyCombination_Remove_Handler"

    /// The loaded library, null while there is none.
    static void* m_handle;

 private:
    static void* FindFunction(const char* symbol, const char** error);
    static void m_CallInitializeFinalizeFunctions(const char* symbol);
    static void m_CallHandlerFunction(const char* symbol, KeyComb combination,
                                      KeyCombHandler handler);
    static void m_LaunchMenu(KeyComb combination, void* data);
    static void m_LaunchTkgsPopup(KeyComb combination, void* data);
    static void StartProgram(const char* program);
};
