#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "Scenes.h"
#include "Thread.h"
#include "ZorServiceDebugOverlay.h"

namespace {

constexpr unsigned long STACK_SIZE = 65536;
constexpr int ROUNDS = 20; ///< for what needs a rare moment

class Asker : public TCThread
{
 private:
    void t_Main() override
    {
        scenes::Expect(Id() == TCThreadSelf::Id(), "a thread's id is known to itself");
    }
};

class Idler : public TCThread
{
 private:
    void t_Main() override {}
};

} // namespace

void scenes::OwnId()
{
    Asker thread;
    thread.Create("Asker", STACK_SIZE);
    thread.Destroy();
}

void scenes::ThreadGone()
{
    auto thread = std::make_unique<Idler>();
    thread->Create("Idler", STACK_SIZE);
    thread->Destroy();
    thread.reset();
    std::this_thread::yield(); // whoever is still at it meets what is left
}

void scenes::SemaphoreGone()
{
    for (int round = 0; round < ROUNDS; ++round) {
        auto semaphore = std::make_unique<TCSemaphore>();
        semaphore->Create(0);
        std::thread giver([given = semaphore.get()] { given->Give(); });
        semaphore->Take();
        semaphore->Destroy();
        semaphore.reset();
        giver.join();
    }
}

void scenes::TwoTakers()
{
    constexpr std::chrono::milliseconds LONG_ENOUGH(1);

    TCSemaphore semaphore;
    semaphore.Create(0);
    std::atomic<bool> hasTaken{false};
    std::thread waiting([&] {
        semaphore.Take();
        hasTaken = true;
    });
    bool isStolen = false;
    std::thread passing([&] { isStolen = semaphore.Try(0); });
    semaphore.Give();
    passing.join();
    if (isStolen) {
        std::this_thread::sleep_for(LONG_ENOUGH);
        Expect(!hasTaken, "one unit is for one taker");
        semaphore.Give();
    }
    waiting.join();
    semaphore.Destroy();
}

void scenes::TimedTaker()
{
    constexpr unsigned long WAIT_MSEC = 1;

    for (int round = 0; round < ROUNDS; ++round) {
        TCSemaphore semaphore;
        semaphore.Create(0);
        std::thread endless([&] { semaphore.Take(); });
        bool hasTaken = false;
        std::thread timed([&] { hasTaken = semaphore.Try(WAIT_MSEC); });
        semaphore.Give();
        timed.join();
        if (hasTaken) {
            semaphore.Give();
        }
        endless.join();
        semaphore.Destroy();
    }
}

void scenes::LoggingFront()
{
    ZORLogs* first = nullptr;
    std::thread other([&] { first = ZORLogs::getInstance(); });
    ZORLogs* const second = ZORLogs::getInstance();
    other.join();
    Expect(first == second, "there is one logging front");
}
