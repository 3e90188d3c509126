#include "Table.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <numeric>

#include "Words.h"

namespace zortop {
namespace {

constexpr const char* TITLES[COLUMNS] = {"TASK", "THREAD",   "CPU%",    "BUSY%", "QUEUED",
                                         "PEAK", "EVENTS/S", "REFUSED", "STATE"};

std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string Percent(const std::optional<double>& share)
{
    char text[32] = "-";
    if (share) {
        snprintf(text, sizeof(text), "%.1f", *share * 100);
    }
    return text;
}

std::string Rate(const std::optional<double>& rate)
{
    char text[32] = "-";
    if (rate) {
        snprintf(text, sizeof(text), *rate < 100 ? "%.1f" : "%.0f", *rate);
    }
    return text;
}

std::vector<std::string> CellsOf(const TaskReport& task, const Report& report)
{
    return {task.facts.name,
            task.facts.thread != 0 ? std::to_string(task.facts.thread) : "-",
            Percent(task.cpuShare),
            Percent(task.busyShare),
            std::to_string(task.depth),
            std::to_string(task.peak),
            Rate(task.eventsPerSec),
            std::to_string(task.refused),
            StateWords(task, report)};
}

/// What numbers are sorted by.
double NumberOf(const TaskReport& task, Column column)
{
    switch (column) {
        case Column::THREAD:
            return task.facts.thread;
        case Column::CPU:
            return task.cpuShare.value_or(-1);
        case Column::BUSY:
            return task.busyShare.value_or(-1);
        case Column::QUEUED:
            return static_cast<double>(task.depth);
        case Column::PEAK:
            return static_cast<double>(task.peak);
        case Column::EVENTS:
            return task.eventsPerSec.value_or(-1);
        case Column::REFUSED:
            return static_cast<double>(task.refused);
        default:
            return 0;
    }
}

/// Texts from A on, numbers from the greatest on.
bool IsBefore(const TaskReport& a, const TaskReport& b, Column column, const Report& report)
{
    if (column == Column::TASK) {
        return strcasecmp(a.facts.name.c_str(), b.facts.name.c_str()) < 0;
    }
    if (column == Column::STATE) {
        return StateWords(a, report) < StateWords(b, report);
    }
    return NumberOf(a, column) > NumberOf(b, column);
}

void AddTable(const Report& report, const Order& order, std::vector<Line>* lines)
{
    std::vector<std::vector<std::string>> rows{{std::begin(TITLES), std::end(TITLES)}};
    if (order.isSorted) {
        rows[0][static_cast<std::size_t>(order.column)] += order.isReversed ? "^" : "v";
    }
    for (const TaskReport& task : Selected(report, order)) {
        rows.push_back(CellsOf(task, report));
    }
    std::vector<std::size_t> widths(COLUMNS, 0);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < COLUMNS; ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (std::size_t r = 0; r < rows.size(); ++r) {
        std::string text = " ";
        for (std::size_t i = 0; i < COLUMNS; ++i) {
            const std::string gap(widths[i] - rows[r][i].size(), ' ');
            const bool isText = i == 0 || i == COLUMNS - 1;
            text += ' ' + (isText ? rows[r][i] + gap : gap + rows[r][i]);
        }
        text.erase(text.find_last_not_of(' ') + 1);
        lines->push_back({text, r == 0 ? Line::HEAD : Line::PLAIN});
    }
}

std::string Due(const std::optional<std::int64_t>& dueNsec, const Report& report)
{
    if (!dueNsec) {
        return "";
    }
    const double left = static_cast<double>(*dueNsec - report.atNsec) / 1e9;
    return left >= 0 ? ", next due in " + Duration(left) : ", next overdue by " + Duration(-left);
}

std::string TimersLine(const Report& report)
{
    const TimerFacts& timers = report.timers;
    std::string text = "timers: " + std::to_string(timers.scheduled) + " scheduled";
    text += Due(timers.dueNsec, report);
    text +=
        "; " + std::to_string(timers.paused) + " paused, " + std::to_string(timers.idle) + " idle";
    std::optional<std::int64_t> next;
    std::size_t underWay = 0;
    for (const AlarmFacts& alarm : report.alarms) {
        if (alarm.dueNsec) {
            ++underWay;
            next = std::min(next.value_or(*alarm.dueNsec), *alarm.dueNsec);
        }
    }
    text += "   alarms: " + std::to_string(report.alarms.size()) + ", " + std::to_string(underWay) +
            " under way" + Due(next, report);
    return text;
}

void AddCalls(const Report& report, std::vector<Line>* lines)
{
    for (const Circle& circle : report.circles) {
        for (std::size_t i = 0; i < circle.waits.size(); ++i) {
            lines->push_back({(i == 0 ? "deadlock  " : "          ") + circle.waits[i], Line::RED});
        }
    }
    for (const CallReport& call : report.calls) {
        lines->push_back({"call      " + call.callerName + " waits for " + call.receiverName +
                              ", " + Duration(call.sec),
                          Line::PLAIN});
    }
}

} // namespace

const char* TitleOf(Column column)
{
    return TITLES[static_cast<std::size_t>(column)];
}

bool FindColumn(const std::string& title, Column* column)
{
    for (std::size_t i = 0; i < COLUMNS; ++i) {
        const std::string known = TITLES[i];
        if (strcasecmp(title.c_str(), known.c_str()) == 0 ||
            strcasecmp(title.c_str(), known.substr(0, known.find_first_of("%/")).c_str()) == 0) {
            *column = static_cast<Column>(i);
            return true;
        }
    }
    return false;
}

std::vector<TaskReport> Selected(const Report& report, const Order& order)
{
    std::vector<TaskReport> tasks;
    for (const TaskReport& task : report.tasks) {
        if (Lower(task.facts.name).find(Lower(order.filter)) != std::string::npos) {
            tasks.push_back(task);
        }
    }
    if (order.isSorted) {
        std::stable_sort(tasks.begin(), tasks.end(), [&](const TaskReport& a, const TaskReport& b) {
            return order.isReversed ? IsBefore(b, a, order.column, report)
                                    : IsBefore(a, b, order.column, report);
        });
    }
    return tasks;
}

std::vector<Line> Lines(const Report& report, const Order& order, const std::string& title)
{
    std::vector<Line> lines{{title, Line::PLAIN}};
    for (const Notice& notice : report.notices) {
        lines.push_back(
            {"! " + notice.text, notice.kind == Notice::DEADLOCK ? Line::RED : Line::YELLOW});
    }
    AddTable(report, order, &lines);
    AddCalls(report, &lines);
    lines.push_back({TimersLine(report), Line::PLAIN});
    lines.push_back({"registry: " + (report.registryHolder ? "held by " + *report.registryHolder
                                                           : std::string("free")),
                     Line::PLAIN});
    for (const std::string& remark : report.remarks) {
        lines.push_back({"left out: " + remark, Line::YELLOW});
    }
    return lines;
}

} // namespace zortop
