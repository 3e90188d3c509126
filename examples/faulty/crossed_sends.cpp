// The fault: two tasks ask each other and wait for the answer. When their alarms of 20 and 30 ms
// fire at the same moment, each waits for the other one for ever.

#include <cstdio>

#include "Alarm.h"
#include "Main.h"
#include "Worker.h"

namespace {

constexpr unsigned long FIRINGS = 4;

class Side : public Worker
{
 public:
    Side() { m_last.Create(0); }
    ~Side() override { m_last.Destroy(); }

    void SetOther(Side* other, unsigned long intervalMsec)
    {
        m_other = other;
        m_alarm.m_side = this;
        m_alarm.Create(this, intervalMsec, FIRINGS);
    }

    void AwaitLast() { m_last.Take(); }

 private:
    class AskingAlarm : public TCAlarm
    {
     public:
        bool t_OnAlarm(const TSEvent* /*event*/) override
        {
            m_side->OnFiring();
            return true;
        }

        Side* m_side = nullptr;
    };

    void t_Destroy() override { m_alarm.Destroy(); }

    bool t_OnUser(const TSEvent* /*event*/) override { return true; }

    void OnFiring()
    {
        m_other->Ask(true);
        if (++m_firings == FIRINGS) {
            m_last.Give();
        }
    }

    AskingAlarm m_alarm;
    TCSemaphore m_last; ///< given with the last firing
    Side* m_other = nullptr;
    unsigned long m_firings = 0;
};

} // namespace

int Main()
{
    Side left;
    Side right;
    if (!left.Start("Left") || !right.Start("Right")) {
        return 1;
    }
    left.SetOther(&right, 20);
    right.SetOther(&left, 30);
    left.AwaitLast();
    right.AwaitLast();
    left.End();
    right.End();
    std::printf("both have asked\n");
    return 0;
}
