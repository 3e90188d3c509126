#include <semaphore.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "Growth.h"
#include "Runtime.h"

namespace {

double ProcessorSeconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

/// Nanoseconds that all threads of the process have used.
double ProcessTime()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return (ProcessorSeconds(usage.ru_utime) + ProcessorSeconds(usage.ru_stime)) * 1e9;
}

/// Sends a token on to its partner until it has made its hops.
class Player : public SilentTask
{
 public:
    explicit Player(sem_t* done) : m_done(done) {}

    void Serve(std::uint32_t hops)
    {
        TSEvent token = EventTo();
        token.param1 = hops;
        Send(&token, false, false);
    }

    Player* partner = nullptr;

 private:
    bool t_OnUser(const TSEvent* event) override
    {
        if (event->param1 == 0) {
            sem_post(m_done);
        } else {
            partner->Serve(event->param1 - 1);
        }
        return true;
    }

    sem_t* const m_done;
};

} // namespace

void growth::MeasurePairs(long pairs, long hops)
{
    const Runtime runtime;
    sem_t done;
    sem_init(&done, 0, 0);
    {
        std::vector<std::unique_ptr<Player>> players;
        for (long i = 0; i < 2 * pairs; ++i) {
            players.push_back(std::make_unique<Player>(&done));
        }
        for (long i = 0; i < 2 * pairs; ++i) {
            players[static_cast<std::size_t>(i)]->partner =
                players[static_cast<std::size_t>(i ^ 1)].get();
        }
        const auto play = [&](long each) {
            for (std::size_t i = 0; i < players.size(); i += 2) {
                players[i]->Serve(static_cast<std::uint32_t>(each));
            }
            for (long i = 0; i < pairs; ++i) {
                while (sem_wait(&done) != 0) {
                }
            }
        };
        play(100);
        const long each = hops / pairs;
        const double processor = ProcessTime();
        const Stopwatch watch;
        play(each);
        const double wall = watch.Wall();
        const auto made = static_cast<double>(each * pairs);
        Print("pairs", pairs, wall / made, (ProcessTime() - processor) / made);
    }
    sem_destroy(&done);
}
