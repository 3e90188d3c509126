// This library: one task per actor; timers of the process's scheduler, fired into the task.
#include "Main.h"
#include "Sync.h"
#include "TCDebugPrint.h"
#include "Task.h"
#include "Timer.h"
#include "TimersScheduler.h"
#include "workloads.hpp"

using namespace peers;

namespace {

struct Zor
{
    static constexpr const char* name = "zor";
    static constexpr const char* skip_timers = nullptr;
    static constexpr const char* skip_cancel = nullptr;

    // What the library's own entry does around an application.
    struct System
    {
        System()
        {
            if (!TCSyncDet::Create() || !TCTaskList::m_mutex.Create()) {
                std::abort();
            }
        }
        ~System()
        {
            TCTaskList::Finalize();
            TCSyncDet::Destroy();
        }
    };

    class Actor : public TCTask
    {
     public:
        Actor(System&, Handler h) : handler_(std::move(h))
        {
            if (!Create("actor", ~0U, 1 << 20, 0)) {
                std::abort();
            }
        }
        ~Actor()
        {
            TSEvent exit;
            exit.receiver = this;
            exit.type = EVENT_EXIT;
            send(exit, false);
            Destroy();
        }
        void post(const Event& ev)
        {
            TSEvent e;
            fill(e, ev);
            send(e, false);
        }
        void call(const Event& ev)
        {
            TSEvent e;
            fill(e, ev);
            send(e, true);
        }

     private:
        // The event's name is the sending thread's application name: set once for a thread.
        void fill(TSEvent& e, const Event& ev)
        {
            thread_local bool named = false;
            if (!named) {
                TCDebugPrintZOR::GetInstance()->SetAppName(ev.appName.c_str());
                named = true;
            }
            e.receiver = this;
            e.type = EVENT_USER;
            e.param1 = ev.p1;
            e.param2 = ev.p2;
            e.param5 = ev.p5;
            e.param6 = ev.type;
        }
        static void send(TSEvent& e, bool sync)
        {
            while (!Send(&e, sync, false)) {
                sched_yield(); // full
            }
        }
        bool t_OnUser(const TSEvent* e) override
        {
            Event ev;
            ev.p1 = e->param6 == kTimer ? e->param3 : e->param1;
            ev.p2 = e->param2;
            ev.p5 = e->param5;
            ev.type = e->param6;
            ev.appName = e->appName;
            handler_(ev);
            return true;
        }
        Handler handler_;
    };

    class Timers
    {
     public:
        using Id = std::size_t;
        Timers(System&, Actor& a, std::size_t) : actor_(a) {}
        template <class F>
        void run(F f)
        {
            f();
        }
        Id start(std::uint32_t index, Millis d, bool periodic)
        {
            TSEvent e;
            e.receiver = &actor_;
            e.type = TCTask::EVENT_USER;
            e.param3 = index;
            e.param6 = kTimer;
            return scheduler_.CreateTimer(d, periodic ? ITimer::INFINITE_FIRE : 1, std::move(e));
        }
        void cancel(Id& id) { scheduler_.DestroyTimer(id); }

     private:
        Actor& actor_;
        TCTimersScheduler scheduler_;
    };
};

} // namespace

// The program has its own main(): no pid file is wanted. The library's refers to this all the same.
int Main()
{
    return 0;
}

// The library logs each timer that is made, fired or destroyed; nobody else's log is measured, so
// this one goes nowhere. What composing the lines costs is in the figures.
int main(int argc, char** argv)
{
    setenv("ZOR_DLOG", "none", 1);
    return run_all<Zor>(argc, argv);
}
