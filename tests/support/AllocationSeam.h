#pragma once

#include <cstddef>
#include <new>

#include "Seam.h"

namespace zortest {

/// `new (std::nothrow)`, which answers null where memory is short.
extern Seam<void*(std::size_t, const std::nothrow_t&)> nothrowNewSeam;

/// Makes the calling thread's allocation @p number (from 0) with `new (std::nothrow)` fail while
/// it lives.
class FailingAllocation
{
 public:
    explicit FailingAllocation(int number);

 private:
    Takeover<void*(std::size_t, const std::nothrow_t&)> m_takeover;
};

} // namespace zortest
