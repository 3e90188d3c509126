#include <cstdio>

#include "Main.h"
#include "zor/Task.h"

namespace {

using namespace std::chrono_literals;

struct Tune
{
    unsigned int channel;
};

struct Measure
{};

class Meter : public zor::Task<Meter, Tune, Measure>
{
    friend zor::Access;

    void On(const Tune& tune) { m_channel = tune.channel; }

    int On(const Measure& /*measure*/) const
    {
        return m_channel == 0 ? 0 : 40 + static_cast<int>(m_channel);
    }

    unsigned int m_channel = 0; ///< only the meter's thread; 0 while it is not tuned
};

void Print(const zor::Result<int>& strength)
{
    if (strength) {
        std::printf("Main: strength %d\n", *strength);
    } else {
        std::printf("Main: no strength: %s\n", zor::Text(strength.error()));
    }
}

} // namespace

int Main()
{
    Meter meter;
    if (!meter.Start("Meter")) {
        return 1;
    }
    Print(meter.Ask(Measure{}, 10s));
    meter.Post(Tune{21});
    Print(meter.Ask(Measure{}, 10s));
    meter.End();
    return 0;
}
