#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <set>

#include "History.h"

namespace zortop {
namespace {

/// For whom a thread waits.
struct Edge
{
    pid_t holder = 0;
    std::string what;
    double sec = 0; ///< negative if it is not known
};

/// A thread that waits for a lock does so now, whatever calls it is in; of several calls the one to
/// another task is the inner one.
std::optional<Edge> EdgeOf(pid_t thread, const Snapshot& snapshot)
{
    const auto facts = snapshot.threads.find(thread);
    if (facts == snapshot.threads.end() || facts->second.wait.kind == Wait::NOTHING) {
        return std::nullopt;
    }
    const Wait& wait = facts->second.wait;
    if (wait.kind == Wait::LOCK) {
        return wait.holder != 0 ? std::optional<Edge>({wait.holder, wait.what, -1}) : std::nullopt;
    }
    if (wait.kind == Wait::EVENTS) {
        return std::nullopt;
    }
    std::optional<Edge> found;
    for (const SyncCall& call : snapshot.calls) {
        const pid_t receiver = ReceiverOf(call, snapshot);
        if (call.caller == thread && receiver != 0 && receiver != thread) {
            found = Edge{receiver, call.receiverName, SecondsOf(call, snapshot)};
        }
    }
    return found;
}

std::string Words(pid_t thread, const Edge& edge, const Snapshot& snapshot)
{
    const std::string name = NameOf(thread, snapshot);
    if (edge.sec < 0) {
        return name + ": wants " + edge.what + ", held by " + NameOf(edge.holder, snapshot);
    }
    char text[32];
    snprintf(text, sizeof(text), ", %.1f s", edge.sec);
    return name + ": synchronous send to " + edge.what + text;
}

/// The place of a thread's task among the tasks; behind them if it has none.
std::size_t PlaceOf(pid_t thread, const Snapshot& snapshot)
{
    std::size_t place = 0;
    while (place < snapshot.tasks.size() && snapshot.tasks[place].thread != thread) {
        ++place;
    }
    return place;
}

/// Whether a thread has not run between two looks, at which it slept.
bool HasSlept(pid_t thread, const Snapshot& before, const Snapshot& now)
{
    const auto then = before.threads.find(thread);
    const auto later = now.threads.find(thread);
    return then != before.threads.end() && later != now.threads.end() &&
           then->second.turns == later->second.turns &&
           then->second.cpuNsec == later->second.cpuNsec;
}

} // namespace

std::vector<Circle> FindCircles(const Snapshot& before, const Snapshot& now)
{
    std::map<pid_t, Edge> edges;
    for (const auto& [thread, facts] : now.threads) {
        const auto edge = EdgeOf(thread, now);
        const auto earlier = EdgeOf(thread, before);
        if (edge && earlier && edge->holder == earlier->holder && edge->what == earlier->what &&
            HasSlept(thread, before, now)) {
            edges[thread] = *edge;
        }
    }
    std::vector<Circle> circles;
    std::set<pid_t> visited;
    for (const auto& [start, unused] : edges) {
        std::vector<pid_t> path;
        pid_t at = start;
        while (edges.count(at) != 0 && visited.insert(at).second) {
            path.push_back(at);
            at = edges[at].holder;
        }
        const auto begin = std::find(path.begin(), path.end(), at);
        if (begin == path.end()) {
            continue;
        }
        const auto first = std::min_element(
            begin, path.end(), [&](pid_t a, pid_t b) { return PlaceOf(a, now) < PlaceOf(b, now); });
        std::rotate(begin, first, path.end()); // it is told from the oldest task on
        Circle circle;
        for (auto thread = begin; thread != path.end(); ++thread) {
            circle.threads.push_back(*thread);
            circle.names.push_back(NameOf(*thread, now));
            circle.waits.push_back(Words(*thread, edges[*thread], now));
        }
        circles.push_back(circle);
    }
    return circles;
}

} // namespace zortop
