// What the programs that compare frameworks have in common: the events, the adapters' helpers, the
// clocks and what is printed.
#pragma once
#include <sched.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace peers {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

// ---------------------------------------------------------------- events

enum : std::uint64_t
{
    kPlain = 1,
    kGate = 2,
    kTimer = 3,
    kGo = 4,
    kPing = 5,
    kPong = 6,
    kBatch = 7,
    kStreamed = 8
};

struct Event
{
    std::uint64_t type = 0;
    std::uint32_t p1 = 0, p2 = 0;
    std::uint64_t p5 = 0;
    std::string appName;
    std::shared_ptr<void> ptr;
};

using Handler = std::function<void(const Event&)>;

inline Event make_event(std::uint32_t p1 = 0, std::uint64_t p5 = 0, std::uint64_t type = kPlain)
{
    return Event{type, p1, 0, p5, "app00001", nullptr};
}
inline Event timer_event(std::uint32_t index)
{
    return make_event(index, 0, kTimer);
}

// Helper for frameworks without a blocking call: what they queue is an Item,
// and call()/run() wait on a promise that the handling thread fulfils.
struct Ctl
{
    std::promise<void> done;
    const std::function<void()>* fn = nullptr;
};
struct Item
{
    Event ev;
    Ctl* ctl = nullptr;
    void dispatch(const Handler& h) const
    {
        if (!ctl)
            return h(ev);
        if (ctl->fn)
            (*ctl->fn)();
        else
            h(ev);
        std::promise<void> done = std::move(ctl->done); // the waiter may free *ctl at once
        done.set_value();
    }
};
template <class Self>
struct ItemActor
{ // Self has enqueue(Item)
    void post(Event ev) { self().enqueue(Item{std::move(ev), nullptr}); }
    void call(Event ev)
    {
        Ctl c;
        wait(c, std::move(ev));
    }
    void run(const std::function<void()>& fn)
    {
        Ctl c;
        c.fn = &fn;
        wait(c, Event{});
    }

 private:
    Self& self() { return static_cast<Self&>(*this); }
    void wait(Ctl& c, Event ev)
    {
        auto f = c.done.get_future();
        self().enqueue(Item{std::move(ev), &c});
        f.get();
    }
};

// ---------------------------------------------------------------- measuring

class Semaphore
{
 public:
    Semaphore() { sem_init(&s_, 0, 0); }
    ~Semaphore() { sem_destroy(&s_); }
    void post() { sem_post(&s_); }
    void wait()
    {
        while (sem_wait(&s_) != 0) {
        }
    }

 private:
    sem_t s_;
};

inline std::uint64_t now_ns()
{
    return std::uint64_t(Clock::now().time_since_epoch() / std::chrono::nanoseconds(1));
}
inline double secs_since(Clock::time_point t)
{
    return std::chrono::duration<double>(Clock::now() - t).count();
}

template <class V>
double pct(V& v, double p)
{ // sorts v
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return double(v[std::min(v.size() - 1, std::size_t(p * double(v.size())))]);
}

struct Usage
{
    rusage r;
    Usage() { getrusage(RUSAGE_SELF, &r); }
    static double s(const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) * 1e-6; }
    double cpu() const { return s(r.ru_utime) + s(r.ru_stime); }
};

inline double rss_kib()
{
    long size = 0, res = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &size, &res) != 2)
            res = 0;
        std::fclose(f);
    }
    return double(res) * double(sysconf(_SC_PAGESIZE)) / 1024.0;
}

struct Out
{
    const char* peer;
    const char* workload;
    void operator()(const char* metric, double value, const char* unit) const
    {
        std::printf(
            "{\"peer\":\"%s\",\"workload\":\"%s\",\"metric\":\"%s\",\"value\":%.6g,\"unit\":\"%s\"}"
            "\n",
            peer, workload, metric, value, unit);
        std::fflush(stdout);
    }
    void none(const char* metric, const char* why) const
    {
        std::printf(
            "{\"peer\":\"%s\",\"workload\":\"%s\",\"metric\":\"%s\",\"value\":null,\"unit\":\"%s\"}"
            "\n",
            peer, workload, metric, why);
        std::fflush(stdout);
    }
    void usage(const Usage& a, const Usage& b, double events) const
    {
        (*this)("cpu", b.cpu() - a.cpu(), "s");
        (*this)("cpu_per_event", (b.cpu() - a.cpu()) * 1e6 / events, "us");
        (*this)("ctxsw_voluntary", double(b.r.ru_nvcsw - a.r.ru_nvcsw), "count");
        (*this)("ctxsw_involuntary", double(b.r.ru_nivcsw - a.r.ru_nivcsw), "count");
    }
};

struct alignas(64) Counter
{
    std::atomic<std::int64_t> v{0};
};

} // namespace peers
