#include "Strategy.h"

#include <iterator>

namespace zorsim {

namespace {

constexpr std::uint32_t STICKY_ONE_IN = 16;
/// Short runs need many stalls, and long ones would not get anywhere with them: it differs by seed.
constexpr std::uint32_t STALL_ONE_IN[] = {8, 32, 128};
constexpr std::uint32_t MILLION = 1000000;
constexpr std::uint32_t MAX_CHANGE_POINTS = 16;

/// A thread that nothing else stops goes on for so many decisions at most, or a thread that polls
/// would run for ever.
constexpr std::uint32_t LONGEST_STRETCH = 5000;
/// And where several poll by turns, the one that has the lowest priority of all goes first after so
/// many decisions: it may be what they wait for.
constexpr std::uint64_t LONGEST_WAIT = 20000;

std::uint64_t g_random;
std::uint64_t g_programRandom;
std::uint64_t g_numbers[static_cast<std::uint32_t>(Choice::SIZE)];
std::uint64_t g_changePoints[MAX_CHANGE_POINTS];
std::int64_t g_lowestPriority;
std::uint32_t g_stretch;

std::uint64_t Mixed(std::uint64_t value)
{
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
    value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
    return value ^ (value >> 31);
}

std::uint64_t Next(std::uint64_t* state)
{
    *state += 0x9e3779b97f4a7c15;
    return Mixed(*state);
}

std::uint32_t Below(std::uint32_t count)
{
    return static_cast<std::uint32_t>(((Next(&g_random) >> 32) * count) >> 32);
}

bool Replays()
{
    return g_report->settings.strategy == StrategyKind::REPLAY;
}

std::uint64_t Count(Choice choice)
{
    return ++g_numbers[static_cast<std::uint32_t>(choice)];
}

/// The decision of that number in the list to replay; @p otherwise if it has none. The decisions
/// stand there sorted by choice and number; each kind is sought where it was found last.
std::uint32_t Replayed(Choice choice, std::uint64_t number, std::uint32_t otherwise)
{
    static std::uint64_t s_at[static_cast<std::uint32_t>(Choice::SIZE)];
    const Decision* const list = DecisionsToReplay(g_report);
    const std::uint64_t count = g_report->settings.decisions;
    std::uint64_t& at = s_at[static_cast<std::uint32_t>(choice)];
    while (at < count &&
           (list[at].choice < choice || (list[at].choice == choice && list[at].number < number))) {
        ++at;
    }
    const bool found = at < count && list[at].choice == choice && list[at].number == number;
    return found ? list[at].value : otherwise;
}

void Keep(Choice choice, std::uint64_t number, std::uint32_t value)
{
    const std::uint64_t at = g_report->decisionCount++;
    if (at < MAX_DECISIONS) {
        DecisionsMade(g_report)[at] = {number, choice, value};
    }
}

/// A choice among @p count, @p odds of which of a million are not the first.
std::uint32_t Decide(Choice choice, std::uint32_t count, std::uint32_t odds)
{
    const std::uint64_t number = Count(choice);
    std::uint32_t value = 0;
    if (Replays()) {
        value = Replayed(choice, number, 0);
        value = value < count ? value : 0;
    } else if (odds >= MILLION || Below(MILLION) < odds) {
        value = odds >= MILLION ? Below(count) : 1;
    }
    if (value != 0) {
        Keep(choice, number, value);
    }
    return value;
}

/// The thread that goes on if nothing speaks for another one: the same, or else the next by number.
Thread* Default(Thread* self, Thread* const* runnable, std::uint32_t count)
{
    if (self != nullptr) {
        return self;
    }
    const std::uint32_t last = g_report->current;
    Thread* next = nullptr;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t distance = runnable[i]->id - last - 1; // the last one comes last
        if (next == nullptr || distance < next->id - last - 1) {
            next = runnable[i];
        }
    }
    return next;
}

Thread* ByPriority(Thread* self, Thread* const* runnable, std::uint32_t count, std::uint64_t number)
{
    for (std::uint32_t i = 0; i < g_report->settings.changePoints; ++i) {
        if (g_changePoints[i] == number && self != nullptr) {
            Demote(self);
        }
    }
    Thread* highest = runnable[0];
    Thread* lowest = runnable[0];
    for (std::uint32_t i = 1; i < count; ++i) {
        highest = runnable[i]->priority > highest->priority ? runnable[i] : highest;
        lowest = runnable[i]->priority < lowest->priority ? runnable[i] : lowest;
    }
    if (number % LONGEST_WAIT == 0) {
        lowest->priority = highest->priority + 1;
        return lowest;
    }
    return highest;
}

Thread* ById(Thread* const* runnable, std::uint32_t count, std::uint32_t id, Thread* otherwise)
{
    for (std::uint32_t i = 0; i < count; ++i) {
        if (runnable[i]->id == id) {
            return runnable[i];
        }
    }
    return otherwise;
}

Thread* ByStrategy(Thread* self, Thread* const* runnable, std::uint32_t count, std::uint64_t number,
                   Thread* otherwise)
{
    switch (g_report->settings.strategy) {
        case StrategyKind::STICKY:
            if (self != nullptr && g_stretch < LONGEST_STRETCH && Below(STICKY_ONE_IN) != 0) {
                return self;
            }
            return runnable[Below(count)];
        case StrategyKind::PCT:
            return ByPriority(self, runnable, count, number);
        case StrategyKind::REPLAY:
            return ById(runnable, count, Replayed(Choice::THREAD, number, otherwise->id),
                        otherwise);
        default:
            return runnable[Below(count)];
    }
}

} // namespace

void InitStrategy()
{
    const Settings& settings = g_report->settings;
    g_random = Mixed(settings.seed + 1);
    g_programRandom = Mixed(settings.seed ^ 0x5a5a5a5a5a5a5a5a);
    if (settings.strategy == StrategyKind::PCT) {
        const std::uint64_t length = settings.length > 0 ? settings.length : 1000;
        for (std::uint32_t i = 0; i < settings.changePoints && i < MAX_CHANGE_POINTS; ++i) {
            g_changePoints[i] = 1 + Next(&g_random) % length;
        }
    }
}

Thread* DecideThread(Thread* self, Thread* const* runnable, std::uint32_t count)
{
    if (count == 1) {
        g_stretch = 0;
        return runnable[0];
    }
    const std::uint64_t number = Count(Choice::THREAD);
    g_report->choices = number;
    if (self != nullptr && g_stretch >= LONGEST_STRETCH) {
        Demote(self);
    }
    const bool goesOn =
        self != nullptr && self->operation != Operation::YIELD && g_stretch < LONGEST_STRETCH;
    Thread* const otherwise = Default(goesOn ? self : nullptr, runnable, count);
    Thread* const next = ByStrategy(self, runnable, count, number, otherwise);
    if (next != otherwise) {
        Keep(Choice::THREAD, number, next->id);
    }
    g_stretch = next == self ? g_stretch + 1 : 0;
    return next;
}

std::uint32_t DecideWaiter(std::uint32_t count)
{
    return count > 1 ? Decide(Choice::WAITER, count, MILLION) : 0;
}

bool DecideStall()
{
    const std::uint64_t which = g_report->settings.seed / 3 % std::size(STALL_ONE_IN);
    return Decide(Choice::STALL, 2, MILLION / STALL_ONE_IN[which]) != 0;
}

bool DecideSpurious()
{
    const std::uint32_t odds = g_report->settings.spuriousPerMillion;
    return odds != 0 && Decide(Choice::SPURIOUS, 2, odds < MILLION ? odds : MILLION - 1) != 0;
}

std::uint32_t DecideNumber(std::uint32_t count)
{
    return count > 1 ? Decide(Choice::NUMBER, count, MILLION) : 0;
}

void Demote(Thread* thread)
{
    thread->priority = --g_lowestPriority;
}

std::int64_t NewPriority()
{
    // Above all that were demoted.
    return g_report->settings.strategy == StrategyKind::PCT
               ? static_cast<std::int64_t>(Next(&g_random) >> 2)
               : 0;
}

std::uint64_t ProgramRandom()
{
    return Next(&g_programRandom);
}

} // namespace zorsim
