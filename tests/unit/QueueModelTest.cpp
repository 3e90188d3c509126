#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "QueueEvents.h"
#include "QueueModel.h"
#include "QueueProbe.h"
#include "QueueSender.h"
#include "Sanitized.h"
#include "TCDebugPrint.h"

namespace {

using namespace zortest;

constexpr int OPERATIONS = 100000 / SLOWER;
constexpr int OPERATIONS_OF_A_PHASE = 1000;
constexpr int RECEIVERS = 3;
constexpr int TYPES = 3;
constexpr std::size_t MAX_WAITING_SENDERS = 12;
constexpr unsigned long FOR_EVER = ~0UL;

/// Whether there are more puts or more gets than of the other.
enum class Phase
{
    FILL,
    BALANCE,
    EMPTY,
};

/// One random operation after the other, on a queue and on its model alike. Only one operation is
/// ever under way; senders that wait have threads of their own.
class QueueAndModel
{
 public:
    explicit QueueAndModel(unsigned int seed) : m_random(seed)
    {
        EXPECT_TRUE(m_queue.Create());
        m_target.param1 = NOTHING_YET;
    }

    ~QueueAndModel()
    {
        for (Receiver& receiver : m_receivers) {
            m_queue.Delete(&receiver, nullptr);
        }
        m_senders.clear();
        m_queue.Destroy();
        TCDebugPrintZOR::GetInstance()->SetAppData(nullptr, 0);
    }

    void Step(Phase phase)
    {
        static std::map<Phase, std::discrete_distribution<int>> operationOf = {
            {Phase::FILL, {60, 20, 1.5, 6, 3, 3, 2, 2, 2, 1, 1, 0.2, 0.3, 3, 2}},
            {Phase::BALANCE, {30, 10, 1.5, 20, 8, 6, 6, 6, 6, 2, 2, 0.5, 1, 3, 4}},
            {Phase::EMPTY, {10, 4, 1, 20, 10, 8, 8, 8, 8, 4, 4, 1, 3, 2, 8}},
        };
        switch (operationOf.at(phase)(m_random)) {
            case 0:
                return Put(false, false);
            case 1:
                return Put(true, false);
            case 2:
                return Put(Chance(2), true);
            case 3:
                return GetSync(false);
            case 4:
                return GetSync(true);
            case 5:
                return GetQData(false);
            case 6:
                return GetQData(true);
            case 7:
            case 8:
                return GetMatching();
            case 9:
                return FindMatching();
            case 10:
                return DeleteSome();
            case 11:
                return DeleteByReceiver();
            case 12:
                return DeleteByType();
            case 13:
                m_queue.Give();
                return m_model.Give();
            default:
                EXPECT_EQ(m_queue.Try(0), m_model.Try());
        }
    }

    /// Compares everything that can be seen of the queue from within.
    void ExpectSameContents()
    {
        const QueueProbe probe(m_queue);
        const auto& events = m_model.Events();
        ASSERT_EQ(m_queue.Size(), events.size());
        ASSERT_EQ(probe.Count(), events.size());
        ASSERT_TRUE(probe.IndicesAgree());
        ASSERT_TRUE(probe.VacatedSlotsAreEmpty());
        int attachments = m_target.wrappedData != nullptr ? 1 : 0;
        for (std::size_t i = 0; i < events.size(); ++i) {
            ASSERT_TRUE(IsEvent(probe.Event(i), events[i])) << "event " << i;
            attachments += events[i].attachment ? 1 : 0;
        }
        ASSERT_EQ(m_living, attachments);
    }

    /// Compares what the queue itself tells of its contents.
    void ExpectSameAnswers()
    {
        ASSERT_EQ(UnitsOf(m_queue), m_model.Units());
        for (int receiver = 0; receiver < RECEIVERS; ++receiver) {
            for (unsigned long type = 0; type < TYPES; ++type) {
                unsigned int number = NOTHING_YET;
                const unsigned int expected = m_model.Find({receiver, type});
                ASSERT_EQ(m_queue.Find(&m_receivers[receiver], type, &number), expected != 0);
                ASSERT_EQ(number, expected);
            }
        }
    }

    /// Takes everything that is left.
    void ExpectSameRest()
    {
        while (!m_model.Events().empty()) {
            GetQData(false);
            ASSERT_EQ(m_queue.Size(), m_model.Events().size());
        }
        EXPECT_FALSE(m_queue.GetSyncQData(&m_target, false));
        EXPECT_TRUE(m_senders.empty());
    }

    std::size_t Refusals() const { return m_refusals; }
    std::size_t SynchronousPuts() const { return m_synchronousPuts; }

 private:
    static constexpr std::uint32_t NOTHING_YET = 0xFFFFFFFF;

    int Below(int limit) { return static_cast<int>(m_random() % static_cast<unsigned int>(limit)); }
    bool Chance(int oneIn) { return Below(oneIn) == 0; }

    ModelMatch AnyMatch()
    {
        ModelMatch match{Below(RECEIVERS), std::nullopt};
        if (Chance(2)) {
            match.type = static_cast<unsigned long>(Below(TYPES));
        }
        return match;
    }

    bool IsEvent(const TSEvent& event, const ModelEvent& expected) const
    {
        return event.param1 == expected.number &&
               event.receiver == &m_receivers[expected.receiver] && event.type == expected.type &&
               (event.sync != nullptr) == expected.sync &&
               (event.wrappedData != nullptr) == expected.attachment &&
               (expected.sync || event.appName == expected.appName) && event.param3 == 0xFFFF &&
               event.param5 == ~std::uint64_t{0};
    }

    ModelEvent NewEvent(bool sync)
    {
        static const char* const NAMES[] = {"", "tuner", "exactly15 chars",
                                            "a name that does not fit into a short string"};
        ModelEvent event;
        event.number = m_next++;
        event.receiver = Below(RECEIVERS);
        event.type = static_cast<unsigned long>(Below(TYPES));
        event.sync = sync;
        event.attachment = Chance(3);
        event.appName = NAMES[Below(4)];
        return event;
    }

    void Put(bool priority, bool sync)
    {
        if (sync && m_senders.size() >= MAX_WAITING_SENDERS) {
            return;
        }
        const ModelEvent model = NewEvent(sync);
        TSEvent event = EventFor(&m_receivers[model.receiver], model.type, model.number);
        if (model.attachment) {
            event.setWrappedData(Counted(&m_living));
        }
        const bool expected = m_model.Put(model, priority);
        m_refusals += expected ? 0 : 1;
        if (!sync) {
            TCDebugPrintZOR::GetInstance()->SetAppName(model.appName.c_str());
            EXPECT_EQ(m_queue.Put(&event, priority), expected);
            return;
        }
        ++m_synchronousPuts;
        auto sender = std::make_unique<SyncSender>(m_queue, event, priority);
        EXPECT_NE(sender->Returned(), expected);
        if (expected) {
            m_senders.emplace(model.number, std::move(sender));
        } else {
            EXPECT_FALSE(sender->Result());
        }
    }

    /// Compares the outcome of a get, and handles the event that it brought.
    void ExpectTaken(bool taken, const std::optional<ModelEvent>& expected)
    {
        ASSERT_EQ(taken, expected.has_value());
        if (!taken) {
            EXPECT_EQ(m_target.param1, m_lastTaken); // untouched
            return;
        }
        ASSERT_TRUE(IsEvent(m_target, *expected));
        m_lastTaken = m_target.param1;
        if (expected->sync) {
            m_target.sync->Give();
            ExpectReleased(expected->number);
        }
    }

    void ExpectReleased(std::uint32_t number)
    {
        const auto sender = m_senders.find(number);
        ASSERT_NE(sender, m_senders.end());
        EXPECT_TRUE(sender->second->Result());
        m_senders.erase(sender);
    }

    void GetSync(bool skipSync)
    {
        unsigned long msec = 0;
        if (m_model.GetReturns() && Chance(2)) {
            msec = Chance(2) ? FOR_EVER : 60000;
        } else if (Chance(50)) {
            msec = 1;
        }
        const std::optional<ModelEvent> expected = m_model.GetSync(skipSync);
        const bool taken = skipSync && Chance(2) ? m_queue.Get(&m_target, msec)
                                                 : m_queue.GetSync(&m_target, msec, skipSync);
        ExpectTaken(taken, expected);
    }

    void GetQData(bool skipSync)
    {
        const std::optional<ModelEvent> expected = m_model.GetSyncQData(skipSync);
        const bool taken = skipSync && Chance(2) ? m_queue.GetQData(&m_target)
                                                 : m_queue.GetSyncQData(&m_target, skipSync);
        ExpectTaken(taken, expected);
    }

    void GetMatching()
    {
        const ModelMatch match = AnyMatch();
        const Receiver* const receiver = &m_receivers[match.receiver];
        const std::optional<ModelEvent> expected = m_model.Get(match);
        ExpectTaken(match.type ? m_queue.Get(&m_target, receiver, *match.type)
                               : m_queue.Get(&m_target, receiver),
                    expected);
    }

    void FindMatching()
    {
        const ModelMatch match = AnyMatch();
        const Receiver* const receiver = &m_receivers[match.receiver];
        const unsigned int expected = m_model.Find(match);
        unsigned int found = NOTHING_YET;
        unsigned int* const where = Chance(5) ? nullptr : &found;
        EXPECT_EQ(
            match.type ? m_queue.Find(receiver, *match.type, where) : m_queue.Find(receiver, where),
            expected != 0);
        EXPECT_EQ(found, where != nullptr ? expected : NOTHING_YET);
    }

    void DeleteSome()
    {
        const ModelMatch match{Below(RECEIVERS), static_cast<unsigned long>(Below(TYPES))};
        const auto maxCount = static_cast<unsigned int>(Below(8));
        ExpectDeleted(m_model.Delete(match, maxCount), [&](unsigned int* deleted) {
            return m_queue.DeleteEx(&m_receivers[match.receiver], *match.type, maxCount, deleted);
        });
    }

    void DeleteByReceiver()
    {
        const ModelMatch match{Below(RECEIVERS), std::nullopt};
        ExpectDeleted(m_model.Delete(match, NO_LIMIT), [&](unsigned int* deleted) {
            return m_queue.Delete(&m_receivers[match.receiver], deleted);
        });
    }

    void DeleteByType()
    {
        const ModelMatch match{Below(RECEIVERS), static_cast<unsigned long>(Below(TYPES))};
        ExpectDeleted(m_model.Delete(match, NO_LIMIT), [&](unsigned int* deleted) {
            return m_queue.Delete(&m_receivers[match.receiver], *match.type, deleted);
        });
    }

    template <typename Deletion>
    void ExpectDeleted(const std::vector<ModelEvent>& expected, Deletion deletion)
    {
        unsigned int deleted = NOTHING_YET;
        const bool storesNumber = !Chance(5);
        EXPECT_EQ(deletion(storesNumber ? &deleted : nullptr), !expected.empty());
        EXPECT_EQ(deleted, storesNumber ? expected.size() : NOTHING_YET);
        for (const ModelEvent& event : expected) {
            if (event.sync) {
                ExpectReleased(event.number);
            }
        }
    }

    static constexpr std::size_t NO_LIMIT = 1000;

    std::mt19937 m_random;
    std::atomic<int> m_living{0};
    Receiver m_receivers[RECEIVERS];
    TCQueue m_queue;
    QueueModel m_model;
    std::map<std::uint32_t, std::unique_ptr<SyncSender>> m_senders;
    TSEvent m_target; ///< every get's, so that what it held before matters
    std::uint32_t m_lastTaken = NOTHING_YET;
    std::uint32_t m_next = 0;
    std::size_t m_refusals = 0;
    std::size_t m_synchronousPuts = 0;
};

void ExpectQueueToFollowItsModel(unsigned int seed)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    ::testing::Test::RecordProperty("seed", std::to_string(seed));
    printf("seed %u\n", seed);

    QueueAndModel both(seed);
    std::mt19937 random(seed);
    std::array<Phase, 3> phases = {Phase::FILL, Phase::BALANCE, Phase::EMPTY};
    for (int i = 0; i < OPERATIONS; ++i) {
        const std::size_t number = i / OPERATIONS_OF_A_PHASE;
        if (i % OPERATIONS_OF_A_PHASE == 0) {
            if (number % phases.size() == 0) {
                std::shuffle(phases.begin(), phases.end(), random);
            }
            ASSERT_NO_FATAL_FAILURE(both.ExpectSameAnswers());
        }
        both.Step(phases.at(number % phases.size()));
        both.ExpectSameContents();
        ASSERT_FALSE(::testing::Test::HasFailure()) << "in operation " << i;
    }
    EXPECT_GT(both.Refusals(), OPERATIONS / 1000u); // or the queue was hardly ever full
    EXPECT_GT(both.SynchronousPuts(), OPERATIONS / 1000u);
    both.ExpectSameRest();
}

class QueueModelTest : public ::testing::TestWithParam<unsigned int>
{};

TEST_P(QueueModelTest, RandomOperationsDoWhatTheRulesSay)
{
    ExpectQueueToFollowItsModel(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Seeds, QueueModelTest, ::testing::Values(1u, 20u, 4711u),
                         ::testing::PrintToStringParamName());

TEST(QueueFreshModelTest, RandomOperationsOfAFreshSeedDoWhatTheRulesSay)
{
    ExpectQueueToFollowItsModel(std::random_device()());
}

} // namespace
