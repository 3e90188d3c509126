#include "ServicesTask.h"

#include <cstdio>

#include "Log.h"

namespace tsmon {

namespace {

constexpr std::chrono::milliseconds IDLE(1000);
constexpr std::chrono::seconds LONGEST_WAIT(30);

std::string RateText(const Figures& figures)
{
    if (!figures.bitRate) {
        return "no clock";
    }
    char text[48];
    std::snprintf(text, sizeof(text), "%.1f kbit/s", *figures.bitRate / 1000);
    return text;
}

} // namespace

bool ServicesTask::Start()
{
    SetRecorded(true);
    return Task::Start("TsServices", {IDLE, STACK_SIZE, WATCHDOG_TIME});
}

std::optional<ServiceTable> ServicesTask::Ask()
{
    zor::Result<ServiceTable> table = Run([this] { return m_table; }, LONGEST_WAIT);
    return table ? std::optional(*std::move(table)) : std::nullopt;
}

/// What came in one second.
void ServicesTask::On(const StreamStatistics& second) const
{
    std::string services;
    for (const Service& service : m_table.Services()) {
        const Figures figures = FiguresOf(second, service);
        services += "; " + std::to_string(service.id) + ": " + RateText(figures) + ", " +
                    std::to_string(figures.continuityErrors) + " errors";
    }
    const Figures all = FiguresOfAll(second);
    ZOR_LOG_TAGGED(LOG_TAG, false, DLOG_INFO,
                   "last second: %llu packets, %s, %llu continuity errors%s",
                   static_cast<unsigned long long>(all.packets), RateText(all).c_str(),
                   static_cast<unsigned long long>(all.continuityErrors), services.c_str());
}

} // namespace tsmon
