/// The mended counterparts of the other programs.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

std::mutex g_first;
std::mutex g_second;
int g_number;
std::condition_variable g_changed;
bool g_ready;

void Add()
{
    const std::lock_guard<std::mutex> first(g_first);
    const std::lock_guard<std::mutex> second(g_second);
    ++g_number;
}

} // namespace

int main()
{
    std::thread other([] {
        Add();
        const std::lock_guard<std::mutex> lock(g_first);
        g_ready = true;
        g_changed.notify_one();
    });
    Add();
    {
        std::unique_lock<std::mutex> lock(g_first);
        g_changed.wait(lock, [] { return g_ready; });
    }
    other.join();
    return g_number == 2 ? 0 : 1;
}
