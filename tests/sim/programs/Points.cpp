/// Points and choices; without the simulator they do nothing.
#include <atomic>
#include <thread>

#include "ZorSim.h"

int main()
{
    if (!zorsim::IsActive()) {
        return zorsim::Choose(10) == 0 ? 0 : 1;
    }
    std::atomic<int> number{0};
    const auto add = [&number] {
        const int before = number;
        zorsim::Point("between");
        number = before + 1;
        zorsim::Point("has stored", number);
    };
    std::thread other(add);
    add();
    other.join();
    const bool chosen = zorsim::Choose(3) == 2;
    return chosen && number != 2 ? 1 : 0;
}
