/// One thread waits for ever; another one is always busy, so that there is never a deadlock.
#include <chrono>
#include <future>
#include <thread>

int main()
{
    std::promise<void> promise;
    std::thread waiter([&promise] { promise.get_future().wait(); });
    for (;;) {
        std::this_thread::sleep_for(std::chrono::seconds(2));
    }
}
