#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "Sanitized.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;

constexpr std::uint32_t EVENTS = 1000000 / SLOWER;

constexpr std::uint32_t PRODUCERS = 4;
constexpr std::uint32_t EVENTS_OF_ONE = EVENTS / PRODUCERS;

/// How an event is sent.
struct Kind
{
    bool sync;
    bool priority;
};

constexpr std::array<Kind, 4> KINDS = {
    {{false, false}, {false, true}, {true, false}, {true, true}}};

/// Most events are not waited for, and most stand in line.
Kind Draw(std::mt19937* random)
{
    const std::uint32_t number = (*random)() % 64;
    return KINDS[number < 48 ? 0 : number < 60 ? 1 : number < 62 ? 2 : 3];
}

/// What the task has handled of one producer. Only the task's thread touches it while events come.
struct Received
{
    std::vector<std::uint8_t> times = std::vector<std::uint8_t>(EVENTS_OF_ONE);
    std::int64_t lastOrdinary = -1; ///< number of the last one that stood in line
    std::uint32_t outOfOrder = 0;
};

/// A task that checks what four producers send to it.
class TaskStressTest : public ::testing::Test
{
 protected:
    TaskStressTest()
    {
        m_task.onUser = [this](const TSEvent* event) {
            Note(*event);
            return true;
        };
        EXPECT_TRUE(m_task.Start());
    }

    void Note(const TSEvent& event)
    {
        Received& received = m_received[event.param1];
        const std::uint32_t number = event.param2;
        if (number < EVENTS_OF_ONE) {
            ++received.times[number];
        }
        if (event.param3 == 0) { // not a priority event
            received.outOfOrder += number <= received.lastOrdinary ? 1 : 0;
            received.lastOrdinary = number;
        }
        if (event.sync != nullptr) {
            m_lastSync[event.param1] = number;
        }
    }

    /// Sends all events of one producer, waiting a full queue out.
    void Produce(std::uint32_t producer, std::mt19937::result_type seed)
    {
        std::mt19937 random(seed);
        for (std::uint32_t number = 0; number < EVENTS_OF_ONE; ++number) {
            const Kind kind = Draw(&random);
            TSEvent event = EventTo(&m_task, TCTask::EVENT_USER, producer);
            event.param2 = number;
            event.param3 = kind.priority ? 1 : 0;
            while (!TCTask::Send(&event, kind.sync, kind.priority)) {
                std::this_thread::yield();
            }
            if (kind.sync) { // it has been handled now
                m_unhandled += m_lastSync[producer] == number ? 0 : 1;
            }
        }
    }

    const TaskRuntime m_runtime;
    std::array<Received, PRODUCERS> m_received;
    std::array<std::atomic<std::uint32_t>, PRODUCERS> m_lastSync{}; ///< the last synchronous event
    std::atomic<std::uint32_t> m_unhandled{0}; ///< synchronous sends that returned too early
    TestTask m_task;
};

TEST_F(TaskStressTest, EventsOfFourProducersAreNeitherLostNorDoubledNorDisordered)
{
    const auto seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::vector<std::thread> producers;
    for (std::uint32_t i = 0; i < PRODUCERS; ++i) {
        producers.emplace_back([this, i, seed] { Produce(i, seed + i); });
    }
    for (std::thread& producer : producers) {
        producer.join(); // every synchronous sender has been released
    }
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_EQ(m_task.Size(), 0u);
    EXPECT_EQ(m_unhandled, 0u);
    for (std::uint32_t i = 0; i < PRODUCERS; ++i) {
        const Received& received = m_received[i];
        std::uint32_t lost = 0;
        std::uint32_t doubled = 0;
        for (const std::uint8_t times : received.times) {
            lost += times == 0 ? 1 : 0;
            doubled += times > 1 ? 1 : 0;
        }
        EXPECT_EQ(lost, 0u) << "producer " << i;
        EXPECT_EQ(doubled, 0u) << "producer " << i;
        EXPECT_EQ(received.outOfOrder, 0u) << "producer " << i;
    }
}

/// Pauses under load, and pauses against other requests.
class PauseStressTest : public ::testing::Test
{
 protected:
    const TaskRuntime m_runtime;
};

/// Two producers that number their events and a task that checks the numbers.
class LoadedTask : public TestTask
{
 public:
    static constexpr std::uint32_t LOADERS = 2;

    LoadedTask()
    {
        onUser = [this](const TSEvent* event) {
            m_disordered += event->param2 != m_next[event->param1] ? 1 : 0;
            m_next[event->param1] = event->param2 + 1;
            m_handledInPause += m_inPause ? 1 : 0;
            return true;
        };
        onPause = [this](const TSEvent*) { m_inPause = true; };
        onResume = [this](const TSEvent*) {
            m_inPause = false;
            ++m_resumed;
        };
    }

    ~LoadedTask() override
    {
        StopLoad();
        End();
    }

    void StartLoad()
    {
        for (std::uint32_t i = 0; i < LOADERS; ++i) {
            m_loaders.emplace_back([this, i] { Load(i); });
        }
        EXPECT_TRUE(Eventually([this] {
            return std::all_of(m_sent.begin(), m_sent.end(), [](const auto& n) { return n > 0; });
        }));
    }

    void StopLoad()
    {
        m_stop = true;
        for (std::thread& loader : m_loaders) {
            loader.join();
        }
        m_loaders.clear();
    }

    /// To be called when the load has been stopped and all events have been handled.
    void ExpectNothingLost(int pauses) const
    {
        EXPECT_EQ(m_disordered, 0u);
        EXPECT_EQ(m_handledInPause, 0u);
        EXPECT_EQ(m_resumed, pauses);
        for (std::uint32_t i = 0; i < LOADERS; ++i) {
            EXPECT_EQ(m_next[i], m_sent[i].load());
        }
    }

 private:
    void Load(std::uint32_t loader)
    {
        while (!m_stop) {
            TSEvent event = EventTo(this, EVENT_USER, loader);
            event.param2 = m_sent[loader];
            if (TCTask::Send(&event, false, false)) {
                ++m_sent[loader];
            } else {
                std::this_thread::yield();
            }
        }
    }

    std::vector<std::thread> m_loaders;
    std::atomic<bool> m_stop{false};
    std::array<std::atomic<std::uint32_t>, LOADERS> m_sent{}; ///< each written by its loader

    // Only the task's thread, until it has handled all events.
    std::array<std::uint32_t, LOADERS> m_next{};
    std::uint32_t m_disordered = 0;
    std::uint32_t m_handledInPause = 0;
    bool m_inPause = false;
    int m_resumed = 0;
};

TEST_F(PauseStressTest, ThousandRoundsUnderLoadLoseNothingAndKeepOrder)
{
    constexpr int ROUNDS = 1000;
    LoadedTask task;
    ASSERT_TRUE(task.Start());
    task.StartLoad();
    for (int round = 0; round < ROUNDS; ++round) {
        ASSERT_TRUE(task.Pause());
        ASSERT_TRUE(task.IsPaused());
        ASSERT_TRUE(task.ResumeAsync());
    }
    task.StopLoad();
    EXPECT_TRUE(Flush(&task));
    task.ExpectNothingLost(ROUNDS);
}

TEST_F(PauseStressTest, ThirdThreadResumesEveryPause)
{
    constexpr int ROUNDS = 500;
    LoadedTask task;
    ASSERT_TRUE(task.Start());
    std::atomic<int> resumes{0};
    std::thread resumer([&] {
        while (resumes < ROUNDS) {
            resumes += task.IsPaused() && task.ResumeAsync() ? 1 : 0;
        }
    });
    for (int round = 0; round < ROUNDS; ++round) {
        EXPECT_TRUE(task.Pause());
        EXPECT_TRUE(Eventually([&] { return resumes > round; }));
    }
    resumer.join();
    EXPECT_FALSE(task.IsPaused());
    EXPECT_TRUE(Flush(&task));
}

TEST_F(PauseStressTest, DestroyResumesAPauseThatComesBeforeTheExit)
{
    constexpr int ROUNDS = 200;
    int resumed = 0;
    TestTask task;
    task.onResume = [&](const TSEvent*) { ++resumed; };
    for (int round = 1; round <= ROUNDS; ++round) {
        ASSERT_TRUE(task.Start());
        Hold hold(&task);
        Caller pauser([&] { EXPECT_TRUE(task.Pause()); });
        ASSERT_TRUE(Eventually([&] { return task.Size() == 1; }));
        ASSERT_TRUE(Post(&task, TCTask::EVENT_EXIT));
        hold.Release();
        task.Destroy(); // while the pause begins
        pauser.Join();
        ASSERT_EQ(resumed, round);
    }
}

TEST_F(PauseStressTest, DestroyWaitsForAPauseThatComesAfterTheExit)
{
    constexpr int ROUNDS = 20;
    TestTask task;
    for (int round = 0; round < ROUNDS; ++round) {
        ASSERT_TRUE(task.Start());
        Hold hold(&task);
        Caller pauser([&] { EXPECT_FALSE(task.Pause()); });
        ASSERT_TRUE(Eventually([&] { return task.Size() == 1; }));
        TSEvent exit = EventTo(&task, TCTask::EVENT_EXIT);
        ASSERT_TRUE(TCTask::Send(&exit, false, true)); // it overtakes the pause
        hold.Release();
        task.Destroy();
        pauser.Join();
        ASSERT_FALSE(task.FlagCreate());
    }
}

TEST_F(PauseStressTest, RequestsFromManyThreadsLeaveTheTaskRunning)
{
    constexpr int ROUNDS = 300;
    LoadedTask task;
    ASSERT_TRUE(task.Start("task", LONG_WAIT_MSEC));
    std::atomic<int> pausers{2};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                // The pings may have filled the queue.
                EXPECT_TRUE(Eventually([&task] { return task.Pause(); }));
                task.ResumeAsync(); // the other one may have done it
            }
            --pausers;
        });
    }
    threads.emplace_back([&] {
        while (pausers > 0) {
            TCTask::Ping(&task, 0);
            task.IsPaused();
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(task.IsPaused());
    EXPECT_TRUE(Flush(&task));
}

} // namespace
