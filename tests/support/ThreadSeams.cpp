#include "ThreadSeams.h"

namespace zortest {

Seam<int(pthread_t*, const pthread_attr_t*, ThreadEntry, void*)> pthreadCreateSeam(
    "pthread_create");
Seam<int(pthread_t, const char*)> setnameSeam("pthread_setname_np");
Seam<int(__priority_which_t, id_t, int)> setprioritySeam("setpriority");

namespace {

using AttrDestroy = int(pthread_attr_t*);

thread_local int tAttributesDestroyed = 0;
AttrDestroy* gRealAttrDestroy = nullptr;

} // namespace

int AttributesDestroyed()
{
    return tAttributesDestroyed;
}

} // namespace zortest

extern "C" {

int pthread_create(pthread_t* handle, const pthread_attr_t* attributes, zortest::ThreadEntry entry,
                   void* argument) noexcept
{
    return zortest::pthreadCreateSeam(handle, attributes, entry, argument);
}

// No seam and nothing instrumented: the thread sanitizer calls it on threads that it does not know
// yet, and must not be called back from there.
__attribute__((no_sanitize("thread"))) int pthread_attr_destroy(pthread_attr_t* attributes) noexcept
{
    using namespace zortest;
    AttrDestroy* real = __atomic_load_n(&gRealAttrDestroy, __ATOMIC_RELAXED);
    if (real == nullptr) {
        real = reinterpret_cast<AttrDestroy*>(dlsym(RTLD_NEXT, "pthread_attr_destroy"));
        __atomic_store_n(&gRealAttrDestroy, real, __ATOMIC_RELAXED);
    }
    ++tAttributesDestroyed;
    return real(attributes);
}

int pthread_setname_np(pthread_t thread, const char* name) noexcept
{
    return zortest::setnameSeam(thread, name);
}

int setpriority(__priority_which_t which, id_t who, int niceness) noexcept
{
    return zortest::setprioritySeam(which, who, niceness);
}
}
