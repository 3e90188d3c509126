#pragma once

/// How many blocks of memory the calling thread has asked the heap for so far. Linking this in
/// stands in for the C library's allocation functions (with a sanitizer: uses its hooks).
unsigned long AllocationCount();
