#include "Selection.h"

#include <algorithm>
#include <set>
#include <vector>

namespace zorrecord {

namespace {

constexpr double NSEC_PER_SEC = 1e9;

double SecondsSinceStart(const Recording& recording, std::uint64_t nsec)
{
    // Records of a damaged file may be from before the beginning.
    return static_cast<double>(static_cast<std::int64_t>(nsec - recording.startMonotonicNsec)) /
           NSEC_PER_SEC;
}

bool Overlaps(const Selection& selection, const Recording& recording, std::uint64_t begin,
              std::uint64_t end)
{
    const double from = SecondsSinceStart(recording, begin);
    const double to = SecondsSinceStart(recording, end);
    if (selection.last && to < SecondsSinceStart(recording, EndOf(recording)) - *selection.last) {
        return false;
    }
    return (!selection.since || to >= *selection.since) &&
           (!selection.until || from <= *selection.until);
}

bool IsThread(const std::string& wanted, const Record& record)
{
    return wanted.empty() || wanted == record.threadName || wanted == std::to_string(record.thread);
}

} // namespace

bool Selection::IsEverything() const
{
    return thread.empty() && task.empty() && !type && !unfinished && !since && !until && !last;
}

bool Selection::Has(const Recording& recording, const TaskNames& names, const Call& call) const
{
    const bool isOfTask =
        task.empty() || task == call.record->threadName || task == names.ReceiverOf(call);
    const bool isOfType = !type || (call.event && call.event->type == *type);
    return isOfTask && isOfType && IsThread(thread, *call.record) &&
           !(unfinished && call.finished) &&
           Overlaps(*this, recording, call.beginNsec, call.endNsec);
}

std::uint64_t EndOf(const Recording& recording)
{
    std::uint64_t end = recording.endNsec;
    for (const Record& record : recording.records) {
        end = std::max(end, record.timeNsec);
    }
    return end;
}

Recording Select(const Recording& recording, const Selection& selection)
{
    Recording selected = recording;
    if (selection.IsEverything()) {
        return selected;
    }
    const std::vector<Call> calls = CallsOf(recording);
    const TaskNames names(calls);
    std::set<const Record*> known;
    std::set<const Record*> wanted;
    for (const Call& call : calls) {
        const bool has = selection.Has(recording, names, call);
        for (const Record* record : {call.record, call.after}) {
            if (record != nullptr) {
                known.insert(record);
                if (has) {
                    wanted.insert(record);
                }
            }
        }
    }
    const bool asksForCalls = selection.type || selection.unfinished || !selection.task.empty();
    selected.records.clear();
    for (const Record& record : recording.records) {
        const bool isWanted =
            known.count(&record) != 0
                ? wanted.count(&record) != 0
                : !asksForCalls && IsThread(selection.thread, record) &&
                      Overlaps(selection, recording, record.timeNsec, record.timeNsec);
        if (isWanted) {
            selected.records.push_back(record);
        }
    }
    selected.endNsec = EndOf(recording);
    return selected;
}

} // namespace zorrecord
