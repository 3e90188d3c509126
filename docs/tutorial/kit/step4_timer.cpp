#include <cstdio>
#include <future>

#include "Main.h"
#include "zor/Task.h"

namespace {

using namespace std::chrono_literals;

class Meter : public zor::Task<Meter>
{
 public:
    void WaitForSamples() { m_allSampled.get_future().wait(); }

 private:
    bool t_Create() override
    {
        m_timer = Every(
            20ms, [this](const zor::Firing& firing) { Sample(firing); }, 3);
        return true;
    }

    void Sample(const zor::Firing& firing)
    {
        std::printf("Meter: sample %u of %u\n", firing.index + 1, firing.count);
        if (firing.index + 1 == firing.count) {
            m_allSampled.set_value();
        }
    }

    zor::Timer m_timer; ///< only the meter's thread
    std::promise<void> m_allSampled;
};

} // namespace

int Main()
{
    Meter meter;
    if (!meter.Start("Meter")) {
        return 1;
    }
    meter.WaitForSamples();
    meter.End();
    return 0;
}
