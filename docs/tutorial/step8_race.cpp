#include <cstdio>
#include <mutex>

#include "Main.h"
#include "Task.h"

namespace {

constexpr unsigned int IDLE_MSEC = 1000;
constexpr unsigned long STACK_SIZE = 256UL * 1024;

/// A flag that threads share.
class Flag
{
 public:
    bool IsSet() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_isSet;
    }

    void Set()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isSet = true;
    }

 private:
    mutable std::mutex m_mutex;
    bool m_isSet = false;
};

class Meter : public TCTask
{
 public:
    Meter() { m_wakeUp.Create(0); }
    ~Meter() override { m_wakeUp.Destroy(); }

    bool Start() { return Create("Meter", IDLE_MSEC, STACK_SIZE, 0); }

    /// The strength of the signal, in percent; waits until the meter has measured it.
    unsigned int Strength()
    {
        Tell(EVENT_MEASURE);
        if (!m_measured.IsSet()) {
            m_awaited.Set();
            m_wakeUp.Take();
        }
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
        m_measured.Set();
        if (m_awaited.IsSet()) {
            m_wakeUp.Give();
        }
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
    Flag m_measured;
    Flag m_awaited; ///< somebody waits for the wake-up
    TCSemaphore m_wakeUp;
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
