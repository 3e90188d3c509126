#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// @file
/// What a timers scheduler does, written down plainly.

namespace zortest {

/// A scheduler without a thread: what its thread would do is done at once. Times are nanoseconds
/// since an origin; only the caller lets them pass.
class TimersModel
{
 public:
    static constexpr std::int64_t MILLISECOND = 1000000;
    static constexpr std::uint32_t ENDLESS = 0xFFFFFFFF;
    static constexpr std::size_t QUEUE_LIMIT = 240; ///< firings beyond it are lost

    enum State : std::uint32_t
    {
        DESTROYED = 0,
        RESET = 1,
        RUNNING = 2,
        EXPIRED = 3,
        CREATED = 4,
        PAUSED = 5,
        RESUMED = 6,
    };

    struct Timer
    {
        int receiver;
        std::uint32_t mark; ///< tells one timer from the next in the same slot
        std::int64_t interval;
        std::uint32_t fired;
        std::uint32_t count;
        std::uint32_t state;
    };

    struct Firing
    {
        int receiver;
        std::uint32_t mark;
        std::uint32_t count;
        std::uint32_t index;
    };

    /// Due time and id, in the order of firing.
    using Due = std::pair<std::int64_t, std::size_t>;

    std::size_t Create(std::int64_t interval, std::uint32_t count, int receiver, std::uint32_t mark)
    {
        std::size_t id = 0;
        while (id < timers.size() && timers[id].state != DESTROYED) {
            ++id;
        }
        if (id == timers.size()) {
            timers.push_back({});
        }
        timers[id] = {receiver, mark, AtLeastTen(interval), 0, count, EXPIRED};
        bool notify = false;
        if (count != 0) {
            timers[id].state = CREATED;
            notify = Schedule(id, now + timers[id].interval);
        }
        line = Text("Id[%zu] WakedUp[%d] New timer created!", id, notify);
        if (!std::exchange(m_started, true) || notify) {
            Wake();
        }
        return id;
    }

    bool Reset(std::size_t id, std::int64_t interval, std::uint32_t count)
    {
        if (!Exists(id)) {
            return false;
        }
        Timer& timer = timers[id];
        if (timer.state == DESTROYED) {
            line = Text("Id[%zu] Timer is destroyed! Can't reset!", id);
            return false;
        }
        timer.fired = 0;
        timer.interval = AtLeastTen(interval);
        timer.count = count;
        const int receiver = timer.receiver;
        queue.erase(
            std::remove_if(queue.begin(), queue.end(),
                           [receiver](const Firing& one) { return one.receiver == receiver; }),
            queue.end());
        bool notify = false;
        if (timer.state == PAUSED) {
            rests.erase(id);
        } else {
            notify = IsEarliest(id);
            Unschedule(id);
            timer.state = count == 0 ? EXPIRED : RESET;
            if (count != 0 && Schedule(id, now + timer.interval)) {
                notify = true;
            }
        }
        line = Text("Id[%zu] Interv[%lld] Count[%u] WakedUp[%d] Timer reseted!", id,
                    static_cast<long long>(timer.interval / MILLISECOND), count, notify);
        if (notify) {
            Wake();
        }
        return true;
    }

    bool Pause(std::size_t id)
    {
        if (!Exists(id)) {
            return false;
        }
        Timer& timer = timers[id];
        if (timer.state == DESTROYED || timer.state == PAUSED) {
            line = Text("Id[%zu] State[%u] Wrong state to pause!", id, timer.state);
            return false;
        }
        if (timer.state != EXPIRED) {
            rests[id] = (DueOf(id) - now) / MILLISECOND;
            Unschedule(id);
        }
        timer.state = PAUSED;
        line = Text("Id[%zu] Timer paused!", id);
        return true;
    }

    bool Resume(std::size_t id)
    {
        if (!Exists(id)) {
            return false;
        }
        Timer& timer = timers[id];
        if (timer.state != PAUSED) {
            line = Text("Id[%zu] State[%u] Wrong state to resume!", id, timer.state);
            return false;
        }
        bool notify = false;
        if (rests.count(id) == 0 && timer.fired >= timer.count) {
            timer.state = EXPIRED;
        } else {
            const std::int64_t rest =
                rests.count(id) != 0 ? rests[id] * MILLISECOND : timer.interval;
            rests.erase(id);
            timer.state = RESUMED;
            const bool wasEmpty = schedule.empty();
            notify = Schedule(id, now + rest) || wasEmpty;
        }
        line = Text("Id[%zu] WakedUp[%d] Timer resumed!", id, notify);
        if (notify) {
            Wake();
        }
        return true;
    }

    bool Destroy(std::size_t id)
    {
        if (!Exists(id)) {
            return false;
        }
        if (timers[id].state == DESTROYED) {
            line = Text("Id[%zu] Timer already destroyed!", id);
            return false;
        }
        const bool notify = IsEarliest(id);
        rests.erase(id);
        Unschedule(id);
        timers[id].state = DESTROYED;
        line = Text("Id[%zu] WakedUp[%d] Timer destroyed!", id, notify);
        if (notify) {
            Wake();
        }
        return true;
    }

    void Advance(std::int64_t time)
    {
        now += time;
        line.clear();
        if (wakeTime && *wakeTime <= now) {
            Work();
        }
    }

    std::vector<Timer> timers;
    std::vector<Due> schedule; ///< sorted
    std::map<std::size_t, std::int64_t> rests;
    std::deque<Firing> queue;
    std::optional<std::int64_t> wakeTime; ///< when the thread wakes by itself
    bool idle = false;
    std::int64_t now = 0;
    std::string line;                     ///< what the last operation has logged
    std::vector<std::string> threadLines; ///< what the thread has logged; the caller clears it

 private:
    template <typename... Args>
    static std::string Text(const char* format, Args... args)
    {
        char text[128];
        snprintf(text, sizeof(text), format, args...);
        return text;
    }

    static std::int64_t AtLeastTen(std::int64_t milliseconds)
    {
        return std::max<std::int64_t>(milliseconds, 10) * MILLISECOND;
    }

    bool Exists(std::size_t id)
    {
        if (id < timers.size()) {
            return true;
        }
        line = Text("Id[%zu] Timer not found!", id);
        return false;
    }

    bool IsEarliest(std::size_t id) const
    {
        return !schedule.empty() && schedule.front().second == id;
    }

    std::int64_t DueOf(std::size_t id) const
    {
        return std::find_if(schedule.begin(), schedule.end(),
                            [id](const Due& due) { return due.second == id; })
            ->first;
    }

    /// @return whether the thread must hear of it
    bool Schedule(std::size_t id, std::int64_t due)
    {
        const Due entry(due, id);
        const bool notify = idle || (!schedule.empty() && entry < schedule.front());
        schedule.insert(std::upper_bound(schedule.begin(), schedule.end(), entry), entry);
        idle = false;
        return notify;
    }

    void Unschedule(std::size_t id)
    {
        schedule.erase(std::remove_if(schedule.begin(), schedule.end(),
                                      [id](const Due& due) { return due.second == id; }),
                       schedule.end());
    }

    /// The thread is notified, or begins.
    void Wake()
    {
        if (!idle) {
            Work();
        }
    }

    void Work()
    {
        while (!schedule.empty() && schedule.front().first <= now) {
            Fire();
        }
        idle = schedule.empty();
        wakeTime =
            schedule.empty() ? std::nullopt : std::optional<std::int64_t>(schedule.front().first);
    }

    void Fire()
    {
        const auto [due, id] = schedule.front();
        Timer& timer = timers[id];
        if ((now - due) / MILLISECOND >= 2 * (timer.interval / MILLISECOND)) {
            threadLines.push_back(Text("Id[%zu] Can't keep up!", id));
        }
        threadLines.push_back(Text("Id[%zu] Timer fire!", id));
        if (queue.size() < QUEUE_LIMIT) {
            queue.push_back({timer.receiver, timer.mark, timer.count, timer.fired});
        }
        ++timer.fired;
        Unschedule(id);
        const bool finished = timer.fired >= timer.count && timer.count != ENDLESS;
        timer.state = finished ? EXPIRED : RUNNING;
        if (!finished) {
            Schedule(id, due + timer.interval);
        }
    }

    bool m_started = false;
};

} // namespace zortest
