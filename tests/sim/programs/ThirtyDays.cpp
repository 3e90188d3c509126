/// Sleeps a minute 43,200 times, beside a clock that is read once an hour.
#include <chrono>
#include <cstdio>
#include <thread>

using namespace std::chrono;

int main()
{
    const auto begin = steady_clock::now();
    int hours = 0;
    std::thread other([&hours, begin] {
        for (; steady_clock::now() - begin < std::chrono::hours(720); ++hours) {
            std::this_thread::sleep_for(std::chrono::hours(1));
        }
    });
    for (int minute = 0; minute < 30 * 24 * 60; ++minute) {
        std::this_thread::sleep_for(minutes(1));
    }
    other.join();
    const auto took = duration_cast<std::chrono::hours>(steady_clock::now() - begin);
    std::printf("%d days, %d hours counted\n", static_cast<int>(took.count() / 24), hours);
    return took == std::chrono::hours(720) && hours == 720 ? 0 : 1;
}
