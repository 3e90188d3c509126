// What a compiler calls at every access to memory when it instruments for a thread sanitizer. A
// program that is linked with this in place of the sanitizer's run-time lets the simulator choose
// at each of them; without the simulator they do nothing but the access.
#include <cstddef>
#include <cstdint>
#include <cstring>

extern "C" __attribute__((weak)) void zor_sim_access(const void* address);

namespace {

inline void Access(const volatile void* address)
{
    if (zor_sim_access != nullptr) {
        zor_sim_access(const_cast<const void*>(address));
    }
}

} // namespace

extern "C" {

void __tsan_init() {}
void __tsan_func_entry(void*) {}
void __tsan_func_exit() {}
void __tsan_vptr_update(void** address, void*)
{
    Access(address);
}
void __tsan_vptr_read(void** address)
{
    Access(address);
}
void __tsan_read_range(void* address, std::size_t)
{
    Access(address);
}
void __tsan_write_range(void* address, std::size_t)
{
    Access(address);
}
void __tsan_atomic_thread_fence(int)
{
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
}
void __tsan_atomic_signal_fence(int)
{
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

#define ZOR_SIM_ACCESS(size)                         \
    void __tsan_read##size(void* address)            \
    {                                                \
        Access(address);                             \
    }                                                \
    void __tsan_write##size(void* address)           \
    {                                                \
        Access(address);                             \
    }                                                \
    void __tsan_unaligned_read##size(void* address)  \
    {                                                \
        Access(address);                             \
    }                                                \
    void __tsan_unaligned_write##size(void* address) \
    {                                                \
        Access(address);                             \
    }                                                \
    void __tsan_volatile_read##size(void* address)   \
    {                                                \
        Access(address);                             \
    }                                                \
    void __tsan_volatile_write##size(void* address)  \
    {                                                \
        Access(address);                             \
    }
ZOR_SIM_ACCESS(1)
ZOR_SIM_ACCESS(2)
ZOR_SIM_ACCESS(4)
ZOR_SIM_ACCESS(8)
ZOR_SIM_ACCESS(16)

// One thread runs at a time, so that the strongest order costs nothing.
#define ZOR_SIM_FETCH(bits, type, operation)                                              \
    type __tsan_atomic##bits##_fetch_##operation(volatile type* address, type value, int) \
    {                                                                                     \
        Access(address);                                                                  \
        return __atomic_fetch_##operation(address, value, __ATOMIC_SEQ_CST);              \
    }
#define ZOR_SIM_ATOMIC(bits, type)                                                            \
    type __tsan_atomic##bits##_load(const volatile type* address, int)                        \
    {                                                                                         \
        Access(address);                                                                      \
        return __atomic_load_n(address, __ATOMIC_SEQ_CST);                                    \
    }                                                                                         \
    void __tsan_atomic##bits##_store(volatile type* address, type value, int)                 \
    {                                                                                         \
        Access(address);                                                                      \
        __atomic_store_n(address, value, __ATOMIC_SEQ_CST);                                   \
    }                                                                                         \
    type __tsan_atomic##bits##_exchange(volatile type* address, type value, int)              \
    {                                                                                         \
        Access(address);                                                                      \
        return __atomic_exchange_n(address, value, __ATOMIC_SEQ_CST);                         \
    }                                                                                         \
    int __tsan_atomic##bits##_compare_exchange_strong(volatile type* address, type* expected, \
                                                      type value, int, int)                   \
    {                                                                                         \
        Access(address);                                                                      \
        return __atomic_compare_exchange_n(address, expected, value, false, __ATOMIC_SEQ_CST, \
                                           __ATOMIC_SEQ_CST);                                 \
    }                                                                                         \
    int __tsan_atomic##bits##_compare_exchange_weak(volatile type* address, type* expected,   \
                                                    type value, int, int)                     \
    {                                                                                         \
        Access(address);                                                                      \
        return __atomic_compare_exchange_n(address, expected, value, false, __ATOMIC_SEQ_CST, \
                                           __ATOMIC_SEQ_CST);                                 \
    }                                                                                         \
    ZOR_SIM_FETCH(bits, type, add)                                                            \
    ZOR_SIM_FETCH(bits, type, sub)                                                            \
    ZOR_SIM_FETCH(bits, type, and)                                                            \
    ZOR_SIM_FETCH(bits, type, or)                                                             \
    ZOR_SIM_FETCH(bits, type, xor)                                                            \
    ZOR_SIM_FETCH(bits, type, nand)
ZOR_SIM_ATOMIC(8, std::uint8_t)
ZOR_SIM_ATOMIC(16, std::uint16_t)
ZOR_SIM_ATOMIC(32, std::uint32_t)
ZOR_SIM_ATOMIC(64, std::uint64_t)

void* __tsan_memcpy(void* to, const void* from, std::size_t size)
{
    Access(to);
    return std::memcpy(to, from, size);
}
void* __tsan_memset(void* to, int value, std::size_t size)
{
    Access(to);
    return std::memset(to, value, size);
}
void* __tsan_memmove(void* to, const void* from, std::size_t size)
{
    Access(to);
    return std::memmove(to, from, size);
}

} // extern "C"
