// Workloads of many actors, most of them more active than there are processors.
#pragma once
#include "harness.hpp"

namespace peers {

template <class A>
using Actors = std::vector<std::unique_ptr<typename A::Actor>>;

// Waits until each actor has returned from what it handles. One that has posted may still be waking
// the receiver when the receiver's answer has come to us, and a receiver that is destroyed is not
// to be woken.
template <class A>
void settle(const Actors<A>& all)
{
    for (auto& a : all)
        a->call(make_event(0, 0, kGate));
}

// In each of `rings` rings a token visits `size` actors in turn until it has made `hops` hops.
template <class A>
void pass_tokens(const Out& out, int rings, int size, int hops)
{
    Semaphore arrived;
    typename A::System sys;
    Actors<A> all;
    for (int i = 0; i < rings * size; ++i) {
        int next = i / size * size + (i + 1) % size;
        all.push_back(std::make_unique<typename A::Actor>(sys, [&, next](const Event& e) {
            if (e.type == kGate)
                return;
            if (e.p1 == 0)
                return arrived.post();
            Event n = e;
            --n.p1;
            all[std::size_t(next)]->post(std::move(n));
        }));
    }
    auto go = [&](int n) {
        for (int r = 0; r < rings; ++r)
            all[std::size_t(r * size)]->post(make_event(std::uint32_t(n)));
        for (int r = 0; r < rings; ++r)
            arrived.wait();
    };
    go(1'000);
    Usage u0;
    auto t0 = Clock::now();
    go(hops);
    double s = secs_since(t0);
    Usage u1;
    out("rate", double(rings) * hops / s, "hops/s");
    out.usage(u0, u1, double(rings) * hops);
    settle<A>(all);
}

// Each actor pings another one at random, `pings` times, and always waits for the pong before the
// next: as many messages are under way as there are actors, all from everywhere to anywhere.
template <class A>
void big(const Out& out, int actors, int pings)
{
    struct alignas(64) Pinger
    { // its own actor's alone, but between two runs
        std::minstd_rand random;
        int left = 0;
    };
    std::vector<Pinger> pingers(std::size_t(actors), Pinger{});
    Semaphore finished;
    typename A::System sys;
    Actors<A> all;
    auto ping = [&](std::uint32_t me) {
        Pinger& p = pingers[me];
        if (p.left-- == 0)
            return finished.post();
        std::uint32_t other = std::uint32_t(p.random()) % std::uint32_t(actors - 1);
        all[other + (other >= me)]->post(make_event(me, 0, kPing));
    };
    for (std::uint32_t me = 0; me < std::uint32_t(actors); ++me) {
        pingers[me].random.seed(7919 * (me + 1));
        all.push_back(std::make_unique<typename A::Actor>(sys, [&, me](const Event& e) {
            if (e.type == kGate)
                return;
            if (e.type == kPing)
                return all[e.p1]->post(make_event(me, 0, kPong));
            ping(me); // a pong, or the first event
        }));
    }
    auto go = [&](int n) {
        for (Pinger& p : pingers)
            p.left = n;
        for (auto& a : all)
            a->post(make_event());
        for (int i = 0; i < actors; ++i)
            finished.wait();
    };
    go(20);
    Usage u0;
    auto t0 = Clock::now();
    go(pings);
    double s = secs_since(t0);
    Usage u1;
    const double messages = 2.0 * actors * pings;
    out("rate", messages / s, "messages/s");
    out.usage(u0, u1, messages);
    settle<A>(all);
}

// What a daemon does all day, for two seconds, with 40 actors:
//
//   2 pairs    stream 50,000 events a second each: every 2 ms a producer is told to send a batch of
//              100 to its consumer. At most 200 are in flight; what would exceed that is left out
//              and shows in "streamed". Paced, because a stream as fast as possible would take both
//              processors whatever carries it, and a call's latency would be that of the lottery;
//   10 actors  call one of the other 30 at random, wait for it to return, sleep for 200 to 400 us;
//   26 actors  handle an event every 1 to 7 ms.
//
// Those that are called never call, so that nobody can wait for himself. One thread posts what
// comes from outside, the batches' starts among it, by a schedule made before.
template <class A>
class Mixed
{
 public:
    explicit Mixed(const Out& out) : out_(out)
    {
        for (std::uint32_t me = 0; me < kActors; ++me) {
            actors_.push_back(std::make_unique<typename A::Actor>(
                sys_, [this, me](const Event& e) { handle(me, e); }));
        }
    }

    void run()
    {
        const auto schedule = make_schedule();
        const Usage u0;
        const auto t0 = Clock::now();
        end_ = now_ns() + kLasts;
        for (std::uint32_t me = kFirstCaller; me < kFirstWoken; ++me)
            actors_[me]->post(make_event(0, 0, kGo));
        for (const auto& [when, whom] : schedule) {
            std::this_thread::sleep_until(t0 + std::chrono::nanoseconds(when));
            actors_[whom]->post(make_event(0, 0, whom < kProducers ? kBatch : kPlain));
        }
        for (std::uint32_t me = kFirstCaller; me < kFirstWoken; ++me)
            finished_.wait();
        const double s = secs_since(t0);
        const Usage u1;
        settle<A>(actors_); // producers first, so that nobody is sent to any more
        report(s, u0, u1);
    }

 private:
    static constexpr std::uint32_t kActors = 40, kProducers = 2, kFirstCaller = 4, kFirstWoken = 14;
    static constexpr std::uint64_t kLasts = 2'000'000'000, kBatchEvery = 2'000'000;
    static constexpr std::int64_t kBatchSize = 100, kInFlight = 200;

    struct alignas(64) State
    {
        std::atomic<std::int64_t> handled{0}, streamed{0};
        std::int64_t sent = 0;
        std::vector<float> us;
    };

    using Schedule = std::vector<std::pair<std::uint64_t, std::uint32_t>>;

    static Schedule make_schedule()
    {
        Schedule schedule;
        for (std::uint32_t p = 0; p < kProducers; ++p) {
            for (std::uint64_t t = p * kBatchEvery / kProducers; t < kLasts; t += kBatchEvery)
                schedule.emplace_back(t, p);
        }
        std::mt19937_64 random(42);
        for (std::uint32_t me = kFirstWoken; me < kActors; ++me) {
            for (std::uint64_t t = 0; (t += 1'000'000 + random() % 6'000'000) < kLasts;)
                schedule.emplace_back(t, me);
        }
        std::sort(schedule.begin(), schedule.end());
        return schedule;
    }

    void handle(std::uint32_t me, const Event& e)
    {
        State& s = states_[me];
        s.handled.fetch_add(1, std::memory_order_relaxed);
        if (e.type == kStreamed)
            s.streamed.fetch_add(1, std::memory_order_release);
        else if (e.type == kBatch)
            send_batch(me);
        else if (e.type == kGo)
            call_others(me);
    }

    void send_batch(std::uint32_t me)
    {
        State &mine = states_[me], &consumer = states_[me + kProducers];
        for (std::int64_t i = 0; i < kBatchSize; ++i) {
            if (mine.sent - consumer.streamed.load(std::memory_order_acquire) >= kInFlight)
                return;
            ++mine.sent;
            actors_[me + kProducers]->post(make_event(std::uint32_t(i), 0, kStreamed));
        }
    }

    void call_others(std::uint32_t me)
    {
        constexpr std::uint32_t callers = kFirstWoken - kFirstCaller;
        State& s = states_[me];
        s.us.reserve(kLasts / 200'000);
        std::minstd_rand random(7919 * me);
        while (now_ns() < end_) {
            std::uint32_t whom = std::uint32_t(random()) % (kActors - callers);
            const auto a = now_ns();
            actors_[whom < kFirstCaller ? whom : whom + callers]->call(make_event());
            s.us.push_back(float(now_ns() - a) * 1e-3f);
            usleep(200 + useconds_t(random()) % 200);
        }
        finished_.post();
    }

    void report(double s, const Usage& u0, const Usage& u1)
    {
        std::vector<float> us;
        std::int64_t handled = -std::int64_t(kActors), streamed = 0; // less the last calls
        for (const State& state : states_) {
            us.insert(us.end(), state.us.begin(), state.us.end());
            handled += state.handled.load();
            streamed += state.streamed.load();
        }
        out_("p50", pct(us, .5), "us");
        out_("p99", pct(us, .99), "us");
        out_("rate", double(handled) / s, "events/s");
        constexpr double paced = double(kProducers) * (kLasts / kBatchEvery) * kBatchSize;
        out_("streamed", double(streamed) / paced, "of expected");
        out_.usage(u0, u1, double(handled));
    }

    const Out& out_;
    std::uint64_t end_ = 0;
    Semaphore finished_;
    std::vector<State> states_{kActors};
    typename A::System sys_;
    Actors<A> actors_;
};

template <class A>
void mixed(const Out& out)
{
    Mixed<A>(out).run();
}

} // namespace peers
