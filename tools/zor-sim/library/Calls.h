#pragma once

#include <cstdint>
#include <ctime>

/// What libc's functions and the same calls by number, past them, have in common.
namespace zorsim {

/// As the kernel's call: -1 and errno, or the result.
long SimulateFutex(int* word, int operation, int value, const timespec* time, std::uint32_t bits,
                   const void* caller);

} // namespace zorsim
