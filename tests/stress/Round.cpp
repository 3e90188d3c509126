#include "Round.h"

#include <cinttypes>
#include <cstdio>
#include <thread>

#include "Census.h"
#include "Sentinel.h"
#include "Sync.h"
#include "TCDebugPrint.h"

namespace storm {

using Clock = std::chrono::steady_clock;

/// Two numbers that must be the same.
struct Round::Pair
{
    const char* left;
    std::uint64_t leftCount;
    const char* right;
    std::uint64_t rightCount;
};

namespace {

/// How many synchronous calls and asks the table lists. Nobody makes any.
std::uint64_t ListedCalls()
{
    std::uint64_t listed = 0;
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        listed += TCSyncDet::m_arrPCSyncDet[i].bValid ? 1 : 0;
    }
    return listed;
}

} // namespace

Round::Round(const Options& options)
    : m_options(options), m_world(options.threads, options.tasks), m_lastDone(OPERATIONS)
{
    for (unsigned number = 0; number <= options.threads; ++number) {
        m_workers.push_back(std::make_unique<Worker>(&m_world, number, options.seed));
    }
}

Round::~Round() = default;

void Round::Run(std::chrono::seconds length, const std::atomic<bool>& end)
{
    const Sentinel sentinel(m_workers, m_options.hangAfter, [this] { PrintThreads(); });
    Worker& own = *m_workers.back();
    for (unsigned slot = 0; slot < m_options.tasks; ++slot) {
        own.TurnOver(slot);
    }
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (unsigned number = 0; number < m_options.threads; ++number) {
        threads.emplace_back([this, number, &stop] { m_workers[number]->Run(stop); });
    }
    WaitForEnd(length, end);
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (unsigned slot = 0; slot < m_options.tasks; ++slot) {
        own.Empty(slot);
    }
    m_world.ledger.CheckAllEnded();
}

/// The first complaint ends the storm as well: what comes behind it would only bury it.
void Round::WaitForEnd(std::chrono::seconds length, const std::atomic<bool>& end)
{
    constexpr std::chrono::milliseconds LOOK(50);

    const auto deadline = Clock::now() + length;
    auto lastReport = Clock::now();
    while (Clock::now() < deadline && !end && !m_world.ledger.HasComplaints()) {
        std::this_thread::sleep_for(LOOK);
        const auto since = Clock::now() - lastReport;
        if (m_options.reportEvery.count() > 0 && since >= m_options.reportEvery) {
            PrintRates(since);
            lastReport = Clock::now();
        }
    }
}

void Round::PrintRates(std::chrono::duration<double> since)
{
    const Totals totals = m_world.ledger.Sum();
    printf("%" PRIu64 " events sent, %" PRIu64 " open, %zu MB resident; each second:", totals.sent,
           totals.open, TakeCensus().resident >> 20);
    for (std::size_t i = 0; i < OPERATIONS; ++i) {
        const auto operation = static_cast<Operation>(i);
        std::uint64_t done = 0;
        for (const auto& worker : m_workers) {
            done += worker->Done(operation);
        }
        printf(" %s %.0f", NameOf(operation),
               static_cast<double>(done - m_lastDone[i]) / since.count());
        m_lastDone[i] = done;
    }
    printf("\n");
    fflush(stdout);
}

std::vector<Round::Pair> Round::Pairs() const
{
    const Totals totals = m_world.ledger.Sum();
    const Counts& counts = m_world.counts;
    return {
        {"sent", totals.sent, "accepted + refused", totals.accepted + totals.refused},
        {"accepted", totals.accepted, "handled + deleted + dropped",
         totals.handled + totals.deleted + totals.dropped},
        {"handled, by the ledger", totals.handled, "handled, by the handlers", counts.handled},
        {"open", totals.open, "(none)", 0},
        {"attachments left", static_cast<std::uint64_t>(Token::Alive()), "(none)", 0},
        {"tasks made", counts.tasksMade, "tasks ended", counts.tasksEnded},
        {"alarms made", counts.alarmsMade, "alarms ended", counts.alarmsEnded},
        {"timers made", counts.timersMade, "timers released", counts.timersReleased},
        {"pauses begun", counts.pausesBegun, "pauses ended", counts.pausesEnded},
        {"probes sent", counts.probesSent, "callbacks called + destroyed",
         counts.probesCalled + counts.probesDropped},
        {"lambdas of timers made", counts.lambdasMade, "lambdas freed", counts.lambdasFreed},
        {"calls listed", ListedCalls(), "(none)", 0},
    };
}

void Round::PrintBalance() const
{
    printf("\n%-24s %12s %12s\n", "operation", "done", "failed");
    for (std::size_t i = 0; i < OPERATIONS; ++i) {
        const auto operation = static_cast<Operation>(i);
        std::uint64_t done = 0;
        std::uint64_t failed = 0;
        for (const auto& worker : m_workers) {
            done += worker->Done(operation);
            failed += worker->Failed(operation);
        }
        printf("%-24s %12" PRIu64 " %12" PRIu64 "\n", NameOf(operation), done, failed);
    }
    const Totals totals = m_world.ledger.Sum();
    const Counts& counts = m_world.counts;
    printf("\nrefused %" PRIu64 ", handled %" PRIu64 ", deleted %" PRIu64 ", dropped %" PRIu64
           "; firings of alarms %" PRIu64 ", of timers %" PRIu64 ", state events %" PRIu64
           ", idle turns %" PRIu64 "; asks answered %" PRIu64 ", without an answer %" PRIu64
           ", probes %" PRIu64 ", calls of lambdas %" PRIu64 "\n\n",
           totals.refused, totals.handled, totals.deleted, totals.dropped,
           counts.alarmFirings.load(), counts.timerFirings.load(), counts.stateEvents.load(),
           counts.idleTurns.load(), counts.asksAnswered.load(), counts.asksFailed.load(),
           counts.probesSent.load(), counts.lambdaCalls.load());
    for (const Pair& pair : Pairs()) {
        printf("%-24s %12" PRIu64 " = %12" PRIu64 "  %-28s %s\n", pair.left, pair.leftCount,
               pair.rightCount, pair.right, pair.leftCount == pair.rightCount ? "" : "WRONG");
    }
}

std::vector<std::string> Round::Wrongs() const
{
    std::vector<std::string> wrongs = m_world.ledger.Complaints();
    for (const Pair& pair : Pairs()) {
        if (pair.leftCount != pair.rightCount) {
            wrongs.push_back(std::string(pair.left) + " is " + std::to_string(pair.leftCount) +
                             ", but " + pair.right + " is " + std::to_string(pair.rightCount));
        }
    }
    return wrongs;
}

void Round::PrintThreads() const
{
    for (std::size_t i = 0; i < m_workers.size(); ++i) {
        const Worker::Doing doing = m_workers[i]->Now();
        fprintf(stderr, "zor-storm: %s %zu: %s, slot %u, after %" PRIu64 " operations\n",
                i + 1 == m_workers.size() ? "main thread" : "thread", i, NameOf(doing.operation),
                doing.slot, doing.steps);
    }
    for (std::size_t i = 0; i < m_world.slots.size(); ++i) {
        const UseCount& use = m_world.slots[i]->use;
        fprintf(stderr, "zor-storm: slot %zu: %s, %u inside\n", i, use.IsShut() ? "shut" : "open",
                use.Users());
    }
}

} // namespace storm
