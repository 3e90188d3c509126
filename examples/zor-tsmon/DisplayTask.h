#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "Completion.h"
#include "Options.h"
#include "Outcome.h"
#include "ParserTask.h"
#include "ProgressLine.h"
#include "ReaderTask.h"
#include "ServicesTask.h"
#include "zor/Task.h"

namespace tsmon {

/// Who knows what is to be shown.
struct ShownTasks
{
    const ReaderTask& reader;
    ParserTask& parser;
    ServicesTask& services;
};

/// Shows on the way how far the reading has come: timers have it redraw the progress line and
/// repeat the table. It owns nothing that it shows, but asks for it.
///
/// EndTask() ends it, and with it the line is gone. No watchdog should see it: it writes to
/// terminals and pipes, which may keep it waiting for as long as they like.
class DisplayTask : public zor::Task<DisplayTask>
{
 public:
    /// All that is passed must outlive the task; its thread uses it until it has ended.
    ///
    /// @param outputLost  set once a table cannot be written to @p tables; no more are printed then
    DisplayTask(const Options& options, const ShownTasks& shown, std::ostream& tables,
                ProgressLine& progress, Completion& outputLost);

    /// Whether there is anything to show on the way.
    bool IsNeeded() const { return m_progress.IsVisible() || m_options.every.count() > 0; }

    bool t_Create() override;
    void t_Destroy() override;

 private:
    void DrawProgress();
    void PrintTableAgain();

    const Options& m_options;
    const ShownTasks m_shown;
    std::ostream& m_tables;
    ProgressLine& m_progress;
    Completion& m_outputLost;

    // The task's thread's only while it runs.
    std::optional<std::uint64_t> m_size; ///< of the file
    zor::Timer m_progressTimer;
    zor::Timer m_tableTimer;
};

} // namespace tsmon
