#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Report.h"

namespace zortop {

/// The columns of the table of tasks, in their order.
enum class Column
{
    TASK,
    THREAD,
    CPU,
    BUSY,
    QUEUED,
    PEAK,
    EVENTS,
    REFUSED,
    STATE,
};

constexpr std::size_t COLUMNS = 9;

/// Which tasks are shown, and in which order.
struct Order
{
    Column column = Column::TASK;
    bool isReversed = false;
    bool isSorted = false; ///< else they stand in the order of their creation
    std::string filter;    ///< part of the name, in any case of letters
};

/// A line of the screen or of the text.
struct Line
{
    enum Look
    {
        PLAIN,
        HEAD,
        RED,
        YELLOW,
    };

    std::string text;
    Look look = PLAIN;
};

/// The heading of a column.
const char* TitleOf(Column column);

/// The column of that heading in any case of letters.
///
/// @return false if there is none
bool FindColumn(const std::string& title, Column* column);

/// The tasks of @p report that are to be shown, in their order.
std::vector<TaskReport> Selected(const Report& report, const Order& order);

/// The whole report as lines. What deserves a look comes first, then the table, then calls,
/// deadlocks, timers and alarms, and who holds the registry.
std::vector<Line> Lines(const Report& report, const Order& order, const std::string& title);

} // namespace zortop
