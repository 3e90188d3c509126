#include "History.h"

#include <algorithm>
#include <utility>

namespace zortop {
namespace {

double Seconds(std::int64_t nsec)
{
    return static_cast<double>(nsec) / 1e9;
}

bool SleepsOnEvents(const TaskReport& task)
{
    return task.depth != 0 && !task.facts.inHand && task.thread &&
           task.thread->wait.kind != Wait::NOTHING;
}

} // namespace

void History::Glance(const std::vector<bool>& busy)
{
    if (!m_last || busy.size() != m_last->tasks.size()) {
        return;
    }
    for (std::size_t i = 0; i < busy.size(); ++i) {
        const TaskFacts& task = m_last->tasks[i];
        const auto life = m_lives.find({task.address, task.thread});
        if (life != m_lives.end()) {
            ++life->second.glances;
            life->second.busyGlances += busy[i] ? 1 : 0;
        }
    }
}

Report History::Next(Snapshot snapshot)
{
    Report report;
    report.atNsec = snapshot.atNsec;
    report.tookMsec = static_cast<double>(snapshot.tookNsec) / 1e6;
    report.remarks = snapshot.remarks;
    report.timers = snapshot.timers;
    report.alarms = snapshot.alarms;
    if (m_last) {
        report.sinceSec = Seconds(snapshot.atNsec - m_last->atNsec);
        report.circles = FindCircles(*m_last, snapshot);
    }
    if (snapshot.registryHolder) {
        report.registryHolder = NameOf(*snapshot.registryHolder, snapshot);
    }
    for (const SyncCall& call : snapshot.calls) {
        report.calls.push_back({call.caller, ReceiverOf(call, snapshot),
                                NameOf(call.caller, snapshot), call.receiverName,
                                SecondsOf(call, snapshot)});
    }
    for (auto& [key, life] : m_lives) {
        life.isSeen = false;
    }
    for (const TaskFacts& task : snapshot.tasks) {
        report.tasks.push_back(ReportOf(task, snapshot, &report));
    }
    for (auto at = m_lives.begin(); at != m_lives.end();) {
        at = at->second.isSeen ? std::next(at) : m_lives.erase(at);
    }
    m_last = std::move(snapshot);
    return report;
}

TaskReport History::ReportOf(const TaskFacts& task, const Snapshot& snapshot, Report* report)
{
    TaskReport found;
    found.facts = task;
    for (const QueueFacts& queue : task.queues) {
        found.depth += queue.depth;
        found.puts += queue.puts;
        found.refused += queue.refused;
        found.peak = std::max(found.peak, queue.peak);
    }
    const auto thread = snapshot.threads.find(task.thread);
    if (thread != snapshot.threads.end()) {
        found.thread = thread->second;
    }
    const auto [at, isNew] = m_lives.try_emplace({task.address, task.thread});
    Life& life = at->second;
    // Numbers that have fallen are those of another life, which has got thread and address again.
    const bool isSame = !isNew && task.handled >= life.handled;
    if (!isSame) {
        life = Life();
        life.changedNsec = snapshot.atNsec;
    } else if (report->sinceSec && *report->sinceSec > 0) {
        AddRates(life, *report->sinceSec, &found);
    }
    if (task.handled != life.handled) {
        life.changedNsec = snapshot.atNsec;
    }
    const std::uint64_t receiver = task.inHand ? task.inHand->receiver : 0;
    const std::uint64_t type = task.inHand ? task.inHand->type : 0;
    const bool isOther =
        task.handled != life.handled || receiver != life.receiver || type != life.type;
    if (!isSame || isOther) {
        life.inHandNsec = snapshot.atNsec;
        life.isFirst = !isSame;
    }
    if (task.inHand) {
        found.inHandSec = Seconds(snapshot.atNsec - life.inHandNsec);
        found.isAtLeast = life.isFirst;
        AddCall(*report, &found);
    }
    found.unchangedSec = Seconds(snapshot.atNsec - life.changedNsec);
    const bool sleepsOnEvents = SleepsOnEvents(found);
    found.sleepsOnEvents =
        isSame && life.sleptOnEvents && sleepsOnEvents && task.handled == life.handled;
    life.handled = task.handled;
    life.refused = found.refused;
    life.receiver = receiver;
    life.type = type;
    life.sleptOnEvents = sleepsOnEvents;
    life.cpuNsec = found.thread ? found.thread->cpuNsec : 0;
    life.glances = 0;
    life.busyGlances = 0;
    life.isSeen = true;
    return found;
}

/// A synchronous send that the handler makes says how long it has run at least.
void History::AddCall(const Report& report, TaskReport* task)
{
    for (const CallReport& call : report.calls) {
        if (call.caller == task->facts.thread && call.sec > *task->inHandSec) {
            task->inHandSec = call.sec;
            task->isAtLeast = true;
        }
    }
}

void History::AddRates(const Life& before, double sinceSec, TaskReport* report)
{
    report->eventsPerSec = static_cast<double>(report->facts.handled - before.handled) / sinceSec;
    // Further queues take their numbers along when they go.
    report->refusedNow = report->refused > before.refused ? report->refused - before.refused : 0;
    if (report->thread) {
        const std::int64_t used = report->thread->cpuNsec - before.cpuNsec;
        report->cpuShare = std::max(0.0, Seconds(used) / sinceSec);
    }
    const bool isBusy = report->facts.inHand.has_value();
    report->busyShare = static_cast<double>(before.busyGlances + (isBusy ? 1 : 0)) /
                        static_cast<double>(before.glances + 1);
}

pid_t ReceiverOf(const SyncCall& call, const Snapshot& snapshot)
{
    for (const TaskFacts& task : snapshot.tasks) {
        if (static_cast<std::uint32_t>(task.handle) == call.receiver && task.thread != 0) {
            return task.thread;
        }
    }
    return 0;
}

double SecondsOf(const SyncCall& call, const Snapshot& snapshot)
{
    const std::uint32_t age = snapshot.tickMsec - call.startTickMsec; // goes round
    return age < (UINT32_C(1) << 31) ? age / 1e3 : 0;                 // it began just now
}

std::string NameOf(pid_t thread, const Snapshot& snapshot)
{
    for (const TaskFacts& task : snapshot.tasks) {
        if (task.thread == thread && thread != 0) {
            return task.name;
        }
    }
    const auto found = snapshot.threads.find(thread);
    if (found != snapshot.threads.end()) {
        return found->second.name + " (thread " + std::to_string(thread) + ")";
    }
    return "a thread that is not known";
}

} // namespace zortop
