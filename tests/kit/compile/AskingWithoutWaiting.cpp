// expected: nothing
#include "zor/Task.h"

using namespace std::chrono_literals;

struct Measure
{};

struct Refresh
{};

class Meter : public zor::Task<Meter, Measure>
{
 public:
    int On(const Measure& measure);
};

class Display : public zor::Task<Display, Refresh>
{
 public:
    void On(const Refresh& /*refresh*/)
    {
        m_meter->AskAsync(Measure{}, 500ms, [this](zor::Result<int> strength) { Show(strength); });
    }

 private:
    void Show(const zor::Result<int>& strength);

    Meter* m_meter = nullptr;
};
