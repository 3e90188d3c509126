/// A wait without a loop around it: right until it ends for no reason.
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {
std::mutex g_lock;
std::condition_variable g_changed;
bool g_ready;
} // namespace

int main()
{
    std::thread other([] {
        const std::lock_guard<std::mutex> lock(g_lock);
        g_ready = true;
        g_changed.notify_one();
    });
    bool ready = false;
    {
        std::unique_lock<std::mutex> lock(g_lock);
        if (!g_ready) {
            g_changed.wait(lock);
        }
        ready = g_ready;
    }
    other.join();
    return ready ? 0 : 1;
}
