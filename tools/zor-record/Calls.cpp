#include "Calls.h"

#include <algorithm>
#include <map>
#include <utility>

namespace zorrecord {

namespace {

/// The item of a record after a call.
constexpr std::size_t RESULT_ITEM = 0;

/// Items of a record before a send.
constexpr std::size_t SYNC_ITEM = 1;
constexpr std::size_t PRIORITY_ITEM = 2;
constexpr std::size_t QUEUE_ITEM = 3;

bool HasType(const Location& location, std::size_t argument, const char* type)
{
    return argument >= location.arguments.size() || location.arguments[argument].type == type;
}

std::uint64_t NumberAt(const Record& record, std::size_t item)
{
    return item < record.items.size() ? record.items[item].Number() : 0;
}

Call Begin(const Recording& recording, const Record& record)
{
    Call call;
    call.record = &record;
    call.location = recording.LocationOf(record);
    call.shape = call.location != nullptr ? ShapeOf(*call.location) : Shape::OTHER;
    call.beginNsec = record.timeNsec;
    if (call.shape != Shape::OTHER && !record.items.empty()) {
        call.event = EventFrom(record.items.front());
    }
    if (call.shape == Shape::SEND) {
        call.sync = NumberAt(record, SYNC_ITEM) != 0;
        call.priority = NumberAt(record, PRIORITY_ITEM) != 0;
        call.queue = static_cast<unsigned int>(NumberAt(record, QUEUE_ITEM));
    }
    return call;
}

void End(Call* call, const Record& record)
{
    call->finished = true;
    call->after = &record;
    call->endNsec = std::max(call->beginNsec, record.timeNsec);
    if (record.items.size() > RESULT_ITEM) {
        call->result = record.items[RESULT_ITEM].Number() != 0;
    }
    call->cpuNsec = record.cpuNsec;
}

/// Follows the threads of a recording through their calls.
class Pairing
{
 public:
    explicit Pairing(const Recording& recording) : m_recording(recording)
    {
        for (const Record& record : recording.records) {
            std::vector<std::size_t>& open = m_open[{record.session, record.thread}];
            if (record.kind == Record::BEFORE_CALL) {
                AddCall(record, &open);
            } else if (record.kind == Record::AFTER_CALL) {
                EndCall(record, &open);
            }
            m_lastNsec = std::max(m_lastNsec, record.timeNsec);
        }
        m_lastNsec = std::max(m_lastNsec, recording.endNsec);
        for (const auto& [thread, open] : m_open) {
            for (const std::size_t call : open) {
                m_calls[call].endNsec = m_lastNsec;
            }
        }
    }

    std::vector<Call> TakeCalls() { return std::move(m_calls); }

 private:
    void AddCall(const Record& record, std::vector<std::size_t>* open)
    {
        m_calls.push_back(Begin(m_recording, record));
        if (!open->empty()) {
            m_calls.back().caller = open->back();
        }
        open->push_back(m_calls.size() - 1);
    }

    void EndCall(const Record& record, std::vector<std::size_t>* open)
    {
        const auto found = std::find_if(open->rbegin(), open->rend(), [&](std::size_t call) {
            return m_calls[call].record->location == record.location;
        });
        if (found == open->rend()) {
            return; // the ring has overwritten the beginning
        }
        // Exceptions have ended the calls inside this one.
        const std::size_t ended = *found;
        for (; open->back() != ended; open->pop_back()) {
            m_calls[open->back()].endNsec =
                std::max(m_calls[open->back()].beginNsec, record.timeNsec);
        }
        End(&m_calls[ended], record);
        open->pop_back();
    }

    const Recording& m_recording;
    std::vector<Call> m_calls;
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<std::size_t>> m_open;
    std::uint64_t m_lastNsec = 0;
};

} // namespace

Shape ShapeOf(const Location& location)
{
    const std::size_t count = location.arguments.size();
    if (count == 0 || !HasType(location, 0, EVENT_TYPE)) {
        return Shape::OTHER;
    }
    if (count == 1) {
        return Shape::HANDLING;
    }
    const bool isSend = (count == 3 || count == 4) && HasType(location, SYNC_ITEM, "bool") &&
                        HasType(location, PRIORITY_ITEM, "bool") &&
                        HasType(location, QUEUE_ITEM, "unsigned int");
    return isSend ? Shape::SEND : Shape::OTHER;
}

std::vector<Call> CallsOf(const Recording& recording)
{
    return Pairing(recording).TakeCalls();
}

} // namespace zorrecord
