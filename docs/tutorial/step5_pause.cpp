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

class Meter : public TCTask
{
 public:
    bool Start() { return Create("Meter", IDLE_MSEC, STACK_SIZE, 0); }

    void Tune(unsigned int channel, bool wait)
    {
        TSEvent event;
        event.receiver = this;
        event.type = EVENT_USER;
        event.param1 = channel;
        Send(&event, wait, false);
    }

    void WaitForSample() { m_firstSample.get_future().wait(); }

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

        bool OnTimer(const TSEvent* /*event*/, void* /*userData*/) override
        {
            m_meter->Sample();
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
        m_timer.Restart(SAMPLE_INTERVAL, ITimer::INFINITE_FIRE);
        return true;
    }

    bool t_OnUser(const TSEvent* event) override
    {
        std::printf("Meter: tuned to channel %u\n", event->param1);
        return true;
    }

    void t_OnPause(const TSEvent* event) override
    {
        m_timer.Pause();
        std::puts("Meter: pausing");
        TCTask::t_OnPause(event);
    }

    void t_OnResume(const TSEvent* event) override
    {
        TCTask::t_OnResume(event);
        std::puts("Meter: resuming");
        m_timer.Resume();
    }

    bool t_OnExit(const TSEvent* event) override
    {
        m_timer = TCTimer();
        return TCTask::t_OnExit(event);
    }

    void Sample()
    {
        if (m_samples++ == 0) {
            m_firstSample.set_value();
        }
    }

    TCTimer m_timer;             ///< only the meter's thread
    unsigned long m_samples = 0; ///< only the meter's thread
    std::promise<void> m_firstSample;
};

} // namespace

int Main()
{
    Meter meter;
    if (!meter.Start()) {
        return 1;
    }
    meter.WaitForSample();
    meter.Tune(21, true);
    if (!meter.Pause()) {
        return 1;
    }
    std::puts("Main: the meter waits");
    meter.Tune(22, false);
    meter.ResumeAsync();
    meter.Tune(23, true);
    std::puts("Main: the meter works");
    meter.End();
    return 0;
}
