// The fault: who answers wakes whoever waits, and who waits says so after it has looked for the
// answer. An answer between the look and the word wakes nobody, and is waited for in vain.

#include <cstdio>
#include <mutex>

#include "Main.h"
#include "Worker.h"

namespace {

/// A flag that tasks share.
class Flag
{
 public:
    bool IsSet() const
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        return m_isSet;
    }

    void Set()
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_isSet = true;
    }

 private:
    mutable std::mutex m_lock;
    bool m_isSet = false;
};

class Guide : public Worker
{
 public:
    Guide() { m_wakeUp.Create(0); }
    ~Guide() override { m_wakeUp.Destroy(); }

    void AwaitAnswer()
    {
        if (!m_answered.IsSet()) {
            m_waits.Set();
            m_wakeUp.Take();
        }
    }

 private:
    bool t_OnUser(const TSEvent* /*event*/) override
    {
        m_answered.Set();
        if (m_waits.IsSet()) {
            m_wakeUp.Give();
        }
        return true;
    }

    Flag m_answered;
    Flag m_waits;
    TCSemaphore m_wakeUp;
};

} // namespace

int Main()
{
    Guide guide;
    if (!guide.Start("Guide")) {
        return 1;
    }
    guide.Ask(false);
    guide.AwaitAnswer();
    guide.End();
    std::printf("answered\n");
    return 0;
}
