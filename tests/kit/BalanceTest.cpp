// A property beside the plain runtime: of random sends to tasks that pause, end and lose what is
// queued, every one is handled exactly once, or its sender is told why not.
#include <gmock/gmock.h>

#include <deque>
#include <map>
#include <random>

#include "KitSupport.h"

namespace {

using namespace zortest;
using zor::Error;

/// How often each message was handled and freed, by its number. Any thread may count.
class Account
{
 public:
    static constexpr int MESSAGES = 20000;

    int Open() { return m_next++; }
    void Handled(int number) { ++m_handled[Index(number)]; }
    void Freed(int number) { ++m_freed[Index(number)]; }
    int TimesHandled(int number) const { return m_handled[Index(number)]; }
    int TimesFreed(int number) const { return m_freed[Index(number)]; }

 private:
    static std::size_t Index(int number) { return static_cast<std::size_t>(number); }

    std::atomic<int> m_next{0};
    std::deque<std::atomic<int>> m_handled = std::deque<std::atomic<int>>(MESSAGES);
    std::deque<std::atomic<int>> m_freed = std::deque<std::atomic<int>>(MESSAGES);
};

/// Tells the account when it is freed.
class Token
{
 public:
    Token(Account* account, int number) : m_account(account), m_number(number) {}
    Token(Token&& other) noexcept
        : m_account(std::exchange(other.m_account, nullptr)), m_number(other.m_number)
    {}
    ~Token()
    {
        if (m_account != nullptr) {
            m_account->Freed(m_number);
        }
    }

 private:
    Account* m_account;
    int m_number;
};

struct Small
{
    int number;
};

struct Large
{
    int number;
    Token token;
};

class Counter : public zor::Task<Counter, Small, Large>
{
 public:
    explicit Counter(Account* account) : m_account(account) {}

 private:
    friend zor::Access;

    int On(const Small& message) { return Count(message.number); }
    int On(Large&& message) { return Count(message.number); }

    bool t_OnUser(const TSEvent* event) override
    {
        Count(static_cast<int>(event->param1));
        return true;
    }

    int Count(int number)
    {
        m_account->Handled(number);
        if (number % 97 == 0) {
            std::this_thread::sleep_for(2ms); // deadlines pass, queues fill
        }
        return number;
    }

    Account* const m_account;
};

/// What a sender was told of one message.
struct Told
{
    int number;
    bool isLarge;
    bool isQueued;               ///< nothing is known beyond that
    zor::Result<int> answer = 0; ///< of an ask
    bool isAsked = false;
};

/// One thread that sends.
class Sender
{
 public:
    Sender(Counter* counter, Account* account, unsigned seed)
        : m_counter(counter), m_account(account), m_random(seed)
    {}

    void Send()
    {
        Told told{m_account->Open(), m_random() % 2 == 0, false};
        const auto order = m_random() % 4 == 0 ? zor::Order::FIRST : zor::Order::IN_TURN;
        switch (m_random() % 5) {
            case 0:
                Ask(&told, order);
                break;
            case 1:
                Plain(&told);
                break;
            default:
                Post(&told, order);
                break;
        }
        m_told.push_back(std::move(told));
    }

    const std::vector<Told>& All() const { return m_told; }

 private:
    Large MakeLarge(int number) { return {number, Token(m_account, number)}; }

    void Ask(Told* told, zor::Order order)
    {
        told->isAsked = true;
        const std::chrono::microseconds timeout(m_random() % 4000);
        told->answer = told->isLarge ? m_counter->Ask(MakeLarge(told->number), timeout, order)
                                     : m_counter->Ask(Small{told->number}, timeout, order);
    }

    void Post(Told* told, zor::Order order)
    {
        const zor::Sending ways[] = {zor::Refuse(order), zor::WaitAtMost(3ms, order),
                                     zor::DropWhenFull(order)};
        const zor::Sending& how = ways[m_random() % 3];
        const zor::Result<void> posted = told->isLarge
                                             ? m_counter->Post(MakeLarge(told->number), how)
                                             : m_counter->Post(Small{told->number}, how);
        told->isQueued = posted.has_value();
    }

    /// The same through the runtime.
    void Plain(Told* told)
    {
        told->isLarge = false;
        told->isQueued =
            zortest::Post(m_counter, TCTask::EVENT_USER, static_cast<std::uint32_t>(told->number));
    }

    Counter* const m_counter;
    Account* const m_account;
    std::mt19937 m_random;
    std::vector<Told> m_told;
};

class BalanceTest : public ::testing::TestWithParam<unsigned>
{
 protected:
    /// Whether what happened to a message is what its sender was told. Once a task has ended, or
    /// its queue was emptied, messages that were only queued may be lost.
    void Check(const Told& told, bool mayBeLost)
    {
        const int handled = m_account.TimesHandled(told.number);
        EXPECT_LE(handled, 1) << told.number;
        EXPECT_EQ(m_account.TimesFreed(told.number), told.isLarge ? 1 : 0) << told.number;
        if (!told.isAsked) {
            if (!told.isQueued) {
                EXPECT_EQ(handled, 0) << told.number;
            } else if (!mayBeLost) {
                EXPECT_EQ(handled, 1) << told.number;
            }
        } else if (told.answer) {
            EXPECT_EQ(*told.answer, told.number);
            EXPECT_EQ(handled, 1) << told.number;
        } else if (told.answer.error() != Error::NOT_ANSWERED) {
            EXPECT_EQ(handled, 0) << told.number << ' ' << zor::Name(told.answer.error());
        } else if (!mayBeLost) {
            EXPECT_EQ(handled, 1) << told.number; // late, but handled
        }
    }

    /// Has three threads send, and this one do @p disturb until they are done.
    template <typename Disturb>
    void Storm(const Disturb& disturb)
    {
        constexpr int SENDS = 1500;
        std::vector<std::unique_ptr<Caller>> callers;
        for (unsigned i = 0; i < 3; ++i) {
            m_senders.push_back(
                std::make_unique<Sender>(&m_counter, &m_account, 3 * GetParam() + i));
            callers.push_back(std::make_unique<Caller>([sender = m_senders.back().get()] {
                for (int n = 0; n < SENDS; ++n) {
                    sender->Send();
                }
            }));
        }
        for (const auto& caller : callers) {
            while (!caller->IsDone()) {
                disturb();
            }
        }
    }

    void CheckAll(bool mayBeLost)
    {
        for (const auto& sender : m_senders) {
            for (const Told& told : sender->All()) {
                Check(told, mayBeLost);
            }
        }
        for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
            EXPECT_FALSE(TCSyncDet::m_arrPCSyncDet[i].bValid);
        }
    }

    const TaskRuntime m_runtime;
    Account m_account;
    Counter m_counter{&m_account};
    std::vector<std::unique_ptr<Sender>> m_senders;
};

TEST_P(BalanceTest, EveryMessageOfAPausedAndResumedTaskIsHandledOnceOrItsSenderTold)
{
    ASSERT_TRUE(m_counter.Start("Counter"));
    Storm([&] {
        if (m_counter.Pause()) {
            std::this_thread::sleep_for(1ms);
            EXPECT_TRUE(m_counter.ResumeAsync());
        }
        std::this_thread::sleep_for(3ms);
    });
    ASSERT_TRUE(Flush(&m_counter));
    m_counter.End();
    CheckAll(false);
}

TEST_P(BalanceTest, NoMessageOfAnEmptiedQueueIsHandledTwiceOrLeaksAndAskersAreTold)
{
    ASSERT_TRUE(m_counter.Start("Counter"));
    Storm([&] {
        TCTask::ClearQueue(&m_counter, 1000);
        m_counter.Delete(static_cast<TCHandler*>(&m_counter), nullptr);
        std::this_thread::sleep_for(2ms);
    });
    ASSERT_TRUE(Flush(&m_counter));
    m_counter.End();
    CheckAll(true);
}

TEST_P(BalanceTest, EndOfATaskIsToldToWhoAsks)
{
    ASSERT_TRUE(m_counter.Start("Counter"));
    bool isEnding = false;
    Storm([&] {
        std::this_thread::sleep_for(2ms);
        isEnding = isEnding || zortest::Post(&m_counter, TCTask::EVENT_EXIT);
    });
    ASSERT_TRUE(isEnding);
    m_counter.Destroy();
    CheckAll(true);
}

INSTANTIATE_TEST_SUITE_P(Seeds, BalanceTest, ::testing::Values(1U, 2U, 3U, 4U));

} // namespace
