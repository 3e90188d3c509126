/// Waits for another thread without ever calling anything.
#include <atomic>
#include <thread>

int main()
{
    std::atomic<bool> done{false};
    std::thread other([&done] { done = true; });
    while (!done) {
    }
    other.join();
}
