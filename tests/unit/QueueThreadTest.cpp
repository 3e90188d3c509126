#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "QueueEvents.h"
#include "Sanitized.h"
#include "Wait.h"

namespace {

using namespace zortest;

constexpr int PRODUCERS = 4;
constexpr std::uint32_t EVENTS = 1000000 / SLOWER;
constexpr std::uint32_t EVENTS_OF_ONE = EVENTS / PRODUCERS;
constexpr unsigned int ONE_IN_PRIORITY = 8;
constexpr unsigned int ONE_IN_SYNCHRONOUS = 64;
constexpr unsigned int ONE_IN_ATTACHED = 32;

enum Class : std::uint32_t
{
    NORMAL,
    PRIORITY,
    CLASSES,
};

/// A thread that puts numbered events, as fast as the queue takes them.
class Producer
{
 public:
    Producer(TCQueue* queue, TCHandler* receiver, std::uint32_t index, std::atomic<int>* living)
        : m_queue(queue), m_receiver(receiver), m_index(index), m_living(living)
    {
        m_thread = std::thread([this] { Run(); });
    }

    void Join() { m_thread.join(); }

    /// How many events of @p c have been put for certain.
    std::uint32_t Done(Class c) const { return m_done[c]; }

    /// The thread's id, known before its first event comes out of the queue.
    std::uint32_t Id() const { return m_id; }

    /// How many of its synchronous puts have come back.
    std::uint32_t Released() const { return m_released; }

 private:
    void Run()
    {
        m_id = static_cast<std::uint32_t>(pthread_self());
        std::mt19937 random(m_index);
        for (std::uint32_t i = 0; i < EVENTS_OF_ONE; ++i) {
            const Class c = random() % ONE_IN_PRIORITY == 0 ? PRIORITY : NORMAL;
            const bool sync = random() % ONE_IN_SYNCHRONOUS == 0;
            TSEvent event = EventFor(m_receiver, c, m_done[c]);
            event.param2 = m_index;
            event.param3 = sync ? 1 : 0;
            if (random() % ONE_IN_ATTACHED == 0) {
                event.setWrappedData(Counted(m_living));
            }
            while (!m_queue->PutSync(&event, sync, c == PRIORITY)) {
                std::this_thread::yield();
            }
            ++m_done[c];
            m_released += sync ? 1 : 0;
        }
    }

    TCQueue* const m_queue;
    TCHandler* const m_receiver;
    const std::uint32_t m_index;
    std::atomic<int>* const m_living;
    std::atomic<std::uint32_t> m_id{0};
    std::array<std::atomic<std::uint32_t>, CLASSES> m_done{};
    std::atomic<std::uint32_t> m_released{0};
    std::thread m_thread;
};

/// What has come out of the queue of one producer's events of one class.
class Arrivals
{
 public:
    bool Contains(std::uint32_t number) const { return m_came[number]; }

    void Add(std::uint32_t number)
    {
        m_came[number] = true;
        ++m_count;
        while (m_firstMissing < m_came.size() && m_came[m_firstMissing]) {
            ++m_firstMissing;
        }
    }

    std::uint32_t Count() const { return m_count; }

    /// The lowest number that has not come.
    std::uint32_t FirstMissing() const { return m_firstMissing; }

    /// Whether all from @p first to before @p last have come.
    bool Complete(std::uint32_t first, std::uint32_t last) const
    {
        for (std::uint32_t number = std::max(first, m_firstMissing); number < last; ++number) {
            if (!m_came[number]) {
                return false;
            }
        }
        return true;
    }

 private:
    std::vector<bool> m_came = std::vector<bool>(EVENTS_OF_ONE);
    std::uint32_t m_count = 0;
    std::uint32_t m_firstMissing = 0;
};

/// Four producers of a queue, and the test as its consumer.
class QueueThreadTest : public ::testing::Test
{
 protected:
    using Progress = std::array<std::array<std::uint32_t, CLASSES>, PRODUCERS>;

    QueueThreadTest() { EXPECT_TRUE(m_queue.Create()); }
    ~QueueThreadTest() override { m_queue.Destroy(); }

    void Start()
    {
        for (std::uint32_t i = 0; i < PRODUCERS; ++i) {
            m_producers.push_back(std::make_unique<Producer>(&m_queue, &m_receiver, i, &m_living));
        }
    }

    void Join()
    {
        for (auto& producer : m_producers) {
            producer->Join();
        }
    }

    Progress WhatIsPut() const
    {
        Progress progress{};
        for (int i = 0; i < PRODUCERS; ++i) {
            progress[i] = {m_producers[i]->Done(NORMAL), m_producers[i]->Done(PRIORITY)};
        }
        return progress;
    }

    /// One of a million waits is refused, so one is not enough.
    bool Get(TSEvent* event)
    {
        const auto deadline = std::chrono::steady_clock::now() + DEADLINE;
        while (!m_queue.GetSync(event, 10000, false)) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
        }
        return true;
    }

    /// Whether @p event, taken when at least @p put was put, is new and in its order.
    void ExpectInOrder(const TSEvent& event, const Progress& put)
    {
        ASSERT_LT(event.param2, static_cast<std::uint32_t>(PRODUCERS));
        ASSERT_LT(event.type, static_cast<unsigned long>(CLASSES));
        const auto c = static_cast<Class>(event.type);
        const std::uint32_t number = event.param1;
        Arrivals& arrivals = m_arrivals[event.param2][c];
        ASSERT_EQ(event.sender, m_producers[event.param2]->Id());
        ASSERT_EQ(event.sync != nullptr, event.param3 == 1);
        ASSERT_LT(number, EVENTS_OF_ONE);
        ASSERT_FALSE(arrivals.Contains(number)) << "doubled";
        if (c == NORMAL) {
            ASSERT_EQ(number, arrivals.FirstMissing());
            for (int i = 0; i < PRODUCERS; ++i) {
                ASSERT_GE(m_arrivals[i][PRIORITY].FirstMissing(), put[i][PRIORITY])
                    << "a normal event overtook one of priority";
            }
        } else {
            ASSERT_TRUE(arrivals.Complete(number + 1, put[event.param2][PRIORITY]))
                << "a priority event overtook a later one of the same sender";
        }
        arrivals.Add(number);
    }

    Receiver m_receiver;
    TCQueue m_queue;
    std::atomic<int> m_living{0};
    std::vector<std::unique_ptr<Producer>> m_producers;
    std::array<std::array<Arrivals, CLASSES>, PRODUCERS> m_arrivals;
};

TEST_F(QueueThreadTest, MillionEventsOfFourProducersAllComeOnceAndInOrder)
{
    Start();
    TSEvent event;
    std::uint32_t synchronous = 0;
    for (std::uint32_t i = 0; i < EVENTS; ++i) {
        const Progress put = WhatIsPut();
        ASSERT_TRUE(Get(&event)) << "lost after " << i;
        ASSERT_NO_FATAL_FAILURE(ExpectInOrder(event, put));
        if (event.sync != nullptr) {
            ++synchronous;
            event.sync->Give();
        }
    }
    Join();

    std::uint32_t released = 0;
    for (int i = 0; i < PRODUCERS; ++i) {
        for (const Class c : {NORMAL, PRIORITY}) {
            EXPECT_EQ(m_arrivals[i][c].Count(), m_producers[i]->Done(c));
            EXPECT_GT(m_arrivals[i][c].Count(), 0u);
        }
        released += m_producers[i]->Released();
    }
    EXPECT_EQ(released, synchronous);
    EXPECT_GT(synchronous, EVENTS / ONE_IN_SYNCHRONOUS / 2);
    EXPECT_EQ(m_queue.Size(), 0u);
    EXPECT_FALSE(m_queue.Try(0));
    event = TSEvent();
    EXPECT_EQ(m_living, 0);
}

/// Threads that take events out in every way there is, until they are told to stop.
class QueueMixedThreadTest : public ::testing::Test
{
 protected:
    static constexpr std::uint32_t PUTS_OF_ONE = 20000 / SLOWER;
    static constexpr int RECEIVERS = 2;

    QueueMixedThreadTest() { EXPECT_TRUE(m_queue.Create()); }
    ~QueueMixedThreadTest() override { m_queue.Destroy(); }

    void Produce(std::uint32_t index)
    {
        std::mt19937 random(index);
        for (std::uint32_t i = 0; i < PUTS_OF_ONE; ++i) {
            TSEvent event = EventFor(&m_receivers[i % RECEIVERS], i % 3, index * PUTS_OF_ONE + i);
            event.setWrappedData(Counted(&m_living));
            while (!m_queue.PutSync(&event, random() % 16 == 0, random() % 4 == 0)) {
                std::this_thread::yield();
            }
        }
    }

    void Handle(TSEvent* event)
    {
        EXPECT_EQ(m_came[event->param1]++, 0) << "doubled";
        ++m_taken;
        if (event->sync != nullptr) {
            event->sync->Give();
        }
        event->wrappedData.reset();
    }

    /// Begins when an event has been deleted, which takers that are quick would leave none for.
    void TakeUntilStopped(const std::function<void()>& turn)
    {
        while (m_deleted == 0) {
            std::this_thread::yield();
        }
        RunUntilStopped(turn);
    }

    void RunUntilStopped(const std::function<void()>& turn)
    {
        while (!m_stop) {
            turn();
        }
    }

    Receiver m_receivers[RECEIVERS];
    TCQueue m_queue;
    std::atomic<int> m_living{0};
    std::atomic<bool> m_stop{false};
    std::atomic<std::uint32_t> m_taken{0};
    std::atomic<std::uint32_t> m_deleted{0};
    std::vector<std::atomic<int>> m_came =
        std::vector<std::atomic<int>>(std::size_t{PRODUCERS} * PUTS_OF_ONE);
};

TEST_F(QueueMixedThreadTest, EveryEventIsTakenOrDeletedOnceHoweverManyThreadsDoIt)
{
    std::vector<std::thread> takers;
    takers.emplace_back([this] {
        TSEvent event;
        TakeUntilStopped([&] {
            if (m_queue.GetSync(&event, 5, false)) {
                Handle(&event);
            }
        });
    });
    takers.emplace_back([this] {
        TSEvent event;
        TakeUntilStopped([&] {
            if (m_queue.Get(&event, &m_receivers[0], 1) || m_queue.Get(&event, &m_receivers[1])) {
                Handle(&event);
            }
            if (m_queue.GetQData(&event)) {
                Handle(&event);
            }
            std::this_thread::yield();
        });
    });
    takers.emplace_back([this] {
        RunUntilStopped([&] {
            unsigned int deleted = 0;
            m_queue.DeleteEx(&m_receivers[0], 2, 3, &deleted);
            m_deleted += deleted;
            m_queue.Delete(&m_receivers[1], 0, &deleted);
            m_deleted += deleted;
            m_queue.Find(&m_receivers[0], &deleted);
            EXPECT_LE(deleted, 256u);
            m_queue.Give();
            std::this_thread::yield();
        });
    });

    std::vector<std::thread> producers;
    for (std::uint32_t i = 0; i < PRODUCERS; ++i) {
        producers.emplace_back([this, i] { Produce(i); });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    m_stop = true;
    for (std::thread& taker : takers) {
        taker.join();
    }
    TSEvent event;
    while (m_queue.GetSyncQData(&event, false)) {
        Handle(&event);
    }
    EXPECT_EQ(m_taken + m_deleted, PRODUCERS * PUTS_OF_ONE);
    EXPECT_GT(m_taken, 0u);
    EXPECT_GT(m_deleted, 0u);
    EXPECT_EQ(m_living, 0);
}

} // namespace
