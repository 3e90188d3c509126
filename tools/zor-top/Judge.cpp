#include "Judge.h"

#include <string>

#include "Words.h"

namespace zortop {
namespace {

constexpr double LONG_SEC = 1; // for a handler

std::string Path(const Circle& circle)
{
    std::string path;
    for (const std::string& name : circle.names) {
        path += name + " -> ";
    }
    return path + circle.names.front();
}

std::string Events(std::uint64_t number)
{
    return std::to_string(number) + (number == 1 ? " event" : " events");
}

void JudgeHandler(const TaskReport& task, const Report& report, std::vector<Notice>* notices)
{
    // A paused task's thread is in the handler of the pause, as it should be.
    if (task.inHandSec && *task.inHandSec > LONG_SEC && !task.facts.isPaused) {
        notices->push_back(
            {Notice::HANDLER, task.facts.name + " has been " + StateWords(task, report)});
    }
}

void JudgeQueues(const TaskReport& task, const Report& report, std::vector<Notice>* notices)
{
    for (std::size_t i = 0; i < task.facts.queues.size(); ++i) {
        const QueueFacts& queue = task.facts.queues[i];
        if (queue.depth * 4 <= report.capacity * 3) {
            continue;
        }
        const std::string which = task.facts.queues.size() > 1
                                      ? "queue " + std::to_string(i) + " of "
                                      : std::string("the queue of ");
        notices->push_back({Notice::QUEUE, which + task.facts.name + " is nearly full: " +
                                               std::to_string(queue.depth) + " of " +
                                               std::to_string(report.capacity) + " events"});
    }
}

void JudgeRefusals(const TaskReport& task, const Report& /*report*/, std::vector<Notice>* notices)
{
    if (task.refusedNow != 0) {
        notices->push_back({Notice::REFUSED, task.facts.name + " refused " +
                                                 Events(task.refusedNow) +
                                                 " since the last look: its queue was full"});
    }
}

void JudgeWaiting(const TaskReport& task, const Report& report, std::vector<Notice>* notices)
{
    if (task.sleepsOnEvents || (task.facts.isPaused && task.depth != 0)) {
        notices->push_back(
            {Notice::WAITING, Events(task.depth) + (task.depth == 1 ? " waits" : " wait") +
                                  " while " + task.facts.name + " is " + StateWords(task, report)});
    }
}

void JudgeSilence(const TaskReport& task, const Report& /*report*/, std::vector<Notice>* notices)
{
    const auto limit = static_cast<double>(task.facts.watchdogSec);
    if (task.facts.watchdogSec != 0 && task.facts.isRunning && !task.facts.isPaused &&
        task.unchangedSec > limit) {
        notices->push_back({Notice::SILENT, "nobody has heard of " + task.facts.name + " for " +
                                                Duration(task.unchangedSec) + ", longer than its " +
                                                Duration(limit) + " of watchdog time"});
    }
}

} // namespace

std::vector<Notice> Judge(const Report& report)
{
    std::vector<Notice> notices;
    for (const Circle& circle : report.circles) {
        notices.push_back({Notice::DEADLOCK, "deadlock: " + Path(circle)});
    }
    for (const auto judge :
         {JudgeHandler, JudgeQueues, JudgeRefusals, JudgeWaiting, JudgeSilence}) {
        for (const TaskReport& task : report.tasks) {
            judge(task, report, &notices);
        }
    }
    return notices;
}

} // namespace zortop
