/// Two threads take two locks in different orders.
#include <mutex>
#include <thread>

namespace {
std::mutex g_first;
std::mutex g_second;
} // namespace

int main()
{
    std::thread other([] {
        const std::lock_guard<std::mutex> second(g_second);
        const std::lock_guard<std::mutex> first(g_first);
    });
    {
        const std::lock_guard<std::mutex> first(g_first);
        const std::lock_guard<std::mutex> second(g_second);
    }
    other.join();
}
