#pragma once

/// Marks what `libzor-core` offers to applications; everything else in the library is hidden.
#define ZOR_CORE_API __attribute__((visibility("default")))

/// Takes back from a member what its class offers: a helper that only the library calls.
#define ZOR_CORE_LOCAL __attribute__((visibility("hidden")))

namespace zor {
class LayoutTable; // where members are, for tools: a friend of the classes that they look into
} // namespace zor

// Layouts of the library's objects and the numbers in its signatures are those of such systems.
#if !defined(__linux__) || !defined(__LP64__)
#error \
    "zor-core is for Linux where long and pointers have 64 bits (LP64), such as x86-64 and AArch64."
#endif
