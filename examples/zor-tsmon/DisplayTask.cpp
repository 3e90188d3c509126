#include "DisplayTask.h"

#include <unistd.h>

#include <chrono>

#include "PacketFile.h"
#include "TableReport.h"
#include "Terminal.h"

namespace tsmon {

namespace {

constexpr std::chrono::milliseconds REDRAW_INTERVAL{200};

} // namespace

DisplayTask::DisplayTask(const Options& options, const ShownTasks& shown, std::ostream& tables,
                         ProgressLine& progress, Completion& outputLost)
    : m_options(options),
      m_shown(shown),
      m_tables(tables),
      m_progress(progress),
      m_outputLost(outputLost)
{}

bool DisplayTask::t_Create()
{
    if (m_progress.IsVisible()) {
        m_size = SizeOf(m_options.file);
        m_progressTimer = Every(REDRAW_INTERVAL, [this] { DrawProgress(); });
        DrawProgress();
    }
    if (m_options.every.count() > 0) {
        m_tableTimer = Every(m_options.every, [this] { PrintTableAgain(); });
    }
    return true;
}

void DisplayTask::t_Destroy()
{
    m_progress.Clear();
}

void DisplayTask::DrawProgress()
{
    const std::optional<ServiceTable> table = m_shown.services.Ask();
    const std::optional<TickStatistics> statistics = m_shown.parser.AskStatistics();
    if (!table || !statistics) {
        return; // one of them is busy; the next firing comes soon
    }
    Progress progress;
    progress.name = m_options.InputName();
    progress.bytes = m_shown.reader.BytesRead();
    progress.size = m_size;
    progress.services = table->Services().size();
    progress.bitRate = FiguresOfAll(statistics->lastSecond).bitRate;
    progress.continuityErrors = FiguresOfAll(statistics->total).continuityErrors;
    progress.isInputLost = m_shown.reader.IsInputLost();
    progress.isPacketless = m_shown.reader.IsPacketless();
    m_progress.Draw(progress);
}

void DisplayTask::PrintTableAgain()
{
    if (!m_tables) {
        return;
    }
    std::optional<ServiceTable> table = m_shown.services.Ask();
    std::optional<TickStatistics> statistics = m_shown.parser.AskStatistics();
    if (!table || !statistics) {
        return;
    }
    Outcome outcome;
    outcome.counts = statistics->total.counts;
    outcome.table = *std::move(table);
    outcome.statistics = std::move(statistics->total);
    outcome.inputLosses = m_shown.reader.InputLosses();
    outcome.packetlessInputs = m_shown.reader.PacketlessInputs();
    if (m_options.realtime) {
        outcome.lastSecond = std::move(statistics->lastSecond);
    }
    const auto print = [&] {
        PrintTable(outcome, WidthOf(STDOUT_FILENO), m_tables);
        m_tables << std::endl; // an empty line, and all of it goes out now
    };
    if (isatty(STDOUT_FILENO) == 1) {
        m_progress.Around(print);
    } else {
        print(); // a pipe may be full for long, which must not hold up who wants to log
    }
    if (!m_tables) {
        m_outputLost.Set();
    }
}

} // namespace tsmon
