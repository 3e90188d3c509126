#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "TaskSupport.h"
#include "zor/Task.h"

/// @file
/// What the tests of typed messages share: messages of every kind, and a task that takes them.

namespace zortest {

using namespace std::chrono_literals;

/// Longer than anything takes: an ask that waits so long has failed.
constexpr std::chrono::seconds LONG(60);

/// So short that it is over while the test waits, yet an ordinary wait.
constexpr std::chrono::milliseconds SHORT(20);

// Messages.

/// Travels in the event.
struct Tune
{
    int channel;
};

/// Fills the event's parameters to the last byte, with an alignment of its own.
struct Exact
{
    std::uint64_t first;
    std::uint64_t second;
    std::uint32_t third;
    std::uint16_t fourth;
    std::uint8_t fifth;
    std::uint8_t sixth;
};

/// One byte too large for that.
struct TooLarge
{
    unsigned char bytes[25];
};

struct Empty
{};

struct Text
{
    std::string text;
};

/// Can be moved only.
struct Gift
{
    std::unique_ptr<int> number;
};

/// Tells when and how often it is freed.
struct Counted
{
    std::shared_ptr<int> token;
};

struct Tuned
{
    int channel = 0;
    pthread_t handledOn = 0;
};

/// What a test wants done, with an answer.
struct Call
{
    std::function<int()> function;
};

/// A task that takes them all. The functions are the test's, set before it starts.
class Tuner : public zor::Task<Tuner, Tune, Exact, TooLarge, Empty, Text, Gift, Counted, Call>
{
 public:
    ~Tuner() override
    {
        if (FlagCreate()) {
            Delete(static_cast<TCHandler*>(this), nullptr);
            End();
        }
    }

    std::function<void(int)> onTune;
    std::function<void()> onDestroy;
    Trace trace;   ///< of what came
    Exact exact{}; ///< the last, only on the task's thread until it is asked
    TooLarge tooLarge{};

    bool t_OnUser(const TSEvent* event) override
    {
        trace.Add("user " + std::to_string(event->param1));
        return true;
    }

    void t_Destroy() override
    {
        if (onDestroy) {
            onDestroy();
        }
        Task::t_Destroy();
    }

 private:
    friend zor::Access;

    Tuned On(const Tune& tune)
    {
        trace.Add("tune " + std::to_string(tune.channel));
        if (onTune) {
            onTune(tune.channel);
        }
        return {tune.channel, pthread_self()};
    }

    void On(const Exact& message) { exact = message; }
    void On(const TooLarge& message) { tooLarge = message; }
    void On(Empty /*message*/) { trace.Add("empty"); }
    std::string On(const Text& message)
    {
        trace.Add(message.text);
        return message.text + "!";
    }
    std::unique_ptr<int> On(Gift&& gift) { return std::move(gift.number); }
    void On(const Counted& message) { trace.Add("count " + std::to_string(*message.token)); }
    int On(Call& call) = delete;
    int On(Call&& call) { return call.function(); }
};

/// A task whose messages are functions, to do things on its thread.
class Doer : public zor::Task<Doer, Call>
{
 public:
    ~Doer() override
    {
        if (FlagCreate()) {
            End();
        }
    }

    int On(Call&& call) { return call.function(); }
};

/// The runtime's services and a started tuner.
class KitTest : public ::testing::Test
{
 protected:
    KitTest() { EXPECT_TRUE(m_tuner.Start("Tuner")); }

    /// How many calls the table of synchronous calls lists.
    static int Listed()
    {
        // Entering and leaving takes the table's lock, so that what is read was written before.
        PTSyncDetInfo probe;
        TCSyncDet::Remove(TCSyncDet::Add(&probe));
        int listed = 0;
        for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
            listed += TCSyncDet::m_arrPCSyncDet[i].bValid ? 1 : 0;
        }
        return listed;
    }

    /// Fills the queue of the tuner, which is held, with ordinary events until one is refused.
    void FillOrdinary()
    {
        while (Post(&m_tuner)) {
        }
    }

    const TaskRuntime m_runtime;
    Tuner m_tuner;
};

} // namespace zortest
