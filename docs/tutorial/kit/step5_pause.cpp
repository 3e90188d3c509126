#include <cstdio>
#include <future>

#include "Main.h"
#include "zor/Task.h"

namespace {

using namespace std::chrono_literals;

struct Tune
{
    unsigned int channel;
};

class Meter : public zor::Task<Meter, Tune>
{
 public:
    void WaitForSample() { m_firstSample.get_future().wait(); }

    void On(const Tune& tune) { std::printf("Meter: tuned to channel %u\n", tune.channel); }

 private:
    bool t_Create() override
    {
        m_timer = Every(20ms, [this] { Sample(); });
        return true;
    }

    void t_OnPause(const TSEvent* event) override
    {
        m_timer.Pause();
        std::puts("Meter: pausing");
        Task::t_OnPause(event);
    }

    void t_OnResume(const TSEvent* event) override
    {
        Task::t_OnResume(event);
        std::puts("Meter: resuming");
        m_timer.Resume();
    }

    void Sample()
    {
        if (m_samples++ == 0) {
            m_firstSample.set_value();
        }
    }

    zor::Timer m_timer;          ///< only the meter's thread
    unsigned long m_samples = 0; ///< only the meter's thread
    std::promise<void> m_firstSample;
};

} // namespace

int Main()
{
    Meter meter;
    if (!meter.Start("Meter")) {
        return 1;
    }
    meter.WaitForSample();
    if (!meter.Ask(Tune{21}, 10s) || !meter.Pause()) {
        return 1;
    }
    std::puts("Main: the meter waits");
    meter.Post(Tune{22});
    meter.ResumeAsync();
    if (meter.Ask(Tune{23}, 10s)) {
        std::puts("Main: the meter works");
    }
    meter.End();
    return 0;
}
