#pragma once

#include <dlfcn.h>

/// What a program calls and finds here instead of in libc.
#define ZOR_SIM_EXPORT extern "C" __attribute__((visibility("default")))

/// The function that would have been called without this library; looked up once.
#define ZOR_SIM_REAL(function)                                                             \
    ([] {                                                                                  \
        static decltype(&::function) s_real;                                               \
        if (s_real == nullptr) {                                                           \
            s_real = reinterpret_cast<decltype(&::function)>(dlsym(RTLD_NEXT, #function)); \
        }                                                                                  \
        return s_real;                                                                     \
    }())
