#pragma once

#include <new>

#include "FaultCase.h"

namespace zortest {

/// Makes the calling thread's allocation @p number (from 0) fail while it lives, whatever form of
/// `operator new` it is made with: std::bad_alloc, or null from the form that does not throw.
class AllocationFault
{
 public:
    enum EExtent
    {
        ONE,
        ALL_FOLLOWING, ///< those behind it fail too
    };

    explicit AllocationFault(int number, EExtent extent = ONE);
    ~AllocationFault();

    AllocationFault(const AllocationFault&) = delete;
    AllocationFault& operator=(const AllocationFault&) = delete;

    /// Whether there have been that many allocations.
    bool HasHappened() const;
};

/// Runs @p operation, which answers whether it succeeded, with its first allocation failing, then
/// with its second, and so on until it passes. Any other exception than std::bad_alloc, and a false
/// that no fault has caused, is the test's failure.
///
/// @param afterFault  runs after each failed one, with the memory back
/// @return how many allocations the operation makes; at least one
template <typename Operation, typename AfterFault>
int FailEachAllocation(const Operation& operation, const AfterFault& afterFault)
{
    for (int number = 0;; ++number) {
        bool happened = false;
        bool passed = false;
        {
            const AllocationFault fault(number);
            try {
                passed = operation();
            } catch (const std::bad_alloc&) {
                passed = false;
            }
            happened = fault.HasHappened();
        }
        if (!happened) {
            EXPECT_TRUE(passed);
            EXPECT_GT(number, 0) << "the operation allocates nothing";
            return number;
        }
        EXPECT_FALSE(passed) << "allocation " << number << " is not missed";
        afterFault();
    }
}

} // namespace zortest
