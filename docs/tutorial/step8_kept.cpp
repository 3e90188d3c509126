#include <cstdio>

#include "Main.h"
#include "Task.h"

namespace {

constexpr unsigned int IDLE_MSEC = 1000;
constexpr unsigned long STACK_SIZE = 256UL * 1024;

class Meter : public TCTask
{
 public:
    Meter() { m_measured.Create(0); }
    ~Meter() override { m_measured.Destroy(); }

    bool Start() { return Create("Meter", IDLE_MSEC, STACK_SIZE, 0); }

    /// The strength of the signal, in percent; waits until the meter has measured it.
    unsigned int Strength()
    {
        Tell(EVENT_MEASURE);
        m_measured.Take();
        return m_strength;
    }

    void End()
    {
        Tell(EVENT_EXIT);
        Destroy();
    }

 private:
    static constexpr unsigned long EVENT_MEASURE = 100;

    bool t_OnEvent(const TSEvent* event) override
    {
        if (event->type != EVENT_MEASURE) {
            return TCTask::t_OnEvent(event);
        }
        m_strength = 63;
        m_measured.Give();
        return true;
    }

    void Tell(unsigned long type)
    {
        TSEvent event;
        event.receiver = this;
        event.type = type;
        Send(&event, false, false);
    }

    unsigned int m_strength = 0;
    TCSemaphore m_measured; ///< a unit for each measurement
};

} // namespace

int Main()
{
    Meter meter;
    if (!meter.Start()) {
        return 1;
    }
    std::printf("Main: %u percent\n", meter.Strength());
    meter.End();
    return 0;
}
