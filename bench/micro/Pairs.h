#pragma once

#include <semaphore.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Runtime.h"

/// Sends a token on to its partner until it has made its hops, and works on each before.
template <typename Work>
class Player : public QuietTask
{
 public:
    Player(sem_t* done, const Work& work) : m_done(done), m_work(work) {}

    void Serve(std::uint32_t hops)
    {
        TSEvent token = EventTo();
        token.param1 = hops;
        Send(&token, false, false);
    }

    /// The task's until all tokens have made their hops.
    const Work& OwnWork() const { return m_work; }

    Player* partner = nullptr;

 private:
    bool t_OnUser(const TSEvent* event) override
    {
        if (event->param1 == 0) {
            sem_post(m_done);
            return true;
        }
        m_work(event->param1);
        partner->Serve(event->param1 - 1);
        return true;
    }

    sem_t* const m_done;
    Work m_work;
};

/// Pairs of tasks, each with a token of its own that goes back and forth.
template <typename Work>
class Pairs
{
 public:
    /// @param work  what each task gets a copy of and calls with the number of hops that are left
    explicit Pairs(long pairs, const Work& work = Work())
    {
        sem_init(&m_done, 0, 0);
        for (long i = 0; i < 2 * pairs; ++i) {
            m_players.push_back(std::make_unique<Running<Player<Work>>>(&m_done, work));
        }
        for (std::size_t i = 0; i < m_players.size(); ++i) {
            m_players[i]->partner = m_players[i ^ 1].get();
        }
    }
    ~Pairs()
    {
        m_players.clear();
        sem_destroy(&m_done);
    }

    Pairs(const Pairs&) = delete;
    Pairs& operator=(const Pairs&) = delete;

    /// Has each token make so many hops, and waits until all have.
    void Play(long hops)
    {
        for (std::size_t i = 0; i < m_players.size(); i += 2) {
            m_players[i]->Serve(static_cast<std::uint32_t>(hops));
        }
        for (std::size_t i = 0; i < m_players.size(); i += 2) {
            while (sem_wait(&m_done) != 0) {
            }
        }
    }

    const std::vector<std::unique_ptr<Running<Player<Work>>>>& Players() const { return m_players; }

 private:
    const Runtime m_runtime;
    sem_t m_done;
    std::vector<std::unique_ptr<Running<Player<Work>>>> m_players;
};
