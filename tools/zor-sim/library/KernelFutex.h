#pragma once

#include <sys/syscall.h>

namespace zorsim {

/// Without a time-out, and past syscall(), which is simulated.
inline long Futex(int* word, int operation, int value)
{
#if defined(__x86_64__)
    long result;
    asm volatile("mov $0, %%r10\n\tsyscall"
                 : "=a"(result)
                 : "a"(SYS_futex), "D"(word), "S"(operation), "d"(value)
                 : "rcx", "r11", "r10", "memory");
    return result;
#elif defined(__aarch64__)
    register long number asm("x8") = SYS_futex;
    register long first asm("x0") = reinterpret_cast<long>(word);
    register long second asm("x1") = operation;
    register long third asm("x2") = value;
    register long fourth asm("x3") = 0;
    asm volatile("svc 0"
                 : "+r"(first)
                 : "r"(number), "r"(second), "r"(third), "r"(fourth)
                 : "memory");
    return first;
#else
#error "This processor's way into the kernel is unknown here."
#endif
}

} // namespace zorsim
