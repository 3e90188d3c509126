#include <cstdio>

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
    void On(const Tune& tune) { std::printf("Meter: tuned to channel %u\n", tune.channel); }

 private:
    bool t_Create() override
    {
        std::puts("Meter: ready");
        return true;
    }

    void t_Destroy() override { std::puts("Meter: gone"); }
};

} // namespace

int Main()
{
    Meter meter;
    if (!meter.Start("Meter")) {
        return 1;
    }
    meter.Post(Tune{21});
    if (meter.Ask(Tune{22}, 10s)) {
        std::puts("Main: the meter has seen both");
    }
    meter.End();
    return 0;
}
