#pragma once

#include <sys/types.h>

namespace zorhost {

/// Opens a file that the environment names for output, and makes it if there is none:
/// close-on-exec, never a controlling terminal, never in the place of a standard stream that the
/// process was started without.
///
/// It does not block: a FIFO that nobody reads is refused with ENXIO, and one that is full makes
/// writes fail with EAGAIN. A symbolic link is followed only if this user or root has made it, and
/// refused with ELOOP otherwise: in a directory like /tmp anybody may plant one.
///
/// @param flags  as open(2): how to access it, O_APPEND
/// @param mode   of a file that is made
/// @return its descriptor; -1, with errno set, if it cannot be had
int OpenOutputFile(const char* path, int flags, mode_t mode);

} // namespace zorhost
