#pragma once

#include <string>

#include "ZorExport.h"

/// Small helpers of debug menus.
class ZOR_CORE_API TCDebugMenuUtility
{
 public:
    /// Loads a library, calls one of its functions (no arguments, no result) and unloads it. What
    /// cannot be loaded or found is told on standard output.
    static void OpenLibrary(const char* fileName, const char* symbol);

    /// Whether @p text is one decimal digit or more and nothing else, by the global locale.
    static bool IsNumber(const std::string& text);

    /// Separator of a menu's screens: 36 "=" and a line end.
    static const char* const thickLine;

    /// Separator of a menu's screens: 36 "-" and a line end.
    static const char* const thinLine;
};
