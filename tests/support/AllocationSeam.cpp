#include "AllocationSeam.h"

#include <pthread.h>

namespace zortest {

Seam<void*(std::size_t, const std::nothrow_t&)> nothrowNewSeam("_ZnwmRKSt9nothrow_t");

FailingAllocation::FailingAllocation(int number)
    : m_takeover(nothrowNewSeam, [number, thread = pthread_self()](
                                     std::size_t size, const std::nothrow_t& tag) mutable {
          const bool fails = pthread_equal(thread, pthread_self()) && number-- == 0;
          return fails ? nullptr : nothrowNewSeam.Real(size, tag);
      })
{}

} // namespace zortest

void* operator new(std::size_t size, const std::nothrow_t& tag) noexcept
{
    return zortest::nothrowNewSeam(size, tag);
}
