#pragma once

#include "PlatformExport.h"

/// Tells whoever has started the process that it steps aside: it could not make the pid file, so it
/// ends now, with status 0 and without having run the application. Called once, on the first
/// thread, before the library starts another one; nothing is expected to come of it.
///
/// A platform may leave this function out: the runtime asks for it weakly.
///
/// @param pidFile  path of the pid file
/// @param error    error number of what failed: EEXIST if the file was there already, 0 if it took
///                 only a part of what was to be written
extern "C" ZOR_PLATFORM_API void zor_note_step_aside(const char* pidFile, int error);
