#include <ZorSim.h>

#include <mutex>
#include <thread>

namespace {

int g_count = 0;

void Count()
{
#ifdef WITH_LOCK
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
#endif
    ++g_count;
}

} // namespace

int main()
{
    if (!zorsim::IsActive()) {
        return 2;
    }
    std::thread other(Count);
    Count();
    other.join();
    return g_count == 2 ? 0 : 1;
}
