#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "MultiQTask.h"
#include "Scenes.h"
#include "Task.h"
#include "TaskList.h"
#include "Timer.h"
#include "ZorApiLite.h"
#include "ZorSim.h"

namespace {

constexpr unsigned int IDLE_MSEC = 1000;
constexpr unsigned long STACK_SIZE = 65536;
constexpr unsigned int TWO_QUEUES = 2;
constexpr int ROUNDS = 20; ///< for what needs a rare moment
constexpr std::chrono::microseconds WORK(200);

std::atomic<bool> g_isRelease{false};

TSEvent To(TCHandler* receiver, unsigned long type)
{
    TSEvent event;
    event.receiver = receiver;
    event.type = type;
    return event;
}

void SendExit(TCTask* task)
{
    TSEvent event = To(task, TCTask::EVENT_EXIT);
    TCTask::Send(&event, false, false);
}

class Worker : public TCTask
{
 public:
    Worker() { Create("Worker", IDLE_MSEC, STACK_SIZE, 0); }

    /// Keeps the task busy for a moment.
    void Occupy()
    {
        TSEvent event = To(this, EVENT_USER);
        Send(&event, false, false);
    }

    void End()
    {
        SendExit(this);
        Destroy();
    }

 private:
    bool t_OnUser(const TSEvent* /*event*/) override
    {
        std::this_thread::sleep_for(WORK);
        return true;
    }
};

/// Tells when it goes on.
class Pausing : public Worker
{
 public:
    Pausing() { m_resumed.Create(0); }
    ~Pausing() override { m_resumed.Destroy(); }

    void AwaitResume() { m_resumed.Take(); }

 private:
    void t_OnResume(const TSEvent* /*event*/) override { m_resumed.Give(); }

    TCSemaphore m_resumed;
};

/// Ends itself while it handles an event.
class Ending : public TCMultiQTask
{
 private:
    bool t_OnUser(const TSEvent* /*event*/) override
    {
        TSEvent event = To(this, EVENT_EXIT);
        return Send(&event, true, true, 0);
    }
};

class Receiver : public TCHandler
{
 public:
    bool handled = false;

 private:
    bool t_OnEvent(const TSEvent* /*event*/) override { return handled = true; }
};

class Listener : public ITimerListener
{
 public:
    bool OnTimer(const TSEvent* /*event*/, void* /*userData*/) override
    {
        fired = true;
        return true;
    }

    std::atomic<bool> fired{false};
};

} // namespace

/// In a release build a failed check is reported, and the operation goes on.
bool ZorApiLite::LiteUtility::IsRelease()
{
    return g_isRelease;
}

void scenes::SynchronousSend()
{
    Worker worker;
    for (int round = 0; round < ROUNDS; ++round) {
        Receiver receiver;
        receiver.Create(&worker);
        TSEvent event = To(&receiver, TCTask::EVENT_USER);
        Expect(TCTask::Send(&event, true, false), "the event is sent");
        Expect(receiver.handled, "a synchronous event has been handled when its send returns");
        receiver.Destroy();
    }
    worker.End();
}

void scenes::DeletedEvent()
{
    constexpr unsigned long TYPE = 7;
    constexpr unsigned long WAIT_MSEC = 10;

    Receiver receiver;
    TCQueue queue;
    queue.Create();
    TSEvent event = To(&receiver, TYPE);
    queue.Put(&event, false);
    int taken = 0;
    std::thread taker([&] {
        TSEvent got;
        taken = queue.GetSync(&got, WAIT_MSEC, false) ? 1 : 0;
        Expect(taken == 0 || got.receiver == &receiver, "what is taken has been put");
    });
    const int deleted = queue.Delete(&receiver, nullptr) ? 1 : 0;
    taker.join();
    Expect(taken + deleted == 1, "an event is taken or deleted");
    Expect(queue.Size() == 0, "nothing is left");
    queue.Destroy();
}

void scenes::RegistryGone()
{
    Worker worker;
    std::thread pinger([&] { TCTask::Ping(&worker, 0); });
    TCTaskList::Finalize();
    pinger.join();
    worker.End();
}

void scenes::ExitFromQueue1()
{
    Ending task;
    task.Create("Ending", IDLE_MSEC, STACK_SIZE, TWO_QUEUES, 0);
    TSEvent event = To(&task, TCTask::EVENT_USER);
    TCMultiQTask::Send(&event, true, false, 1);
    task.Destroy();
}

void scenes::ExitUnderSenders()
{
    constexpr int EVENTS = 4;

    g_isRelease = true; // a queue that is gone is a misuse, and refused
    TCMultiQTask task;
    task.Create("Two queues", IDLE_MSEC, STACK_SIZE, TWO_QUEUES, 0);
    std::thread sender([&] {
        TSEvent event = To(&task, TCTask::EVENT_USER);
        for (int i = 0; i < EVENTS && TCMultiQTask::Send(&event, false, false, 1); ++i) {
        }
    });
    TSEvent event = To(&task, TCTask::EVENT_EXIT);
    TCMultiQTask::Send(&event, false, false, 0);
    sender.join();
    task.Destroy();
}

void scenes::NotifierAsleep()
{
    constexpr unsigned int DAYS_MSEC = 4000000000U;

    Receiver receiver;
    TCMultiQTask task;
    task.Create("Two queues", DAYS_MSEC, STACK_SIZE, TWO_QUEUES, 0);
    receiver.Create(&task);
    TSEvent last = To(&task, TCTask::EVENT_EXIT);
    TCMultiQTask::Send(&last, false, false, 0);
    TSEvent event = To(&receiver, TCTask::EVENT_USER);
    TCMultiQTask::Send(&event, false, false, 0);
    task.Delete(&receiver, nullptr);
    receiver.Destroy();
    task.Destroy();
}

void scenes::TwoPausers()
{
    Worker worker;
    std::thread other([&] { Expect(worker.Pause(), "the task is paused"); });
    Expect(worker.Pause(), "the task is paused");
    other.join();
    Expect(worker.IsPaused(), "a paused task stays so");
    Expect(worker.ResumeAsync(), "a paused task is resumed");
    Expect(!worker.IsPaused(), "one resume is enough");
    worker.End();
}

void scenes::TwoResumers()
{
    Worker worker;
    worker.Pause();
    std::atomic<int> resumed{0};
    std::thread other([&] { resumed += worker.ResumeAsync() ? 1 : 0; });
    resumed += worker.ResumeAsync() ? 1 : 0;
    other.join();
    Expect(resumed == 1, "one of two resumes a task");
    worker.End();
}

void scenes::Resumed()
{
    Worker worker;
    worker.Pause();
    Expect(worker.ResumeAsync(), "a paused task is resumed");
    Expect(!worker.IsPaused(), "a resumed task is not paused");
    worker.End();
}

void scenes::ResumerInside()
{
    auto task = std::make_unique<Pausing>();
    task->Pause();
    std::thread resumer([resumed = task.get()] { resumed->ResumeAsync(); });
    task->AwaitResume();
    task->End();
    task.reset();
    resumer.join();
}

void scenes::PauseOfEnded()
{
    Worker worker;
    std::thread pauser([&] {
        if (worker.Pause()) {
            worker.ResumeAsync();
        }
    });
    SendExit(&worker);
    pauser.join();
    worker.Destroy();
}

void scenes::DeletedPause()
{
    Worker worker;
    worker.Occupy();
    std::thread pauser([&] {
        try {
            if (worker.Pause()) {
                worker.ResumeAsync();
            }
        } catch (const std::future_error&) {
            // the request was deleted, and whoever asked is told so
        }
    });
    worker.Delete(static_cast<TCHandler*>(&worker), nullptr);
    pauser.join();
    worker.End();
}

void scenes::TimerStopped()
{
    constexpr unsigned int MOMENTS = 8;
    constexpr std::chrono::nanoseconds MOMENT(500);

    Worker worker;
    std::atomic<pthread_t> releaser{0};
    ITimer::TimerHandlerParams params;
    params.task = &worker;
    params.listener = std::make_shared<Listener>();
    params.userDataRelease = [&](void*) { releaser = TCThreadSelf::Id(); };
    const pthread_t id = worker.Id();
    {
        TCTimer timer(params);
        params = {};
        timer.Restart(ITimer::INTERVAL_MIN, ITimer::INFINITE_FIRE);
        std::this_thread::sleep_for(ITimer::INTERVAL_MIN - WORK / 2);
        worker.Occupy(); // the timer fires meanwhile
        std::this_thread::sleep_for(WORK - zorsim::Choose(MOMENTS) * MOMENT);
    }
    worker.End();
    Expect(releaser == id, "what a timer calls is released on its task's thread");
}

void scenes::FirstTimer()
{
    Worker worker;
    const auto listener = std::make_shared<Listener>();
    ITimer::TimerHandlerParams params;
    params.task = &worker;
    params.listener = listener;
    {
        TCTimer timer(params);
        timer.Restart(ITimer::INTERVAL_MIN, 1);
        std::this_thread::sleep_for(2 * ITimer::INTERVAL_MIN);
        Expect(listener->fired, "a timer fires");
    }
    worker.End();
}
