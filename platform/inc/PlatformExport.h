#pragma once

/// Marks what a platform library offers to the runtime. Everything else in such a library is
/// hidden.
#define ZOR_PLATFORM_API __attribute__((visibility("default")))
