#pragma once

#include "PlatformExport.h"

/// @file
/// The key-combination library: it tells its handlers when a combination is pressed on the remote
/// control. The runtime loads it at run time and looks these functions up by name.

/// A key combination; the platform gives the numbers their meaning.
enum KeyComb : int
{
};

/// Called on the library's own thread with the combination and a text (a C string). The text is the
/// library's and lives until the handler returns.
using KeyCombHandler = void (*)(KeyComb, void* data);

/// Starts the library; no handler is called before this.
extern "C" ZOR_PLATFORM_API void KeyCombination_Initialize();

/// Stops the library; when it returns no handler is running any more. Not to be called by a
/// handler.
extern "C" ZOR_PLATFORM_API void KeyCombination_Finalize();

/// Has @p handler called for @p combination. Several handlers may be added for one combination;
/// they are called in the order in which they were added. Any thread may call this, handlers too.
extern "C" ZOR_PLATFORM_API void KeyCombination_Add_Handler(KeyComb combination,
                                                            KeyCombHandler handler);

/// Undoes one KeyCombination_Add_Handler(); nothing happens if that has not been called. When it
/// returns the handler is not running any more, unless a handler is what calls this. Any thread may
/// call this, but with no lock held that the handler takes.
extern "C" ZOR_PLATFORM_API void KeyCombination_Remove_Handler(KeyComb combination,
                                                               KeyCombHandler handler);
