#pragma once

/// Marks what `libzor-core` offers to applications; everything else in the library is hidden.
#define ZOR_CORE_API __attribute__((visibility("default")))
