// The fault: each access to the number of viewers has the lock, but an update is two accesses. Two
// tasks that update at the same time count one viewer.

#include <cstdio>
#include <mutex>

#include "Main.h"
#include "Worker.h"

namespace {

class Viewers
{
 public:
    int Get() const
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        return m_number;
    }

    void Set(int number)
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_number = number;
    }

 private:
    mutable std::mutex m_lock;
    int m_number = 0;
};

Viewers g_viewers;

class Screen : public Worker
{
    bool t_OnUser(const TSEvent* /*event*/) override
    {
        g_viewers.Set(g_viewers.Get() + 1);
        return true;
    }
};

} // namespace

int Main()
{
    Screen left;
    Screen right;
    if (!left.Start("Left") || !right.Start("Right")) {
        return 1;
    }
    left.Ask(false);
    right.Ask(false);
    left.End();
    right.End();
    std::printf("%d viewers\n", g_viewers.Get());
    return g_viewers.Get() == 2 ? 0 : 1;
}
