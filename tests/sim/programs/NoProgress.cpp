/// Says that it goes on every second, and stops doing so.
#include <chrono>
#include <thread>

#include "ZorSim.h"

int main()
{
    for (int i = 0;; ++i) {
        if (i < 10) {
            zorsim::ExpectProgress(1.5);
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
}
