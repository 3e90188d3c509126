/// The answer takes ten milliseconds, and is waited for eleven: enough, unless the machine is busy.
#include <chrono>
#include <future>
#include <thread>

int main()
{
    std::promise<int> promise;
    std::future<int> answer = promise.get_future();
    std::thread other([&promise] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        promise.set_value(1);
    });
    const bool inTime = answer.wait_for(std::chrono::milliseconds(11)) == std::future_status::ready;
    other.join();
    return inTime ? 0 : 1;
}
