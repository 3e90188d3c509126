#pragma once

#include "ZorExport.h"

/// @file
/// Texts on the television's screen, shown by the platform's program "/usr/bin/infobox". Any thread
/// may call any function; none waits for a box and none reports a failure to its caller. Showing a
/// box leaves errno as it was and sets SIGCHLD to be ignored, so that finished boxes are reaped by
/// the system. The program itself starts with no signal blocked and none ignored, whatever the
/// daemon does.

/// Shows a text.
///
/// @param x,y  where, at most 1920 and 1080; a larger value counts as 0
/// @param fmt  printf-style text, of which 998 characters are shown
ZOR_CORE_API void show_message_box(unsigned int x, unsigned int y, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

/// The same, with "1" as a further argument of the program, behind the position.
ZOR_CORE_API void create_message_box(unsigned int x, unsigned int y, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

/// Ends all boxes, whoever has shown them, and logs how that went: the status of pkill(1) as
/// system() returns it. While SIGCHLD is ignored, as it is once a box has been shown, that is -1:
/// the system has reaped the command before its status could be asked for.
ZOR_CORE_API void destroy_message_box();
