#include "Path.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>
#include <utility>

#include "Flows.h"
#include "TaskNames.h"
#include "TextPrint.h"

namespace zorrecord {

namespace {

/// Part of the whole below which a stretch is not told of.
constexpr std::uint64_t LEAST_PART = 1000;

/// Deeper nesting is told of as one stretch: a damaged file may nest without end.
constexpr int GREATEST_DEPTH = 64;

struct Interval
{
    std::uint64_t Size() const { return endNsec - beginNsec; }

    std::uint64_t beginNsec;
    std::uint64_t endNsec;
};

std::string TypeOf(const Call& call, const TypeNames& types)
{
    return call.event ? "type " + types.TextOf(call.event->type) : "no event";
}

/// Follows one call into the calls that it waited for.
class Explanation
{
 public:
    Explanation(const std::vector<Call>& calls, const TypeNames& types)
        : m_calls(calls), m_names(calls), m_types(types)
    {
        for (const Flow& flow : FlowsOf(calls)) {
            m_handlingOf[flow.send] = flow.handling;
        }
        for (std::size_t i = 0; i < calls.size(); ++i) {
            if (calls[i].caller != Call::NONE) {
                m_inside[calls[i].caller].push_back(i);
            } else if (calls[i].shape == Shape::HANDLING) {
                m_onThread[calls[i].record->threadName].push_back(i);
            }
        }
    }

    std::vector<Stretch> Of(std::size_t index)
    {
        const Call& call = m_calls[index];
        const Interval whole = {call.beginNsec, call.endNsec};
        m_least = whole.Size() / LEAST_PART;
        Explain(index, whole, 0);
        return std::move(m_path);
    }

 private:
    bool Counts(const Interval& part) const
    {
        return part.endNsec > part.beginNsec && part.Size() >= m_least;
    }

    void Add(const Interval& part, int depth, const std::string& thread, const std::string& what)
    {
        if (part.endNsec > part.beginNsec) {
            m_path.push_back({part.beginNsec, part.endNsec, depth, thread, what});
        }
    }

    /// What the part of a call went into.
    void Explain(std::size_t index, const Interval& part, int depth)
    {
        const Call& call = m_calls[index];
        const bool isAgain = std::find(m_within.begin(), m_within.end(), index) != m_within.end();
        if (isAgain || depth > GREATEST_DEPTH) {
            Add(part, depth, call.record->threadName,
                isAgain ? "a circle: waits for a call that waits for this one" : "and so on");
            return;
        }
        m_within.push_back(index);
        if (call.shape == Shape::SEND && call.sync) {
            ExplainSend(index, part, depth);
        } else {
            ExplainWork(index, part, depth);
        }
        m_within.pop_back();
    }

    /// Work of a thread, between the calls inside.
    void ExplainWork(std::size_t index, const Interval& part, int depth)
    {
        const Call& call = m_calls[index];
        const std::string what = (call.shape == Shape::HANDLING ? "handles " : "sends ") +
                                 TypeOf(call, m_types) + (call.finished ? "" : ", not finished");
        Parts(m_inside[index], part, depth, call.record->threadName, what);
    }

    /// The parts of an interval that calls of one thread took, and the thread's own between them.
    ///
    /// @param calls  in the order of their times, none inside another
    void Parts(const std::vector<std::size_t>& calls, const Interval& part, int depth,
               const std::string& thread, const std::string& between)
    {
        std::uint64_t at = part.beginNsec;
        auto next = std::partition_point(calls.begin(), calls.end(), [&](std::size_t inner) {
            return m_calls[inner].endNsec <= part.beginNsec;
        });
        for (; next != calls.end() && m_calls[*next].beginNsec < part.endNsec; ++next) {
            const std::size_t inner = *next;
            const Interval taken = {std::max(m_calls[inner].beginNsec, at),
                                    std::min(m_calls[inner].endNsec, part.endNsec)};
            if (!Counts(taken)) {
                continue;
            }
            Add({at, taken.beginNsec}, depth, thread, between);
            Explain(inner, taken, depth + 1);
            at = taken.endNsec;
        }
        Add({at, part.endNsec}, depth, thread, between);
    }

    void ExplainSend(std::size_t index, const Interval& part, int depth)
    {
        const Call& send = m_calls[index];
        const auto found = m_handlingOf.find(index);
        const std::string& task = found != m_handlingOf.end()
                                      ? m_calls[found->second].record->threadName
                                      : m_names.ReceiverOf(send);
        const std::string receiver = task.empty() ? "a task without records" : task;
        std::uint64_t handled = part.endNsec; // if it has not been yet
        std::uint64_t answered = part.endNsec;
        if (found != m_handlingOf.end()) {
            const Call& handling = m_calls[found->second];
            handled = std::clamp(handling.beginNsec, part.beginNsec, part.endNsec);
            answered = std::clamp(handling.endNsec, handled, part.endNsec);
        }
        Parts(m_onThread[task], {part.beginNsec, handled}, depth, send.record->threadName,
              TypeOf(send, m_types) + " waits in the queue of " + receiver);
        if (found != m_handlingOf.end()) {
            Explain(found->second, {handled, answered}, depth + 1);
        }
        Add({answered, part.endNsec}, depth, send.record->threadName,
            "the reply from " + receiver + " is on its way");
    }

    const std::vector<Call>& m_calls;
    const TaskNames m_names;
    const TypeNames& m_types;
    std::map<std::size_t, std::size_t> m_handlingOf;          ///< of a send
    std::map<std::size_t, std::vector<std::size_t>> m_inside; ///< of a call, directly
    std::map<std::string, std::vector<std::size_t>> m_onThread;
    std::vector<std::size_t> m_within; ///< the calls that are being explained
    std::uint64_t m_least = 0;
    std::vector<Stretch> m_path;
};

void PrintTable(const Recording& recording, const Call& call, const TypeNames& types,
                const std::vector<Stretch>& path, std::ostream& out)
{
    const std::uint64_t start = recording.startMonotonicNsec;
    const double whole = static_cast<double>(call.endNsec - call.beginNsec);
    out << Escaped(call.record->threadName) << '(' << call.record->thread << ") "
        << (call.shape == Shape::HANDLING ? "handled " : "sent ") << Escaped(TypeOf(call, types))
        << " for " << Seconds(static_cast<std::int64_t>(call.endNsec - call.beginNsec)) << " s"
        << (call.finished ? "" : " and has not finished") << ":\n"
        << "        from, s     duration, ms  share\n";
    for (const Stretch& stretch : path) {
        char numbers[80];
        const double size = static_cast<double>(stretch.endNsec - stretch.beginNsec);
        std::snprintf(numbers, sizeof(numbers), "%15s %16.6f %5.1f %%  ",
                      Seconds(static_cast<std::int64_t>(stretch.beginNsec - start)).c_str(),
                      size / 1e6, whole == 0 ? 100.0 : 100 * size / whole);
        out << numbers << std::string(static_cast<std::size_t>(stretch.depth) * 2, ' ')
            << Escaped(stretch.thread) << ": " << Escaped(stretch.what) << '\n';
    }
}

} // namespace

nlohmann::json JsonOf(const Recording& recording, const Call& call, const TypeNames& types,
                      const std::vector<Stretch>& path)
{
    const std::uint64_t start = recording.startMonotonicNsec;
    nlohmann::json stretches = nlohmann::json::array();
    for (const Stretch& stretch : path) {
        stretches.push_back({{"from_ns", stretch.beginNsec - start},
                             {"duration_ns", stretch.endNsec - stretch.beginNsec},
                             {"depth", stretch.depth},
                             {"thread", stretch.thread},
                             {"what", stretch.what}});
    }
    nlohmann::json object = {{"thread", call.record->threadName},
                             {"thread_id", call.record->thread},
                             {"call", call.shape == Shape::HANDLING ? "handling" : "send"},
                             {"from_ns", call.beginNsec - start},
                             {"duration_ns", call.endNsec - call.beginNsec},
                             {"finished", call.finished},
                             {"path", stretches}};
    if (call.event) {
        object["type"] = call.event->type;
        if (const std::string& name = types.NameOf(call.event->type); !name.empty()) {
            object["type_name"] = name;
        }
    }
    return object;
}

std::vector<Stretch> PathOf(const std::vector<Call>& calls, const TypeNames& types,
                            std::size_t call)
{
    return Explanation(calls, types).Of(call);
}

std::size_t LongestCall(const Recording& recording, const std::vector<Call>& calls,
                        const Selection& selection)
{
    const TaskNames names(calls);
    std::size_t longest = Call::NONE;
    for (std::size_t i = 0; i < calls.size(); ++i) {
        const Call& call = calls[i];
        const bool isOne =
            call.shape == Shape::HANDLING || (call.shape == Shape::SEND && call.sync);
        if (!isOne || !selection.Has(recording, names, call)) {
            continue;
        }
        const auto size = [&calls](std::size_t index) {
            return calls[index].endNsec - calls[index].beginNsec;
        };
        if (longest == Call::NONE || size(i) > size(longest)) {
            longest = i;
        }
    }
    return longest;
}

void PrintPath(const Recording& recording, const Selection& selection, const TypeNames& types,
               bool asJson, std::ostream& out)
{
    const std::vector<Call> calls = CallsOf(recording);
    const std::size_t longest = LongestCall(recording, calls, selection);
    if (longest == Call::NONE) {
        throw std::runtime_error(NO_SUCH_CALL);
    }
    const std::vector<Stretch> path = PathOf(calls, types, longest);
    if (asJson) {
        out << JsonOf(recording, calls[longest], types, path)
                   .dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
            << '\n';
    } else {
        PrintTable(recording, calls[longest], types, path, out);
    }
}

} // namespace zorrecord
