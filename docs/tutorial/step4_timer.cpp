#include <chrono>
#include <cstdio>
#include <future>
#include <memory>

#include "Main.h"
#include "Task.h"
#include "Timer.h"

namespace {

constexpr unsigned int IDLE_MSEC = 1000;
constexpr unsigned long STACK_SIZE = 256UL * 1024;
constexpr std::chrono::milliseconds SAMPLE_INTERVAL{20};
constexpr unsigned int SAMPLES = 3;

class Meter : public TCTask
{
 public:
    bool Start() { return Create("Meter", IDLE_MSEC, STACK_SIZE, 0); }

    void WaitForSamples() { m_allSampled.get_future().wait(); }

    void End()
    {
        TSEvent event;
        event.receiver = this;
        event.type = EVENT_EXIT;
        Send(&event, false, false);
        Destroy();
    }

 private:
    class Sampler : public ITimerListener
    {
     public:
        explicit Sampler(Meter* meter) : m_meter(meter) {}

        bool OnTimer(const TSEvent* event, void* /*userData*/) override
        {
            m_meter->Sample(event->param2 + 1, event->param1);
            return true;
        }

     private:
        Meter* m_meter; ///< outlives the timer, and so this
    };

    bool t_Create() override
    {
        ITimer::TimerHandlerParams params;
        params.task = this;
        params.listener = std::make_shared<Sampler>(this);
        m_timer = TCTimer(params);
        m_timer.Restart(SAMPLE_INTERVAL, SAMPLES);
        return true;
    }

    bool t_OnExit(const TSEvent* event) override
    {
        m_timer = TCTimer(); // ends the timer while its task is still there
        return TCTask::t_OnExit(event);
    }

    void Sample(unsigned int number, unsigned int count)
    {
        std::printf("Meter: sample %u of %u\n", number, count);
        if (number == count) {
            m_allSampled.set_value();
        }
    }

    TCTimer m_timer; ///< only the meter's thread
    std::promise<void> m_allSampled;
};

} // namespace

int Main()
{
    Meter meter;
    if (!meter.Start()) {
        return 1;
    }
    meter.WaitForSamples();
    meter.End();
    return 0;
}
