#include "AllocationCount.h"

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZOR_TEST_SANITIZER_HEAP
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZOR_TEST_SANITIZER_HEAP
#endif
#endif

namespace {

thread_local unsigned long t_count = 0;

} // namespace

unsigned long AllocationCount()
{
    return t_count;
}

#ifdef ZOR_TEST_SANITIZER_HEAP

// Declared here: not every compiler brings the sanitizers' headers along.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*,
                                                                          size_t),
                                                         void (*onFree)(const volatile void*));

namespace {

void OnMalloc(const volatile void* /*block*/, size_t /*size*/)
{
    ++t_count;
}

void OnFree(const volatile void* /*block*/) {}

const int g_hooks = __sanitizer_install_malloc_and_free_hooks(OnMalloc, OnFree);

} // namespace

#else

extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);

void* malloc(size_t size)
{
    ++t_count;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    ++t_count;
    return __libc_calloc(count, size);
}

void* realloc(void* block, size_t size)
{
    ++t_count;
    return __libc_realloc(block, size);
}
}

#endif
