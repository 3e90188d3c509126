#pragma once

/// Marks what `libzor-core` offers to applications; everything else in the library is hidden.
#define ZOR_CORE_API __attribute__((visibility("default")))

/// Takes back from a member what its class offers: a helper that only the library calls.
#define ZOR_CORE_LOCAL __attribute__((visibility("hidden")))
