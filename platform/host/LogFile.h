#pragma once

#include <cstdint>

namespace zorhost {

/// Behind the name of a log file that has grown too long, until the next one has.
constexpr char OLD_LOG_SUFFIX[] = ".old";

/// Looks after an open log file: one that was moved away or removed is made anew under its name,
/// and the descriptor then stands for the new one; one that has become too long is moved to its
/// name with ".old" first. If the new one cannot be opened the descriptor stays with the old one.
///
/// Other threads may write to the descriptor meanwhile. Takes no lock and allocates nothing.
///
/// @param fd        the descriptor; what is no regular file is left alone
/// @param path      an absolute path
/// @param maxBytes  from which size on the file is too long; 0 for never
void LookAfterLogFile(int fd, const char* path, std::uint64_t maxBytes);

} // namespace zorhost
