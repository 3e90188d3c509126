#pragma once

namespace zorhost {

/// Writes a line to standard error, behind the program's name: what whoever has started the daemon
/// is to learn, wherever its log goes and whatever that hides. One write(2), so that lines stay
/// whole; what cannot be written is lost, and a pipe without a reader ends nobody. Leaves errno as
/// it is.
///
/// @param fmt  printf-style text without a line end
void Notice(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

} // namespace zorhost
