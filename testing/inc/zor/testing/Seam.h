#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <utility>

namespace zor::testing {

template <typename Signature>
class Seam;

/// A function of another library that the test program has taken over by defining it.
///
/// The dynamic linker prefers the program's definition, which does nothing but call its seam:
///
///     Seam<int(clockid_t, timespec*)> clockGettimeSeam("clock_gettime");
///     extern "C" int clock_gettime(clockid_t id, timespec* now) noexcept
///     {
///         return clockGettimeSeam(id, now);
///     }
///
/// The seam passes the call on to the library unless a Takeover is alive. It is constant
/// initialised, because libraries may call it before the program's own initialisation. Any thread
/// may call through it.
template <typename Result, typename... Args>
class Seam<Result(Args...)>
{
 public:
    using Function = Result(Args...);     ///< what is taken over
    using Hook = std::function<Function>; ///< what calls may be sent to

    /// @param symbol  the function's name as the linker knows it
    constexpr explicit Seam(const char* symbol) : m_symbol(symbol) {}

    Seam(const Seam&) = delete;
    Seam& operator=(const Seam&) = delete;

    /// Passes the call on, to the hook of a Takeover or to the library.
    Result operator()(Args... args)
    {
        if (m_hook.load() == nullptr) {
            return Real(args...);
        }
        const Call call(&m_calls);
        // Loaded again: only a hook found after the call has been counted cannot go meanwhile.
        const Hook* hook = m_hook.load();
        return hook != nullptr ? (*hook)(args...) : Real(args...);
    }

    /// The library's own function.
    Result Real(Args... args)
    {
        Function* real = m_real.load(std::memory_order_relaxed);
        if (real == nullptr) {
            real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, m_symbol));
            if (real == nullptr) {
                fprintf(stderr, "no library defines %s\n", m_symbol);
                abort();
            }
            m_real.store(real, std::memory_order_relaxed);
        }
        return real(args...);
    }

    /// Sends calls to @p hook, which stays the caller's; null sends them to the library again and
    /// waits for calls of the former hook to return.
    void Redirect(const Hook* hook)
    {
        m_hook.store(hook);
        while (hook == nullptr && m_calls.load() != 0) {
            std::this_thread::yield();
        }
    }

 private:
    class Call
    {
     public:
        explicit Call(std::atomic<int>* calls) : m_calls(calls) { ++*m_calls; }
        ~Call() { --*m_calls; }

        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

     private:
        std::atomic<int>* m_calls;
    };

    const char* m_symbol;
    std::atomic<Function*> m_real{nullptr};
    std::atomic<const Hook*> m_hook{nullptr};
    std::atomic<int> m_calls{0}; ///< calls that run the hook now
};

/// Sends the calls of a seam to a callable for as long as it lives. The callable may be called by
/// any thread and may use the seam's Real().
template <typename Signature>
class Takeover
{
 public:
    /// @param seam  which must outlive this; nobody else may have taken it over
    /// @param hook  where its calls go
    template <typename Callable>
    Takeover(Seam<Signature>& seam, Callable&& hook)
        : m_seam(seam), m_hook(std::forward<Callable>(hook))
    {
        m_seam.Redirect(&m_hook);
    }

    ~Takeover() { m_seam.Redirect(nullptr); }

    Takeover(const Takeover&) = delete;
    Takeover& operator=(const Takeover&) = delete;

 private:
    Seam<Signature>& m_seam;
    std::function<Signature> m_hook;
};

template <typename Signature, typename Callable>
Takeover(Seam<Signature>&, Callable&&) -> Takeover<Signature>;

} // namespace zor::testing
