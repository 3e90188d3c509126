#include "AllocationFault.h"

#include "AllocationSeam.h"

namespace zortest {
namespace {

constexpr int NEVER = -1;

/// Allocations of the thread until one fails, and whether one has.
thread_local int tLeft = NEVER;
thread_local bool tHappened = false;
thread_local bool tFollowingToo = false;

Seam<void*(std::size_t)> newSeam("_Znwm");
Seam<void*(std::size_t)> newArraySeam("_Znam");

/// Counts an allocation.
///
/// @return whether it is the one that fails
bool Fails()
{
    if (tLeft == NEVER || tLeft-- > 0) {
        return false;
    }
    tHappened = true;
    tLeft = tFollowingToo ? 0 : NEVER;
    FaultCase::Injected();
    return true;
}

/// The library's forms of operator new may be made of each other, and are one allocation then.
class Uncounted
{
 public:
    Uncounted() : m_left(tLeft) { tLeft = NEVER; }
    ~Uncounted() { tLeft = m_left; }

    Uncounted(const Uncounted&) = delete;
    Uncounted& operator=(const Uncounted&) = delete;

 private:
    const int m_left;
};

void* Allocate(Seam<void*(std::size_t)>* form, std::size_t size)
{
    if (Fails()) {
        throw std::bad_alloc();
    }
    const Uncounted inner;
    return (*form)(size);
}

void* AllocateOrNull(std::size_t size, const std::nothrow_t& tag)
{
    if (Fails()) {
        return nullptr;
    }
    const Uncounted inner;
    return nothrowNewSeam.Real(size, tag);
}

/// For as long as the program runs.
const Takeover gNothrow(nothrowNewSeam, AllocateOrNull);

} // namespace

AllocationFault::AllocationFault(int number, EExtent extent)
{
    tHappened = false;
    tFollowingToo = extent == ALL_FOLLOWING;
    tLeft = number;
}

AllocationFault::~AllocationFault()
{
    tLeft = NEVER;
}

bool AllocationFault::HasHappened() const
{
    return tHappened;
}

} // namespace zortest

void* operator new(std::size_t size)
{
    return zortest::Allocate(&zortest::newSeam, size);
}

void* operator new[](std::size_t size)
{
    return zortest::Allocate(&zortest::newArraySeam, size);
}
