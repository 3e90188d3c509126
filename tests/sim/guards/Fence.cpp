// Memory that is gone when it is freed: every object has pages of its own, which nobody may touch
// any more once it is deleted. A use behind the end is a crash at the place where it happens, and
// not a matter of who has the memory next. Nothing is ever used again, so this is for short runs.
#include <sys/mman.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t PAGE = 4096;
constexpr std::size_t PAGES = 1 << 18;

std::atomic<std::size_t> g_next{0};
std::uint32_t g_length[PAGES]; ///< in pages, of the object that begins there

unsigned char* Begin()
{
    static unsigned char* const begin = [] {
        void* const room = mmap(nullptr, PAGES * PAGE, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        return room != MAP_FAILED ? static_cast<unsigned char*>(room) : nullptr;
    }();
    return begin;
}

void* Allocate(std::size_t size)
{
    const std::size_t pages = size / PAGE + 1;
    const std::size_t first = g_next.fetch_add(pages);
    if (Begin() == nullptr || first + pages > PAGES) {
        std::abort();
    }
    g_length[first] = static_cast<std::uint32_t>(pages);
    return Begin() + first * PAGE;
}

void Free(void* object)
{
    if (object != nullptr) {
        const std::size_t offset =
            static_cast<std::size_t>(static_cast<unsigned char*>(object) - Begin());
        mprotect(object, g_length[offset / PAGE] * PAGE, PROT_NONE);
    }
}

} // namespace

void* operator new(std::size_t size)
{
    return Allocate(size);
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return Allocate(size);
}

void operator delete(void* object) noexcept
{
    Free(object);
}

void operator delete(void* object, std::size_t /*size*/) noexcept
{
    Free(object);
}

void operator delete(void* object, const std::nothrow_t& /*tag*/) noexcept
{
    Free(object);
}
