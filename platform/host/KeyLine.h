#pragma once

#include <string>
#include <string_view>

#include "KeyCombination.h"

namespace zorhost {

/// One press of a combination.
struct TSKeyPress
{
    KeyComb combination{};
    std::string text;
};

/// Takes "113 some text" apart: a number from 0, and behind one blank the text, which is empty if
/// there is no more than the number.
/// @return false if @p line is none of these
bool ParseKeyLine(std::string_view line, TSKeyPress* press);

/// Writes one line to standard error, led by the name of the setting that the keys come from.
void ComplainOfKeys(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

/// The text for a complaint: what a terminal would act upon is shown as '?', and a long text is
/// cut.
std::string Printable(std::string_view text);

} // namespace zorhost
