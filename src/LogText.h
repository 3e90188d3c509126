#pragma once

#include <cstdarg>
#include <cstddef>

/// vsnprintf() without its result, quick for what log lines are made of: `%s`, `%d`, `%i` and `%u`,
/// these three also with `l`, `ll` or `z`, and `%%`. From anything else on the C library takes
/// over.
///
/// @param text,size  where the text goes, cut to size - 1 characters and terminated; size is not 0
/// @param args       the arguments, which are consumed
void FormatLogText(char* text, std::size_t size, const char* fmt, va_list* args)
    __attribute__((format(printf, 3, 0)));
