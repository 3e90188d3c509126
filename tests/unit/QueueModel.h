#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace zortest {

/// What tells the events of a model from each other.
struct ModelEvent
{
    std::uint32_t number = 0;
    int receiver = 0;
    unsigned long type = 0;
    bool sync = false;
    bool attachment = false;
    std::string appName;
};

/// A receiver, and a type if it matters.
struct ModelMatch
{
    int receiver;
    std::optional<unsigned long> type;

    bool operator()(const ModelEvent& event) const
    {
        return event.receiver == receiver && (!type || event.type == *type);
    }
};

/// What an event queue is meant to do: the oldest event in front, and the semaphore as a number.
class QueueModel
{
 public:
    bool Put(const ModelEvent& event, bool priority)
    {
        if (priority ? m_events.size() > 255 : m_events.size() + 16 > 255) {
            return false;
        }
        if (priority) {
            m_events.push_front(event);
        } else {
            m_events.push_back(event);
        }
        ++m_units;
        return true;
    }

    /// Whether a get that waits for ever would come back.
    bool GetReturns() const { return m_units > 0 && !m_events.empty(); }

    std::optional<ModelEvent> GetSync(bool skipSync)
    {
        while (Try()) {
            if (!m_events.empty()) {
                return GetSyncQData(skipSync);
            }
        }
        return std::nullopt;
    }

    std::optional<ModelEvent> GetSyncQData(bool skipSync)
    {
        if (m_events.empty() || (skipSync && m_events.front().sync)) {
            return std::nullopt;
        }
        return Remove(m_events.begin());
    }

    std::optional<ModelEvent> Get(const ModelMatch& match)
    {
        const auto found =
            std::find_if(m_events.begin(), m_events.end(),
                         [&](const ModelEvent& event) { return !event.sync && match(event); });
        if (found == m_events.end()) {
            return std::nullopt;
        }
        Try();
        return Remove(found);
    }

    unsigned int Find(const ModelMatch& match) const
    {
        return static_cast<unsigned int>(std::count_if(m_events.begin(), m_events.end(), match));
    }

    /// @return the events removed, oldest first
    std::vector<ModelEvent> Delete(const ModelMatch& match, std::size_t maxCount)
    {
        std::vector<ModelEvent> removed;
        std::deque<ModelEvent> kept;
        for (const ModelEvent& event : m_events) {
            if (removed.size() < maxCount && match(event)) {
                removed.push_back(event);
                Try();
            } else {
                kept.push_back(event);
            }
        }
        m_events = std::move(kept);
        return removed;
    }

    void Give() { ++m_units; }

    bool Try()
    {
        if (m_units == 0) {
            return false;
        }
        --m_units;
        return true;
    }

    const std::deque<ModelEvent>& Events() const { return m_events; }
    int Units() const { return m_units; }

 private:
    ModelEvent Remove(std::deque<ModelEvent>::const_iterator place)
    {
        ModelEvent event = *place;
        m_events.erase(place);
        return event;
    }

    std::deque<ModelEvent> m_events;
    int m_units = 0;
};

} // namespace zortest
